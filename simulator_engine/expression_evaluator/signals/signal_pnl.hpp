#pragma once

#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// `config["pnl_column"]` of a reduction, or `fallback` where it has none.
Object pnl_column_of(const Run& run, const graph_prep::Node& node, PyObject* fallback);

/// The PnL of every passing signal in a row: a new float64 vector, 0.0 where there is none.
Object signal_pnl(Run& run, PyObject* passing_ids, Py_ssize_t count, PyObject* pnl_column,
                  npy_intp row);

/// `pnl[row, column]` of the passing signals as a new float64 vector, 0.0 for those that the pool
/// doesn't have and those without a PnL.
Object pnl_row(Run& run, PyObject* passing_ids, Py_ssize_t count, PyObject* column, npy_intp row);

}  // namespace quernbrook::evaluation
