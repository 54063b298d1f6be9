#include "fast_paths/rolling_formula.hpp"

#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::fast_paths {

using namespace python;

namespace {

/// NumPy's operations on matrices of extended precision, by name.
class Formula {
 public:
  explicit Formula(const Namespace& space)
      : space_(space), numpy_(space.global(space.names.np)), extended_(get("longdouble")) {}

  Object get(const char* name) const { return attribute(numpy_, as_text(name)); }

  template <class... Arguments>
  Object apply(const char* name, const Arguments&... arguments) const {
    return call(get(name), arguments...);
  }

  Object to_extended(PyObject* matrix) const {
    const Object names = tuple_of(as_text("copy"));
    const Object astype = attribute(matrix, space_.names.astype);
    return call_named(astype, names, extended_, Py_False);
  }

  /// A row of zeros on top of the cumulative sum along the rows.
  Object running_totals(PyObject* matrix, PyObject* zero_dtype, bool in_that_dtype) const {
    const Object shape = attribute(matrix, space_.names.shape);
    const Object zero_shape = tuple_of(integer(1), item(shape, integer(1)));
    const Object zeros = call_named(get("zeros"), space_.dtype_keyword, zero_shape, zero_dtype);
    const Object names =
        in_that_dtype ? tuple_of(as_text("axis"), as_text("dtype")) : space_.axis_keyword;
    const Object sums = in_that_dtype
                            ? call_named(get("cumsum"), names, matrix, integer(0), zero_dtype)
                            : call_named(get("cumsum"), names, matrix, integer(0));
    return apply("vstack", tuple_of(zeros, sums));
  }

  const Object& extended() const { return extended_; }

 private:
  const Namespace& space_;
  Object numpy_;
  Object extended_;
};

Object rows_from(PyObject* matrix, PyObject* first) { return item(matrix, slice(first, nullptr)); }
Object rows_before(PyObject* matrix, PyObject* end) { return item(matrix, slice(nullptr, end)); }

}  // namespace

Object rolling_by_formula(const Namespace& space, PyObject* data, PyObject* out, PyObject* window,
                          bool is_mean, bool is_standard_deviation) {
  const Formula numpy(space);
  const Object zero = real_number(0.0);
  const Object before = minus(window, integer(1));
  const auto windows = [&](PyObject* totals) {
    const Object last = rows_from(totals, window);
    return minus(last, rows_before(totals, negative(window)));
  };
  const auto store = [&](PyObject* computable, PyObject* values) {
    const Object tail = rows_from(out, before);
    const Object chosen = item(values, computable);
    set_item(tail, computable,
             call_named(numpy.get("asarray"), space.dtype_keyword, chosen, numpy.get("float64")));
    return Object::borrow(out);
  };

  const Object valid = inverse(numpy.apply("isnan", data));
  const Object safe = numpy.to_extended(numpy.apply("where", valid, data, zero));
  const Object totals = numpy.running_totals(safe, numpy.extended(), true);
  const Object int32 = numpy.get("int32");
  const Object invalid = call_method(inverse(valid), space.names.astype, int32);
  const Object invalid_totals = numpy.running_totals(invalid, int32, false);
  const Object window_sum = windows(totals);
  const Object invalid_count = windows(invalid_totals);
  const Object latest_valid = rows_from(valid, before);
  const Object no_nan = comparison(invalid_count, integer(0), Py_EQ);
  const Object computable = both(latest_valid, no_nan);
  if (!truth(numpy.apply("any", computable))) return Object::borrow(out);
  if (is_mean) return store(computable, over(window_sum, window));

  const Object square_totals = numpy.running_totals(times(safe, safe), numpy.extended(), true);
  const Object window_sum_of_squares = windows(square_totals);
  const Object mean = over(window_sum, window);
  const Object mean_of_squares = over(window_sum_of_squares, window);
  const Object variance = numpy.apply("maximum", zero, minus(mean_of_squares, times(mean, mean)));
  const Object deviation =
      call_named(numpy.get("sqrt"), space.dtype_keyword, variance, numpy.extended());
  if (is_standard_deviation) return store(computable, deviation);

  const Object latest = numpy.to_extended(rows_from(data, before));
  const Object scores =
      call_named(numpy.get("zeros_like"), space.dtype_keyword, deviation, numpy.extended());
  const Object nonzero = both(computable, comparison(deviation, zero, Py_NE));
  const Object difference = minus(item(latest, nonzero), item(mean, nonzero));
  set_item(scores, nonzero, over(difference, item(deviation, nonzero)));
  return store(computable, scores);
}

}  // namespace quernbrook::fast_paths
