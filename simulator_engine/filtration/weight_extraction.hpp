#pragma once

#include "host/namespace.hpp"

namespace quernbrook::filtration {

/// The public function extract_filtration_weights.
extern PyMethodDef weight_extraction_functions[];

}  // namespace quernbrook::filtration
