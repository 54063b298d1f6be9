#pragma once

#include <memory>

#include "row_function.hpp"

// Functions of single cells. A NaN in an argument makes the result NaN, but where told otherwise.
// Truth is any number but zero.
namespace quernbrook::row_kernels {

std::unique_ptr<RowFunction> make_add();
std::unique_ptr<RowFunction> make_subtract();
std::unique_ptr<RowFunction> make_multiply();
/// With `finite`, an infinite quotient is NaN.
std::unique_ptr<RowFunction> make_divide(bool finite);
std::unique_ptr<RowFunction> make_negate();
std::unique_ptr<RowFunction> make_absolute();
/// 1, 0 or -1; zeros of both signs give 0.
std::unique_ptr<RowFunction> make_sign();

/// With `skip_nan`, a NaN counts only beside another. Of equal numbers the first is taken.
std::unique_ptr<RowFunction> make_minimum(bool skip_nan);
std::unique_ptr<RowFunction> make_maximum(bool skip_nan);

/// The natural logarithm as the C library's `log` computes it; NaN for zero and less.
std::unique_ptr<RowFunction> make_logarithm();
/// The C library's `pow`, but NaN for NaN in either place.
std::unique_ptr<RowFunction> make_power();
/// The sign of the first argument times the power of its absolute value.
std::unique_ptr<RowFunction> make_signed_power();

/// Comparisons give 1 or 0, and NaN beside a NaN. With `ieee`, they are what IEEE 754 says: false
/// beside a NaN, and inequality true.
std::unique_ptr<RowFunction> make_less(bool ieee);
std::unique_ptr<RowFunction> make_less_equal(bool ieee);
std::unique_ptr<RowFunction> make_greater(bool ieee);
std::unique_ptr<RowFunction> make_greater_equal(bool ieee);
std::unique_ptr<RowFunction> make_equal(bool ieee);
std::unique_ptr<RowFunction> make_not_equal(bool ieee);

/// Three-valued: NaN is a truth that is not known, and matters only where the other leaves it open.
std::unique_ptr<RowFunction> make_and();
std::unique_ptr<RowFunction> make_or();
std::unique_ptr<RowFunction> make_not();
/// The second argument where the first is true, the third where it is zero, NaN where it is NaN.
std::unique_ptr<RowFunction> make_where();

}  // namespace quernbrook::row_kernels
