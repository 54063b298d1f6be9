#pragma once

#include "host/namespace.hpp"

namespace quernbrook::stages {

/// The function _resolve_stage_option, which hosts call.
extern PyMethodDef stage_option_functions[];

}  // namespace quernbrook::stages
