#include "host/graph_walk.hpp"

#include <string>

#include "python/recursion.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

Object ChildPath::text() const { return message(parent_.text(), ".c", position_); }

WalkPath::~WalkPath() {
  while (!positions_.empty()) ascend();
}

void WalkPath::descend(Py_ssize_t position) {
  enter_level();
  positions_.push_back(position);
}

void WalkPath::ascend() noexcept {
  positions_.pop_back();
  leave_level();
}

Object WalkPath::text() const {
  std::string way_down;
  for (std::size_t level = 1; level < positions_.size(); ++level) {
    way_down += ".c" + std::to_string(positions_[level]);
  }
  return way_down.empty() ? Object::share(root_path_) : message(root_path_, way_down.c_str());
}

}  // namespace quernbrook::host
