#pragma once

#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "expression_evaluator/rows/rotation_step.hpp"
#include "expression_evaluator/rows/row_function.hpp"
#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// What a node does for a strip of rows.
struct StripStep {
  enum class Kind : std::uint8_t { leaf, constant, kernel, block, reduction, mean };
  /// Where its rows go: none where they are read where they lie.
  static constexpr std::uint32_t no_buffer = std::numeric_limits<std::uint32_t>::max();

  graph_prep::NodeIndex node;
  Kind kind;
  std::uint32_t buffer = no_buffer;
  std::uint32_t first_source = 0;  // of its arguments
  std::uint32_t source_count = 0;
  double constant = 0.0;
};

/// Which nodes of a run can be computed a strip of rows at a time, and where their rows lie.
///
/// Such nodes are leaves of plain matrices, plain literals, and functions that opted in, above
/// nothing but such nodes; reductions with a kernel or by the mean, too, once their filters are
/// resolved. Equal ones are computed once. A buffer is used again as soon as the last
/// node that reads it is done: in post-order no more are live than the tree is deep (an operand
/// tree's register number: Sethi and Ullman, "The Generation of Optimal Code for Arithmetic
/// Expressions", 1970), and one for each part that several share.
class StripPlan {
 public:
  /// False where a function that didn't opt in makes is_whole() impossible.
  static bool may_be_whole(const Run& run, const RowFunctions& functions);
  /// Gives nodes that are computed once for several the instance that computes them.
  StripPlan(Run& run, const RowFunctions& functions, RotationStep& rotations);

  std::span<const StripStep> steps() const noexcept { return steps_; }
  /// The nodes whose rows the step's arguments are.
  std::span<const graph_prep::NodeIndex> sources(const StripStep& step) const {
    return std::span(sources_).subspan(step.first_source, step.source_count);
  }
  std::size_t buffer_count() const noexcept { return buffer_count_; }
  bool is_ahead(graph_prep::NodeIndex node) const {
    return computed_as_[node] != graph_prep::no_node;
  }
  /// The node whose rows are this one's, too: itself unless an equal one stands before it.
  graph_prep::NodeIndex computed_as(graph_prep::NodeIndex node) const { return computed_as_[node]; }
  /// True where one node's instance has stood for another's: the run can't go on row by row then.
  bool has_joined() const noexcept { return has_joined_; }
  /// The nodes whose rows others than strips read: their parents are no part of any.
  std::span<const graph_prep::NodeIndex> tops() const noexcept { return tops_; }
  /// True where every node of the run is part of the strips.
  bool is_whole() const noexcept { return is_whole_; }
  /// How many rows keep the live buffers in the second-level cache.
  npy_intp rows_at_once() const noexcept { return rows_at_once_; }

 private:
  bool find_parents(const Run& run);
  void refuse_shared_states(const Run& run, const RowFunctions& functions);
  void refuse_reductions(const Run& run, const RowFunctions& functions);
  void add(const Run& run, const RowFunctions& functions, RotationStep& rotations,
           graph_prep::NodeIndex node);
  void join_equal(Run& run, const RowFunctions& functions);
  void find_tops();
  bool needs_buffer(const Run& run, const StripStep& step) const;
  void assign_buffers(const Run& run);

  std::vector<StripStep> steps_;
  std::vector<graph_prep::NodeIndex> sources_;
  std::vector<graph_prep::NodeIndex> parents_;      // by node
  std::vector<graph_prep::NodeIndex> computed_as_;  // by node
  std::vector<std::uint8_t> is_refused_;            // by node
  std::vector<graph_prep::NodeIndex> tops_;
  std::size_t buffer_count_ = 0;
  npy_intp rows_at_once_ = 1;
  bool has_universe_ = false;
  bool is_whole_ = false;
  bool has_joined_ = false;
};

}  // namespace quernbrook::evaluation
