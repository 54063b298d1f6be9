#include <nanobind/nanobind.h>

#include "arrays.hpp"
#include "functions.hpp"
#include "reduction.hpp"
#include "rotation.hpp"

NB_MODULE(_kernels, module) {
  using namespace quernbrook::row_kernels::binding;
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
