#include "states.hpp"

#include <algorithm>
#include <string>

namespace quernbrook::row_kernels::binding {

nb::dict new_state_data(std::int64_t count, std::size_t window) {
  nb::dict data;
  data["count"] = count;
  data["window"] = window;
  return data;
}

nb::object saved_state(const char* name, const nb::dict& data) {
  return nb::module_::import_("quernbrook.row_kernels.states").attr("SavedState")(name, data);
}

std::int64_t saved_count(const nb::object& state_data, std::size_t window) {
  const nb::object saved_window = state_data["window"];
  if (!saved_window.equal(nb::int_(window))) {
    const std::string text = std::string("saved with window ") + nb::str(saved_window).c_str() +
                             ", configured with " + std::to_string(window);
    throw nb::value_error(text.c_str());
  }
  const nb::object count = state_data["count"];
  if (!PyLong_Check(count.ptr())) {
    const std::string text = std::string("count must be an int; got ") + nb::repr(count).c_str();
    throw nb::type_error(text.c_str());
  }
  // Leaves room to count on.
  constexpr long long most = 1LL << 62;
  const long long value = PyLong_AsLongLong(count.ptr());
  const bool is_beyond = value == -1 && PyErr_Occurred() != nullptr;
  if (is_beyond || value > most) {
    PyErr_Clear();
    const std::string text =
        "count must be from 0 to " + std::to_string(most) + "; got " + nb::repr(count).c_str();
    throw nb::value_error(text.c_str());
  }
  return value;
}

std::size_t rows_held(std::int64_t count, std::size_t capacity) noexcept {
  return std::min(static_cast<std::size_t>(count), capacity);
}

void require_row_count(std::size_t rows, std::int64_t count, std::size_t capacity) {
  if (count >= 0 && rows == rows_held(count, capacity)) return;
  const std::string text = std::to_string(rows) + " rows of " + std::to_string(count) +
                           " for a window of " + std::to_string(capacity);
  throw nb::value_error(text.c_str());
}

}  // namespace quernbrook::row_kernels::binding
