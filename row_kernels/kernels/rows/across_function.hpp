#pragma once

#include <cstddef>
#include <memory>
#include <tuple>

#include "row_function.hpp"

namespace quernbrook::row_kernels {

/// `Operation` as a function of rows. One is made for each call, from the number of columns and the
/// options; it holds the call's scratch memory and computes one row after the other.
template <class Operation, std::size_t arity, class... Options>
class AcrossFunction final : public RowFunction {
 public:
  explicit AcrossFunction(Options... options) : options_(options...) {}

  std::size_t argument_count() const noexcept override { return arity; }

  void run(const Rows* arguments, std::ptrdiff_t row_count, std::ptrdiff_t column_count,
           double* result) override {
    const auto columns = static_cast<std::size_t>(column_count);
    Operation operation = std::apply(
        [=](const Options&... options) { return Operation(columns, options...); }, options_);
    for (std::ptrdiff_t row = 0; row < row_count; ++row) {
      double* target = result + row * column_count;
      if constexpr (arity == 1) {
        operation(arguments[0].row(row), target);
      } else {
        operation(arguments[0].row(row), arguments[1].row(row), target);
      }
    }
  }

 private:
  std::tuple<Options...> options_;
};

template <class Operation, std::size_t arity, class... Options>
std::unique_ptr<RowFunction> make_across(Options... options) {
  return std::make_unique<AcrossFunction<Operation, arity, Options...>>(options...);
}

}  // namespace quernbrook::row_kernels
