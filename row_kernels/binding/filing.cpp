#include <nanobind/nanobind.h>
#include <quernbrook/row_kernel.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

#include "arrays.hpp"
#include "capsule.hpp"
#include "failures.hpp"
#include "functions.hpp"

namespace quernbrook::row_kernels::binding {

namespace {

namespace nb = nanobind;

/// Copies the rows of its last argument, in the order in which they come, into a matrix, and hands
/// them on. A chain of these makes one graph of many, each with a matrix of its own.
class RowFiling {
 public:
  explicit RowFiling(nb::object target) : target_(writable_block_of(std::move(target), name)) {}

  static constexpr const char* name = "row_filing";

  quernbrook_row_kernel kernel() noexcept { return {sizeof(quernbrook_row_kernel), 0, this, &run}; }

  nb::object call(const nb::args& rows) {
    quernbrook_failure failure{};
    const std::size_t count = rows.size();
    if (count == 0) throw nb::type_error("row_filing takes at least one input; got 0");
    const Array last = row_of(rows[count - 1], name);
    const quernbrook_rows argument{last.cells, 0};
    NewRow result = new_row(last.columns);
    if (run(this, &argument, 1, 1, last.columns, result.cells, &failure) != 0) raise(failure);
    return std::move(result.array);
  }

 private:
  static int run(void* state, const quernbrook_rows* arguments, std::size_t argument_count,
                 std::ptrdiff_t row_count, std::ptrdiff_t column_count, double* result,
                 quernbrook_failure* failure) noexcept {
    auto& self = *static_cast<RowFiling*>(state);
    return tell_failure(failure, [&] {
      if (argument_count == 0) throw ArgumentError("row_filing takes at least one input; got 0");
      self.file(arguments[argument_count - 1], row_count, column_count, result);
    });
  }

  void file(const quernbrook_rows& rows, std::ptrdiff_t row_count, std::ptrdiff_t column_count,
            double* result) {
    if (column_count != target_.columns || next_ + row_count > target_.rows) {
      throw std::invalid_argument("row_filing: rows " + std::to_string(next_) + " to " +
                                  std::to_string(next_ + row_count - 1) + " of " +
                                  std::to_string(column_count) + " cells don't fit a matrix of (" +
                                  std::to_string(target_.rows) + ", " +
                                  std::to_string(target_.columns) + ")");
    }
    double* filed = target_.cells + next_ * column_count;
    for (std::ptrdiff_t row = 0; row < row_count; ++row) {
      const double* cells = rows.first + row * rows.stride;
      std::copy_n(cells, column_count, filed + row * column_count);
      std::copy_n(cells, column_count, result + row * column_count);
    }
    next_ += row_count;
  }

  WritableBlock target_;
  std::ptrdiff_t next_ = 0;
};

}  // namespace

void define_filing(nb::module_& module) {
  nb::class_<RowFiling>(
      module, "RowFiling",
      "Copies the rows of its last argument into a matrix and hands them on.\n\n"
      "`target` is a C-ordered, writable float64 array of shape (T, N_alloc); the "
      "first row of\nthe run goes into its first. An instance serves one run.")
      .def(nb::init<nb::object>(), nb::arg("target"))
      .def(
          "__call__",
          [](RowFiling& self, const nb::args& rows, nb::handle /*context*/) {
            return self.call(rows);
          },
          nb::arg("rows"), nb::arg("context") = nb::none(),
          "Files the last of the rows. Raises ValueError for one that doesn't fit the matrix.")
      .def(
          "__quernbrook_row_kernel__",
          [](nb::pointer_and_handle<RowFiling> self) {
            return capsule_of(self.p->kernel(), self.h, QUERNBROOK_ROW_KERNEL_CAPSULE);
          },
          "The capsule through which the evaluator calls it without the interpreter.")
      .attr("stateful") = false;
}

}  // namespace quernbrook::row_kernels::binding
