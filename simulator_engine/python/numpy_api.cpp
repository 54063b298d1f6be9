#define EXPRESSION_EVALUATOR_IMPORTS_NUMPY
#include "python/numpy_api.hpp"

namespace quernbrook::python {

bool import_numpy() {
  import_array1(false);
  return true;
}

}  // namespace quernbrook::python
