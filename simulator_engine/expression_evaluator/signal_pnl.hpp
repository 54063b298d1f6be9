#pragma once

#include "expression_evaluator/run.hpp"

namespace quernbrook::evaluation {

/// The PnL of every passing signal in a row: a new float64 vector, 0.0 where there is none.
Object signal_pnl(const Run& run, PyObject* passing_ids, Py_ssize_t count, PyObject* pnl_column,
                  npy_intp row);

/// `config["pnl_column"]` of a reduction; empty where it has none.
Object configured_pnl_column(const Run& run, const graph_prep::Node& node);

/// Sets `vector[place]` to `pnl[row, column]` of the signal, if the pool has it and it has a PnL.
void store_signal_pnl(const Run& run, PyObject* vector, Py_ssize_t place, PyObject* id,
                      PyObject* column, npy_intp row);

}  // namespace quernbrook::evaluation
