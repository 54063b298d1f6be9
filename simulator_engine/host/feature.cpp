#include "host/feature.hpp"

#include "host/matrix.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

Object feature_position(const Namespace& space, PyObject* context, PyObject* name) {
  if (!contains(attribute(context, space.names.feature_index), name)) {
    raise(space.evaluation_error(), message("Feature '", name, "' not in context"));
  }
  return item(attribute(context, space.names.feature_index), name);
}

Object feature_matrix(const Namespace& space, PyObject* context, PyObject* position) {
  return as_float64(space, item(attribute(context, space.names.features), position));
}

}  // namespace quernbrook::host
