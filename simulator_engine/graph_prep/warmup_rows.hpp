#pragma once

#include "host/namespace.hpp"

namespace quernbrook::graph_prep {

/// The functions _compute_graph_warmup_rows and _get_warmup_count_for_instance.
extern PyMethodDef warmup_functions[];

}  // namespace quernbrook::graph_prep
