#pragma once

#include "host/namespace.hpp"

// The road of a graph that is a single leaf.
namespace quernbrook::fast_paths {

extern PyMethodDef leaf_functions[];

}  // namespace quernbrook::fast_paths
