#pragma once

#include "expression_evaluator/run.hpp"

namespace quernbrook::evaluation {

/// The PnL of every passing signal in a row: a new float64 vector, 0.0 where there is none.
Object signal_pnl(const Run& run, PyObject* passing_ids, Py_ssize_t count, PyObject* pnl_column,
                  npy_intp row);

/// `config["pnl_column"]` of a reduction; empty where it has none.
Object configured_pnl_column(const Run& run, const graph_prep::Node& node);

/// Sets the numbers of `vector` to `pnl[row, column]` of the passing signals, but for those that
/// the pool doesn't have and those without a PnL.
void store_pnl_row(const Run& run, PyObject* vector, PyObject* passing_ids, PyObject* column,
                   npy_intp row);

}  // namespace quernbrook::evaluation
