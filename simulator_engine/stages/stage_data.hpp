#pragma once

#include "host/namespace.hpp"

namespace quernbrook::stages {

/// The function _attach_stage_data_feature_leaves.
extern PyMethodDef stage_data_functions[];

}  // namespace quernbrook::stages
