#include "expression_evaluator/signals/pool_rows.hpp"

#include <algorithm>

#include "expression_evaluator/signals/signal_pnl.hpp"
#include "expression_evaluator/signals/signal_pool.hpp"
#include "python/array.hpp"
#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;

namespace {

constexpr npy_intp no_column = -1;

bool are_plain_texts(std::span<PyObject* const> items) {
  return std::ranges::all_of(items, is_exact_text);
}

/// The ids of the signals that pass, a tuple; empty where they aren't plain texts in a plain
/// sequence.
Object plain_passing_ids(Run& run, const Node& node) {
  Object ids;
  if (node.filtration_child != graph_prep::no_node) {
    const Object& result = run.filtrations[node.filtration_child];
    if (result.empty() || result.is_none()) return {};
    ids = plain_attribute(result, run.space.names.passing_ids);
  } else {
    const Object pool = plain_attribute(run.context, run.space.names.useful_signals);
    if (pool.empty() || !run.pool_keys.of(pool)) return {};
    ids = sorted_signal_ids(run);
  }
  if (ids.empty() || !is_exact_sequence(ids)) return {};
  // Nobody can change a tuple.
  ids = tuple_of_sequence(ids);
  return are_plain_texts(items_of(ids)) ? ids : Object();
}

/// The column of the signals' PnL; no_column where they have none, false where that can't be told
/// without the host's code.
bool find_pnl_column(const Run& run, const Node& node, npy_intp& column) {
  const host::Names& names = run.space.names;
  column = no_column;
  if (!is_exact_dict(node.config)) return false;
  Object name = pnl_column_of(run, node, Py_None);
  if (name.is_none()) name = names.gross_returns;
  const Object vectors = plain_attribute(run.context, names.signal_pnl_vectors);
  const Object labels = plain_attribute(run.context, names.column_labels);
  if (!is_exact_text(name) || !truth(name) || !vectors.is_none() || labels.empty()) return false;
  if (labels.is_none()) return true;
  if (!is_exact_sequence(labels)) return false;
  const std::span items = items_of(labels);
  if (items.empty()) return true;
  if (!are_plain_texts(items)) return false;
  const auto found =
      std::ranges::find_if(items, [&](PyObject* label) { return equal(label, name); });
  column = found - items.begin();
  return found != items.end();
}

}  // namespace

bool PoolRows::bind(Run& run, graph_prep::NodeIndex reduction, bool with_pnl) {
  const Node& node = run.table.nodes[reduction];
  const Object ids = plain_passing_ids(run, node);
  if (ids.empty()) return false;
  matrices_.clear();
  with_pnl_ = with_pnl;
  if (!bind_weights(run, items_of(ids)) || (with_pnl && !bind_pnl(run, node, items_of(ids)))) {
    return false;
  }
  columns_ = run.columns;
  // Without columns, too, kernels get a pointer that is not null.
  block_.resize(static_cast<std::size_t>(count() * columns_) + 1);
  return true;
}

bool PoolRows::bind_weights(Run& run, std::span<PyObject* const> ids) {
  SignalReader weights_of(run, run.space.names.weights);
  weights_.clear();
  for (PyObject* id : ids) {
    Object weights = weights_of.plain(id);
    if (weights.empty() || !is_double_matrix(weights) || dimension(weights, 0) < run.rows ||
        dimension(weights, 1) != run.columns) {
      return false;
    }
    weights_.push_back(view_of(weights));
    matrices_.push_back(std::move(weights));
  }
  return !weights_.empty();
}

bool PoolRows::bind_pnl(Run& run, const Node& node, std::span<PyObject* const> ids) {
  if (!find_pnl_column(run, node, pnl_column_)) return false;
  SignalReader pnl_of(run, run.space.names.pnl);
  pnl_.clear();
  pnl_row_.assign(ids.size(), 0.0);
  if (pnl_column_ == no_column) return true;
  for (PyObject* id : ids) {
    Object pnl = pnl_of.plain(id);
    if (pnl.empty()) return false;
    if (pnl.is_none()) {
      pnl_.emplace_back();
      continue;
    }
    if (!is_double_matrix(pnl) || dimension(pnl, 0) < run.rows ||
        dimension(pnl, 1) <= pnl_column_) {
      return false;
    }
    pnl_.push_back(view_of(pnl));
    matrices_.push_back(std::move(pnl));
  }
  return true;
}

void PoolRows::read(npy_intp row) {
  double* target = block_.data();
  for (const kernels::MatrixView& matrix : weights_) {
    kernels::copy_row(matrix.row(row), target);
    target += matrix.columns;
  }
  for (std::size_t place = 0; place < pnl_.size(); ++place) {
    const kernels::RowView cells = pnl_[place].row(row);
    if (cells.cells != nullptr) pnl_row_[place] = cells.cells[pnl_column_ * cells.stride];
  }
}

Object PoolRows::block() const {
  Object block = uninitialised(count(), columns_);
  std::copy_n(block_.data(), count() * columns_, doubles(block));
  return block;
}

bool PoolRows::mean(double* result) {
  // NumPy adds a single column pairwise.
  return columns_ > 1 && sums_.mean({.cells = block_.data(),
                                     .row_stride = columns_,
                                     .column_stride = 1,
                                     .rows = count(),
                                     .columns = columns_},
                                    result);
}

}  // namespace quernbrook::evaluation
