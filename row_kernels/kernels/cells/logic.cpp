#include <functional>

#include "cells/cell_function.hpp"
#include "cells/cells.hpp"
#include "nan.hpp"

namespace quernbrook::row_kernels {
namespace {

template <class Relation>
struct Comparison {
  double operator()(double x, double y) const noexcept {
    return is_nan(x) || is_nan(y) ? nan : Relation{}(x, y) ? 1.0 : 0.0;
  }
};

template <class Relation>
struct IeeeComparison {
  double operator()(double x, double y) const noexcept { return Relation{}(x, y) ? 1.0 : 0.0; }
};

template <class Relation>
std::unique_ptr<RowFunction> make_comparison(bool ieee) {
  return ieee ? make_cells<IeeeComparison<Relation>, 2>() : make_cells<Comparison<Relation>, 2>();
}

struct And {
  double operator()(double x, double y) const noexcept {
    return x == 0.0 || y == 0.0 ? 0.0 : is_nan(x) || is_nan(y) ? nan : 1.0;
  }
};

struct Or {
  double operator()(double x, double y) const noexcept {
    const bool x_holds = x < 0.0 || x > 0.0;
    const bool y_holds = y < 0.0 || y > 0.0;
    return x_holds || y_holds ? 1.0 : is_nan(x) || is_nan(y) ? nan : 0.0;
  }
};

struct Not {
  double operator()(double x) const noexcept { return is_nan(x) ? nan : x == 0.0 ? 1.0 : 0.0; }
};

struct Where {
  double operator()(double condition, double x, double y) const noexcept {
    return is_nan(condition) ? nan : condition == 0.0 ? y : x;
  }
};

}  // namespace

std::unique_ptr<RowFunction> make_less(bool ieee) { return make_comparison<std::less<>>(ieee); }
std::unique_ptr<RowFunction> make_less_equal(bool ieee) {
  return make_comparison<std::less_equal<>>(ieee);
}
std::unique_ptr<RowFunction> make_greater(bool ieee) {
  return make_comparison<std::greater<>>(ieee);
}
std::unique_ptr<RowFunction> make_greater_equal(bool ieee) {
  return make_comparison<std::greater_equal<>>(ieee);
}
std::unique_ptr<RowFunction> make_equal(bool ieee) {
  return make_comparison<std::equal_to<>>(ieee);
}
std::unique_ptr<RowFunction> make_not_equal(bool ieee) {
  return make_comparison<std::not_equal_to<>>(ieee);
}

std::unique_ptr<RowFunction> make_and() { return make_cells<And, 2>(); }
std::unique_ptr<RowFunction> make_or() { return make_cells<Or, 2>(); }
std::unique_ptr<RowFunction> make_not() { return make_cells<Not, 1>(); }
std::unique_ptr<RowFunction> make_where() { return make_cells<Where, 3>(); }

}  // namespace quernbrook::row_kernels
