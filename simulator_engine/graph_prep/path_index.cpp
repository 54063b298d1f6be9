#include "graph_prep/path_index.hpp"

#include <bit>
#include <cstdint>

#include "python/containers.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::graph_prep {

using namespace python;

PathIndex::PathIndex(std::size_t most) : entries_(std::bit_ceil(2 * most + 1)) {}

std::size_t PathIndex::place_of(PyObject* path) const noexcept {
  // Objects lie at multiples of 16; the factor spreads what is left of their addresses.
  const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(path)) >> 4;
  const std::size_t mask = entries_.size() - 1;
  std::size_t place = static_cast<std::size_t>((address * 0x9e3779b97f4a7c15) >> 32) & mask;
  while (entries_[place].path != nullptr && entries_[place].path != path) {
    place = (place + 1) & mask;
  }
  return place;
}

void PathIndex::add(PyObject* path, NodeIndex index) { entries_[place_of(path)] = {path, index}; }

NodeIndex PathIndex::find(PyObject* path) {
  const Entry& entry = entries_[place_of(path)];
  return entry.path == nullptr ? find_equal(path) : entry.index;
}

NodeIndex PathIndex::find_equal(PyObject* path) {
  if (by_equality_.empty()) {
    by_equality_ = new_dict();
    for (const Entry& entry : entries_) {
      if (entry.path == nullptr) continue;
      set_dict_item(by_equality_, entry.path, integer(entry.index));
    }
  }
  const Object index = dict_item(by_equality_, path);
  return index.empty() ? no_node : static_cast<NodeIndex>(plain_index(index));
}

}  // namespace quernbrook::graph_prep
