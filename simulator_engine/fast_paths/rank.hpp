#pragma once

#include "host/namespace.hpp"

namespace quernbrook::fast_paths {

/// The evaluators of the rank roads.
extern PyMethodDef rank_functions[];

}  // namespace quernbrook::fast_paths
