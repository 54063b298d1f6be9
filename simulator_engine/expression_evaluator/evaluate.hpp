#pragma once

#include "host/namespace.hpp"

namespace quernbrook::evaluation {

/// The functions `evaluate` and `_evaluate_unlocked`.
extern PyMethodDef evaluate_functions[];

}  // namespace quernbrook::evaluation
