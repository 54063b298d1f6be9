#include <nanobind/nanobind.h>

#include "arrays.hpp"
#include "functions.hpp"
#include "reduction.hpp"
#include "rotation.hpp"

namespace {

// That the kernels are compiled for. This file is compiled for any processor.
bool has_baseline() noexcept {
#if defined(__x86_64__)
  return __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("sse4.1") &&
         __builtin_cpu_supports("sse4.2") && __builtin_cpu_supports("popcnt");
#else
  return true;
#endif
}

}  // namespace

NB_MODULE(_kernels, module) {
  using namespace quernbrook::row_kernels::binding;
  if (!has_baseline()) {
    throw nb::import_error(
        "this processor lacks instructions of the level x86-64-v2 (SSSE3, SSE4.1, SSE4.2, POPCNT), "
        "which quernbrook-row-kernels needs; uninstall it to run without");
  }
  // Instances that live in another module's globals at the end are nobody's mistake.
  nb::set_leak_warnings(false);
  import_numpy();

  define_rotations(module);
  define_reductions(module);

  define_arithmetic(module);
  define_logic(module);
  define_rows(module);
  define_signals(module);
  define_time(module);
  define_filing(module);
}
