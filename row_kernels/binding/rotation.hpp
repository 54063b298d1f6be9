#pragma once

#include <nanobind/nanobind.h>
#include <quernbrook/row_kernel.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

#include "row_function.hpp"

namespace quernbrook::row_kernels::binding {

namespace nb = nanobind;

/// An instance of a rotation. Calls from Python and the evaluator's go through `run`.
class Rotation {
 public:
  Rotation(const char* name, std::unique_ptr<RowFunction> function, bool stateless)
      : name_(name), function_(std::move(function)), stateless_(stateless) {}
  Rotation(const Rotation&) = delete;

  std::size_t arity() const noexcept { return function_->argument_count(); }
  nb::object call(const nb::args& rows);
  quernbrook_row_kernel kernel() noexcept;

 protected:
  const char* name() const noexcept { return name_; }
  RowFunction& function() const noexcept { return *function_; }
  std::atomic_flag& claimed() noexcept { return claimed_; }

 private:
  static int run(void* state, const quernbrook_rows* arguments, std::size_t argument_count,
                 std::ptrdiff_t row_count, std::ptrdiff_t column_count, double* result,
                 quernbrook_failure* failure) noexcept;

  const char* name_;
  std::unique_ptr<RowFunction> function_;
  bool stateless_;
  std::atomic_flag claimed_;
};

class StatelessRotation : public Rotation {
 public:
  StatelessRotation(const char* name, std::unique_ptr<RowFunction> function)
      : Rotation(name, std::move(function), true) {}
};

/// A rotation that remembers a window of rows. Its state is plain data: "count" (of all rows seen),
/// "window", and the newest rows, oldest first, as "buffer"; where it has several arguments, a list
/// of one such buffer for each, as "buffers".
class WindowedRotation : public Rotation {
 public:
  WindowedRotation(const char* name, std::unique_ptr<WindowFunction> function)
      : Rotation(name, std::move(function), false) {}

  nb::object get_state();
  void restore(const nb::object& state_data);

 private:
  WindowFunction& windowed() const noexcept { return static_cast<WindowFunction&>(function()); }
};

/// Defines the base types.
void define_rotations(nb::module_& module);

}  // namespace quernbrook::row_kernels::binding
