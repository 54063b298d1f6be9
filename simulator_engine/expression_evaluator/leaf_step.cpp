#include "expression_evaluator/leaf_step.hpp"

#include <cstring>

#include "fast_paths/kernels/universe_mask.hpp"
#include "host/universe.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;

LeafStep::LeafStep(const Run& run, const Registers& registers) : run_(run), registers_(registers) {}

void LeafStep::run(NodeIndex node, npy_intp row) {
  const Object universe = Object::share(this->universe());
  PyObject* feature = feature_at(run_.table.nodes[node]);
  Row source;
  if (feature != nullptr && find_row(feature, row, source)) {
    double* target = registers_.row(node);
    if (universe.is_none()) {
      if (source.step == sizeof(double)) {
        std::memcpy(target, source.data, registers_.row_bytes());
      } else {
        for (npy_intp column = 0; column < run_.columns; ++column) {
          target[column] = *reinterpret_cast<const double*>(source.data + column * source.step);
        }
      }
      return;
    }
    Row mask;
    if (find_row(universe, row, mask)) {
      constexpr auto size = static_cast<npy_intp>(sizeof(double));
      kernels::mask_universe(reinterpret_cast<const double*>(source.data), source.step / size,
                             reinterpret_cast<const double*>(mask.data), mask.step / size, target,
                             static_cast<std::size_t>(run_.columns));
      return;
    }
  }
  run_slowly(node, row);
  forget_universe();
}

PyObject* LeafStep::universe() {
  if (!universe_is_current_) {
    universe_ = attribute(run_.context, run_.space.names.universe);
    universe_is_current_ = universe_is_plain_attribute();
  }
  return universe_;
}

/// Reading the attribute again cannot run foreign code or give another object.
bool LeafStep::universe_is_plain_attribute() const {
  PyTypeObject* type = Py_TYPE(run_.context.get());
  return reinterpret_cast<PyObject*>(type) == run_.space.context_type &&
         type->tp_getattro == PyObject_GenericGetAttr &&
         find_on_type(type, run_.space.names.universe) == nullptr;
}

/// The matrix of the leaf, borrowed, if both the sequence and the index are plain; else null.
PyObject* LeafStep::feature_at(const Node& node) const {
  PyObject* features = run_.features;
  if (!PyTuple_CheckExact(features) && !PyList_CheckExact(features)) return nullptr;
  if (node.feature_index.empty() || !PyLong_CheckExact(node.feature_index.get())) return nullptr;
  const Py_ssize_t place = PyLong_AsSsize_t(node.feature_index);
  if (place < 0 || place >= PySequence_Fast_GET_SIZE(features)) {
    PyErr_Clear();
    return nullptr;
  }
  return PySequence_Fast_GET_ITEM(features, place);
}

bool LeafStep::find_row(PyObject* matrix, npy_intp row, Row& found) const {
  if (!is_double_array(matrix)) return false;
  PyArrayObject* array = as_array(matrix);
  if (PyArray_NDIM(array) != 2 || row >= PyArray_DIM(array, 0) ||
      PyArray_DIM(array, 1) != run_.columns) {
    return false;
  }
  found.data = static_cast<const char*>(PyArray_DATA(array)) + row * PyArray_STRIDE(array, 0);
  found.step = PyArray_STRIDE(array, 1);
  return !registers_.overlaps(found.data, found.step, run_.columns);
}

void LeafStep::run_slowly(NodeIndex index, npy_intp row) {
  const Node& node = run_.table.nodes[index];
  if (node.feature_index.empty()) raise_missing_path(run_, index);
  const Object all = Object::own(PySlice_New(nullptr, nullptr, nullptr));
  const Object key = Object::own(PyTuple_Pack(2, integer(row).get(), all.get()));
  const Object register_row = registers_.view(index);
  const Object source = item(item(run_.features, node.feature_index), key);
  if (universe_.is_none()) {
    assign(register_row, source);
    return;
  }
  const Object data = call_method(source, run_.space.names.copy);
  const Object mask = item(attribute(run_.context, run_.space.names.universe), key);
  assign(register_row, host::apply_universe_mask(run_.space, data, mask));
}

}  // namespace quernbrook::evaluation
