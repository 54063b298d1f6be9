#pragma once

#include <nanobind/nanobind.h>
#include <quernbrook/row_kernel.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

#include "signals/signals.hpp"

namespace quernbrook::row_kernels::binding {

namespace nb = nanobind;

/// An instance of a reduction. Calls from Python and the evaluator's go through `run`.
class Reduction {
 public:
  Reduction(const char* name, std::unique_ptr<SignalFunction> function, bool stateless)
      : name_(name), function_(std::move(function)), stateless_(stateless) {}
  Reduction(const Reduction&) = delete;

  nb::object call(nb::handle block, nb::handle signal_pnl);
  quernbrook_reduction_kernel kernel() noexcept;

 protected:
  const char* name() const noexcept { return name_; }
  SignalFunction& function() const noexcept { return *function_; }
  std::atomic_flag& claimed() noexcept { return claimed_; }

 private:
  static int run(void* state, const double* signals, std::ptrdiff_t signal_count,
                 std::ptrdiff_t column_count, const double* pnl, double* result,
                 quernbrook_failure* failure) noexcept;

  const char* name_;
  std::unique_ptr<SignalFunction> function_;
  bool stateless_;
  std::atomic_flag claimed_;
};

class StatelessReduction : public Reduction {
 public:
  StatelessReduction(const char* name, std::unique_ptr<SignalFunction> function)
      : Reduction(name, std::move(function), true) {}
};

/// A reduction that remembers a window of a value for each signal. Its state is plain data: "count"
/// (of all rows seen), "window", the newest rows, oldest first, as "buffer", and of some the last
/// block of weights as "held".
class WeightedReduction : public Reduction {
 public:
  WeightedReduction(const char* name, std::unique_ptr<WeightedFunction> function)
      : Reduction(name, std::move(function), false) {}

  nb::object get_state();
  void restore(const nb::object& state_data);

 private:
  WeightedFunction& weighted() const noexcept { return static_cast<WeightedFunction&>(function()); }
};

/// Defines the base types.
void define_reductions(nb::module_& module);

}  // namespace quernbrook::row_kernels::binding
