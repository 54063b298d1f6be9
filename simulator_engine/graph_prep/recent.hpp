#pragma once

#include <unordered_map>
#include <utility>

#include "python/object.hpp"

namespace quernbrook::graph_prep {

/// What is known of objects that were met before, by their addresses. It keeps none of them alive:
/// who finds something makes sure that it still holds.
template <class Knowledge>
class Recent {
 public:
  /// What is known of the object, or null.
  Knowledge* find(PyObject* object) {
    const auto found = known_.find(object);
    return found == known_.end() ? nullptr : &found->second;
  }

  /// All else is forgotten once it comes to too much. What is too much by itself isn't kept.
  void add(PyObject* object, Knowledge knowledge) {
    constexpr std::size_t most_bytes = std::size_t{16} << 20;
    forget(object);
    if (knowledge.bytes() > most_bytes / 2) return;
    if (bytes_ + knowledge.bytes() > most_bytes) {
      known_.clear();
      bytes_ = 0;
    }
    bytes_ += knowledge.bytes();
    known_.emplace(object, std::move(knowledge));
  }

 private:
  void forget(PyObject* object) {
    const auto found = known_.find(object);
    if (found == known_.end()) return;
    bytes_ -= found->second.bytes();
    known_.erase(found);
  }

  std::unordered_map<PyObject*, Knowledge> known_;
  std::size_t bytes_ = 0;
};

}  // namespace quernbrook::graph_prep
