#include "reduction.hpp"

#include <string>

#include "arrays.hpp"
#include "capsule.hpp"
#include "failures.hpp"
#include "states.hpp"

namespace quernbrook::row_kernels::binding {

int Reduction::run(void* state, const double* signals, std::ptrdiff_t signal_count,
                   std::ptrdiff_t column_count, const double* pnl, double* result,
                   quernbrook_failure* failure) noexcept {
  auto& self = *static_cast<Reduction*>(state);
  return tell_failure(failure, [&] {
    if (pnl == nullptr && signal_count > 0 && self.function_->needs_pnl()) {
      throw ArgumentError(std::string(self.name_) + " needs signal_pnl, one value for each signal");
    }
    if (self.stateless_) {
      self.function_->run(signals, signal_count, column_count, pnl, result);
      return;
    }
    const Claim claim(self.claimed_, self.name_);
    self.function_->run(signals, signal_count, column_count, pnl, result);
  });
}

quernbrook_reduction_kernel Reduction::kernel() noexcept {
  return {sizeof(quernbrook_reduction_kernel), stateless_ ? QUERNBROOK_STATELESS : 0, this, &run};
}

nb::object Reduction::call(nb::handle block, nb::handle signal_pnl) {
  const Array signals = block_of(block, name_);
  Array pnl{};
  if (!signal_pnl.is_none()) {
    pnl = row_of(signal_pnl, name_);
    if (pnl.columns != signals.rows) {
      const std::string text = std::string(name_) + ": signal_pnl has " +
                               std::to_string(pnl.columns) + " values for " +
                               std::to_string(signals.rows) + " signals";
      throw nb::value_error(text.c_str());
    }
  }
  NewRow result = new_row(signals.columns);
  quernbrook_failure failure{};
  if (run(this, signals.cells, signals.rows, signals.columns, pnl.cells, result.cells, &failure) !=
      0) {
    raise(failure);
  }
  return std::move(result.array);
}

void define_reductions(nb::module_& module) {
  nb::class_<Reduction>(module, "Reduction", "Base of all functions that make a row of signals.")
      .def("__call__", &Reduction::call, nb::arg("block"), nb::arg("signal_pnl") = nb::none(),
           "Takes weights of shape (signals, N_alloc) and the signals' PnL, and returns a new "
           "float64\n"
           "row. Raises ValueError for other dimensions and numbers, TypeError where PnL is "
           "missing.")
      .def(
          "__quernbrook_reduction_kernel__",
          [](nb::pointer_and_handle<Reduction> self) {
            return capsule_of(self.p->kernel(), self.h, QUERNBROOK_REDUCTION_KERNEL_CAPSULE);
          },
          "The capsule through which the evaluator calls the function without the interpreter.");
  nb::class_<StatelessReduction, Reduction>(module, "StatelessReduction",
                                            "Base of the reductions without memory.")
      .attr("stateful") = false;
  nb::class_<WeightedReduction, Reduction>(module, "WeightedReduction",
                                           "Base of the reductions that weight signals.")
      .def(
          "get_state", &WeightedReduction::get_state,
          "The function's name and plain data: \"count\" of all rows seen, \"window\", the newest\n"
          "rows of one value for each signal, oldest first, as \"buffer\", and of\n"
          "weighted_by_turnover the last block of weights as \"held\".")
      .def("restore", &WeightedReduction::restore, nb::arg("state_data"),
           "Go on where the instance stood that the data are from. Raises KeyError, TypeError or\n"
           "ValueError for data that don't fit this instance.")
      .attr("stateful") = true;
}

nb::object WeightedReduction::get_state() {
  const Claim claim(claimed(), name());
  const SignalState state = weighted().state();
  nb::dict data = new_state_data(state.count, weighted().window());
  data["buffer"] =
      to_lists(state.rows.data(), rows_held(state.count, weighted().window()), state.signal_count);
  if (weighted().holds_weights()) {
    if (state.count == 0) {
      data["held"] = nb::none();
    } else {
      data["held"] = to_lists(state.held.data(), state.signal_count, state.held_columns);
    }
  }
  return saved_state(name(), data);
}

void WeightedReduction::restore(const nb::object& state_data) {
  SignalState state;
  state.count = saved_count(state_data, weighted().window());
  const nb::object buffer = state_data["buffer"];
  const std::size_t rows = nb::len(buffer);
  require_row_count(rows, state.count, weighted().window());
  state.rows = from_lists(buffer, rows, state.signal_count, name());
  if (weighted().holds_weights()) {
    const nb::object held = state_data["held"];
    const std::size_t held_rows = held.is_none() ? 0 : nb::len(held);
    if (held_rows != state.signal_count) {
      const std::string text = std::to_string(held_rows) + " rows of weights are held for " +
                               std::to_string(state.signal_count) + " signals";
      throw nb::value_error(text.c_str());
    }
    if (held_rows > 0) state.held = from_lists(held, held_rows, state.held_columns, name());
  }
  const Claim claim(claimed(), name());
  weighted().restore(std::move(state));
}

}  // namespace quernbrook::row_kernels::binding
