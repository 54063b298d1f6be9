#include "filtration/weight_extraction.hpp"

#include "python/array.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/gil.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::filtration {

using namespace python;

namespace {

bool is_empty_or_none(PyObject* object) { return object == Py_None || length(object) == 0; }

Py_ssize_t dimension(const Namespace& space, PyObject* signal, Py_ssize_t place) {
  const Object weights = attribute(signal, space.names.weights);
  return index_value(item(attribute(weights, space.names.shape), integer(place)));
}

Object nothing_passes(const Namespace& space, PyObject* useful_signals) {
  Py_ssize_t columns = 0;
  if (!is_empty_or_none(useful_signals)) {
    const Object first = next(iterator(call_method(useful_signals, space.names.values)));
    if (first.empty()) raise_text(PyExc_StopIteration, "");
    columns = dimension(space, first, 1);
  }
  return uninitialised(0, columns);
}

void check_ids(PyObject* useful_signals, PyObject* passing_ids) {
  for (const Object& id : Items(Object::borrow(passing_ids))) {
    if (!id.is_none() && !is_text(id)) {
      raise(PyExc_TypeError, message("Expected str, got ", type_name(id)));
    }
    if (!contains(useful_signals, id)) raise_key_error(id);
  }
}

Object extract(const Namespace& space, PyObject* useful_signals, PyObject* passing_ids, int t) {
  const Object first_signal = item(useful_signals, item(passing_ids, integer(0)));
  const Py_ssize_t rows = dimension(space, first_signal, 0);
  const Py_ssize_t columns = dimension(space, first_signal, 1);
  if (t < 0 || t >= rows) {
    raise(PyExc_IndexError,
          message("t=", t, " out of bounds for weights array with valid range [0, ", rows, ")"));
  }
  check_ids(useful_signals, passing_ids);

  const Py_ssize_t count = length(passing_ids);
  Object result = uninitialised(count, columns);
  const Object key = row_key(t);
  Turns turns;
  for (Py_ssize_t place = 0; place < count; ++place) {
    turns.offer();
    const Object id = item(passing_ids, integer(place));
    const Object weights = attribute(item(useful_signals, id), space.names.weights);
    const Object row = item(weights, key);
    assign(row_view(result, place), row);
  }
  return result;
}

Object extract_filtration_weights(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<3> parameters{"extract_filtration_weights",
                                            {"useful_signals", "passing_ids", "t"}};
  const auto [useful_signals, passing_ids, t] = parameters.bind(arguments);
  const int row = int_value(t);
  if (is_empty_or_none(passing_ids)) return nothing_passes(space, useful_signals);
  return extract(space, useful_signals, passing_ids, row);
}

}  // namespace

PyMethodDef weight_extraction_functions[] = {
    function_definition<extract_filtration_weights>(
        "extract_filtration_weights",
        "extract_filtration_weights($module, /, useful_signals, passing_ids, t)\n--\n\n"
        "Extract weight rows for all passing signals at timestep t.\n"
        "\n"
        "Returns ndarray of shape (A, N_alloc) with rows ordered by passing_ids.\n"
        "\n"
        "Parameters\n"
        "----------\n"
        "useful_signals : mapping of str to UsefulSignal\n"
        "    The pool; `weights` of each is an array of shape (T, N_alloc).\n"
        "passing_ids : sequence of str, or None\n"
        "    The ids of the signals to extract.\n"
        "t : int\n"
        "    The row, from 0 to T - 1, of 32 bits.\n"
        "\n"
        "Returns\n"
        "-------\n"
        "ndarray of shape (A, N_alloc)\n"
        "    New float64 array, a row for each id.\n"
        "\n"
        "Raises\n"
        "------\n"
        "IndexError\n"
        "    `t` is negative or lies beyond the first signal's rows.\n"
        "KeyError\n"
        "    An id is not in `useful_signals`.\n"
        "TypeError\n"
        "    An id is neither a str nor None, or `t` is no integer."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::filtration
