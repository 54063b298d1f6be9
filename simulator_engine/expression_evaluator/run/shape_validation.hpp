#pragma once

#include "host/namespace.hpp"

namespace quernbrook::evaluation {

extern PyMethodDef shape_validation_functions[];

}  // namespace quernbrook::evaluation
