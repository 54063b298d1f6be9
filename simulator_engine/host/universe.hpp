#pragma once

#include "host/namespace.hpp"

// Which cells take part: the two rules for the universe. They differ on infinities, on purpose.
namespace quernbrook::host {

/// The rule for data: NaN where the universe equals 0.0 or is NaN. `data` itself without a
/// universe, else a new array.
Object apply_universe_mask(const Namespace& space, PyObject* data, PyObject* universe);
/// True for the module's own `_apply_universe_mask`, which a host can replace.
bool is_own_mask_rule(PyObject* function);

/// The rule for the context's `universe_mask`: 1 where its universe is finite and not zero.
Object universe_mask(const Namespace& space, PyObject* context, PyObject* rows, PyObject* columns);

extern PyMethodDef universe_functions[];

}  // namespace quernbrook::host
