#pragma once

#include "host/namespace.hpp"

namespace quernbrook::fast_paths {

/// The evaluators of the longitudinal road.
extern PyMethodDef longitudinal_functions[];

}  // namespace quernbrook::fast_paths
