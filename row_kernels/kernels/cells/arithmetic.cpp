#include <cmath>

#include "cells/cell_function.hpp"
#include "cells/cells.hpp"
#include "nan.hpp"

namespace quernbrook::row_kernels {
namespace {

struct Add {
  double operator()(double x, double y) const noexcept { return x + y; }
};

struct Subtract {
  double operator()(double x, double y) const noexcept { return x - y; }
};

struct Multiply {
  double operator()(double x, double y) const noexcept { return x * y; }
};

struct Divide {
  double operator()(double x, double y) const noexcept { return x / y; }
};

struct FiniteDivide {
  double operator()(double x, double y) const noexcept {
    const double quotient = x / y;
    return is_finite(quotient) ? quotient : nan;
  }
};

struct Negate {
  double operator()(double x) const noexcept { return -x; }
};

struct Absolute {
  double operator()(double x) const noexcept { return std::fabs(x); }
};

struct Sign {
  double operator()(double x) const noexcept {
    const double sign = x > 0.0 ? 1.0 : x < 0.0 ? -1.0 : 0.0;
    return is_nan(x) ? nan : sign;
  }
};

struct Minimum {
  double operator()(double x, double y) const noexcept {
    return is_nan(x) || is_nan(y) ? nan : x <= y ? x : y;
  }
};

struct Maximum {
  double operator()(double x, double y) const noexcept {
    return is_nan(x) || is_nan(y) ? nan : x >= y ? x : y;
  }
};

struct MinimumOfNumbers {
  double operator()(double x, double y) const noexcept { return x <= y || is_nan(y) ? x : y; }
};

struct MaximumOfNumbers {
  double operator()(double x, double y) const noexcept { return x >= y || is_nan(y) ? x : y; }
};

}  // namespace

std::unique_ptr<RowFunction> make_add() { return make_cells<Add, 2>(); }
std::unique_ptr<RowFunction> make_subtract() { return make_cells<Subtract, 2>(); }
std::unique_ptr<RowFunction> make_multiply() { return make_cells<Multiply, 2>(); }
std::unique_ptr<RowFunction> make_negate() { return make_cells<Negate, 1>(); }
std::unique_ptr<RowFunction> make_absolute() { return make_cells<Absolute, 1>(); }
std::unique_ptr<RowFunction> make_sign() { return make_cells<Sign, 1>(); }

std::unique_ptr<RowFunction> make_divide(bool finite) {
  return finite ? make_cells<FiniteDivide, 2>() : make_cells<Divide, 2>();
}

std::unique_ptr<RowFunction> make_minimum(bool skip_nan) {
  return skip_nan ? make_cells<MinimumOfNumbers, 2>() : make_cells<Minimum, 2>();
}

std::unique_ptr<RowFunction> make_maximum(bool skip_nan) {
  return skip_nan ? make_cells<MaximumOfNumbers, 2>() : make_cells<Maximum, 2>();
}

}  // namespace quernbrook::row_kernels
