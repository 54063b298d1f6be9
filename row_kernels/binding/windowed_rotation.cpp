#include "rotation.hpp"

#include <string>

#include "arrays.hpp"
#include "failures.hpp"
#include "states.hpp"

namespace quernbrook::row_kernels::binding {

nb::object WindowedRotation::get_state() {
  const Claim claim(claimed(), name());
  const WindowState state = windowed().state();
  const auto columns = static_cast<std::size_t>(state.column_count);
  nb::list buffers;
  for (std::size_t argument = 0; argument < arity(); ++argument) {
    // Nothing is held before the first row.
    const double* cells = state.count == 0 ? nullptr : state.rows[argument].data();
    buffers.append(to_lists(cells, rows_held(state.count, windowed().capacity()), columns));
  }
  nb::dict data = new_state_data(state.count, windowed().window());
  if (arity() == 1) {
    data["buffer"] = buffers[0];
  } else {
    data["buffers"] = buffers;
  }
  return saved_state(name(), data);
}

void WindowedRotation::restore(const nb::object& state_data) {
  WindowState state;
  state.count = saved_count(state_data, windowed().window());
  const std::size_t arity = this->arity();
  nb::object buffers = arity == 1 ? nb::object(nb::make_tuple(state_data["buffer"]))
                                  : nb::object(state_data["buffers"]);
  if (nb::len(buffers) != arity) {
    const std::string text =
        std::to_string(nb::len(buffers)) + " buffers for " + std::to_string(arity) + " inputs";
    throw nb::value_error(text.c_str());
  }
  bool is_first = true;
  for (nb::handle buffer : buffers) {
    const std::size_t rows = nb::len(buffer);
    require_row_count(rows, state.count, windowed().capacity());
    std::size_t columns = 0;
    state.rows.push_back(from_lists(buffer, rows, columns, name()));
    if (!is_first && static_cast<std::ptrdiff_t>(columns) != state.column_count) {
      throw nb::value_error("buffers hold rows of different widths");
    }
    is_first = false;
    state.column_count = static_cast<std::ptrdiff_t>(columns);
  }
  const Claim claim(claimed(), name());
  windowed().restore(state);
}

}  // namespace quernbrook::row_kernels::binding
