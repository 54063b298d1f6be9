#include <cmath>

#include "cells/cell_function.hpp"
#include "cells/cells.hpp"
#include "nan.hpp"

// In the versions that these have had from the first: the newer ones only leave out a report of
// errors, and what is built with them doesn't load on older systems.
#if defined(__gnu_linux__) && defined(__x86_64__)
asm(".symver log, log@GLIBC_2.2.5");
asm(".symver pow, pow@GLIBC_2.2.5");
#elif defined(__gnu_linux__) && defined(__aarch64__)
asm(".symver log, log@GLIBC_2.17");
asm(".symver pow, pow@GLIBC_2.17");
#endif

namespace quernbrook::row_kernels {
namespace {

struct Logarithm {
  double operator()(double x) const noexcept { return x > 0.0 ? std::log(x) : nan; }
};

struct Power {
  double operator()(double base, double exponent) const noexcept {
    // Squares and roots are exact to the last bit, and far quicker than the C library's powers.
    if (exponent == 2.0) return base * base;
    if (exponent == 0.5 && base >= 0.0) return std::sqrt(base + 0.0);
    // The C library's are 1 for the power 0 and for the base 1, beside a NaN, too.
    return is_nan(base) || is_nan(exponent) ? nan : std::pow(base, exponent);
  }
};

struct SignedPower {
  double operator()(double base, double exponent) const noexcept {
    const double power = Power{}(std::fabs(base), exponent);
    return base > 0.0 ? power : base < 0.0 ? -power : 0.0 * power;
  }
};

}  // namespace

std::unique_ptr<RowFunction> make_logarithm() { return make_cells<Logarithm, 1>(); }
std::unique_ptr<RowFunction> make_power() { return make_cells<Power, 2>(); }
std::unique_ptr<RowFunction> make_signed_power() { return make_cells<SignedPower, 2>(); }

}  // namespace quernbrook::row_kernels
