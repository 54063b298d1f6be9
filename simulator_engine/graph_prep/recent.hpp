#pragma once

#include <algorithm>
#include <utility>
#include <vector>

#include "python/object.hpp"

namespace quernbrook::graph_prep {

/// What is known of the objects that were met last, by their addresses. It keeps none of them
/// alive: who finds something makes sure that it still holds.
template <class Knowledge>
class Recent {
 public:
  /// What is known of the object, or null.
  Knowledge* find(PyObject* object) {
    const auto is_its = [&](const Entry& entry) { return entry.object == object; };
    const auto found = std::ranges::find_if(entries_, is_its);
    return found == entries_.end() ? nullptr : &found->knowledge;
  }

  /// Too much of it is left alone, so that the memory stays small.
  void add(PyObject* object, Knowledge knowledge) {
    constexpr std::size_t most_entries = 64;
    constexpr std::size_t largest = 16 * 1024;
    if (knowledge.size() > largest) return;
    if (Knowledge* known = find(object); known != nullptr) {
      *known = std::move(knowledge);
    } else if (entries_.size() < most_entries) {
      entries_.push_back({object, std::move(knowledge)});
    } else {
      entries_[oldest_] = {object, std::move(knowledge)};
      oldest_ = (oldest_ + 1) % most_entries;
    }
  }

 private:
  struct Entry {
    PyObject* object;
    Knowledge knowledge;
  };

  std::vector<Entry> entries_;
  std::size_t oldest_ = 0;
};

}  // namespace quernbrook::graph_prep
