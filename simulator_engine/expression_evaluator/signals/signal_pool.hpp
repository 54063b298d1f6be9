#pragma once

#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// The run's filtration result at the node, resolved when it is first asked for. None where the
/// node is no filtration.
Object filtration_result(Run& run, graph_prep::NodeIndex node);

/// `sorted(context.useful_signals.keys())`.
Object sorted_signal_ids(const Run& run);

/// Reads one attribute of many signals of the pool. Where that is a look into plain dictionaries,
/// so that nobody can tell, the pool and the signals' class are asked once.
class SignalReader {
 public:
  SignalReader(Run& run, PyObject* name) : run_(run), name_(name) {}

  /// The attribute of the signal; empty where code of the host's may have a part in reading it or
  /// the pool lacks the signal. Then the caller reads it by Python's own operations.
  Object plain(PyObject* id);
  /// To be called whenever foreign code may have run.
  void forget() noexcept {
    pool_ = {};
    plain_class_ = nullptr;
  }

 private:
  bool has_plain_pool();

  Run& run_;
  PyObject* name_;
  Object pool_;  // while nobody can have replaced or changed it
  PyTypeObject* plain_class_ = nullptr;
};

}  // namespace quernbrook::evaluation
