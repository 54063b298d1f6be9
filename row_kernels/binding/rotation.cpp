#include "rotation.hpp"

#include <array>
#include <string>

#include "arrays.hpp"
#include "capsule.hpp"
#include "failures.hpp"

namespace quernbrook::row_kernels::binding {
namespace {

constexpr std::size_t highest_arity = 3;

void require_number(const char* name, std::size_t arity, std::size_t count) {
  if (count == arity) return;
  throw ArgumentError(std::string(name) + " takes " + std::to_string(arity) + " input(s); got " +
                      std::to_string(count));
}

std::string widths_text(const char* name, const std::array<Array, highest_arity>& rows,
                        std::size_t count) {
  std::string text = std::string(name) + ": rows have different widths:";
  for (std::size_t place = 0; place < count; ++place) {
    text += (place == 0 ? " " : ", ") + std::to_string(rows[place].columns);
  }
  return text;
}

}  // namespace

int Rotation::run(void* state, const quernbrook_rows* arguments, std::size_t argument_count,
                  std::ptrdiff_t row_count, std::ptrdiff_t column_count, double* result,
                  quernbrook_failure* failure) noexcept {
  auto& self = *static_cast<Rotation*>(state);
  return tell_failure(failure, [&] {
    require_number(self.name_, self.arity(), argument_count);
    std::array<Rows, highest_arity> rows{};
    for (std::size_t place = 0; place < argument_count; ++place) {
      rows[place] = {arguments[place].first, arguments[place].stride};
    }
    if (self.stateless_) {
      self.function_->run(rows.data(), row_count, column_count, result);
      return;
    }
    const Claim claim(self.claimed_, self.name_);
    self.function_->run(rows.data(), row_count, column_count, result);
  });
}

quernbrook_row_kernel Rotation::kernel() noexcept {
  const std::uint64_t flags = QUERNBROOK_SHAREABLE | (stateless_ ? QUERNBROOK_STATELESS : 0);
  return {sizeof(quernbrook_row_kernel), flags, this, &run};
}

nb::object Rotation::call(const nb::args& rows) {
  quernbrook_failure failure{};
  const std::size_t count = rows.size();
  if (tell_failure(&failure, [&] { require_number(name_, arity(), count); }) != 0) raise(failure);
  std::array<Array, highest_arity> arrays{};
  std::array<quernbrook_rows, highest_arity> arguments{};
  for (std::size_t place = 0; place < count; ++place) {
    arrays[place] = row_of(rows[place], name_);
    arguments[place] = {arrays[place].cells, 0};
  }
  const std::ptrdiff_t columns = arrays[0].columns;
  for (std::size_t place = 1; place < count; ++place) {
    if (arrays[place].columns == columns) continue;
    throw nb::value_error(widths_text(name_, arrays, count).c_str());
  }
  NewRow result = new_row(columns);
  if (run(this, arguments.data(), count, 1, columns, result.cells, &failure) != 0) raise(failure);
  return std::move(result.array);
}

void define_rotations(nb::module_& module) {
  nb::class_<Rotation>(module, "Rotation", "Base of all functions that make a row of rows.")
      .def_prop_ro("arity", &Rotation::arity, "The number of rows that a call takes.")
      .def(
          "__call__",
          [](Rotation& self, const nb::args& rows, nb::handle /*context*/) {
            return self.call(rows);
          },
          nb::arg("rows"), nb::arg("context") = nb::none(),
          "Takes `arity` array-likes of one width and returns a new float64 row. Raises TypeError "
          "for\n"
          "another number of rows, ValueError for other dimensions or widths.")
      .def(
          "__quernbrook_row_kernel__",
          [](nb::pointer_and_handle<Rotation> self) {
            return capsule_of(self.p->kernel(), self.h, QUERNBROOK_ROW_KERNEL_CAPSULE);
          },
          "The capsule through which the evaluator calls the function without the interpreter.");
  nb::class_<StatelessRotation, Rotation>(module, "StatelessRotation",
                                          "Base of the rotations without memory.")
      .attr("stateful") = false;
  nb::class_<WindowedRotation, Rotation>(module, "WindowedRotation",
                                         "Base of the rotations that remember a window of rows.")
      .def("get_state", &WindowedRotation::get_state,
           "The function's name and plain data: \"count\" of all rows seen, \"window\", and the "
           "newest\n"
           "rows, oldest first, as \"buffer\"; with several arguments one such list for each, as\n"
           "\"buffers\".")
      .def("restore", &WindowedRotation::restore, nb::arg("state_data"),
           "Go on where the instance stood that the data are from. Raises KeyError, TypeError or\n"
           "ValueError for data that don't fit this instance.")
      .attr("stateful") = true;
}

}  // namespace quernbrook::row_kernels::binding
