#pragma once

#include "host/namespace.hpp"

namespace quernbrook::evaluation {

/// Makes the dataclass FunctionState.
Object make_function_state_class(PyObject* module);

}  // namespace quernbrook::evaluation
