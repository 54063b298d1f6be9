#include "time/instruction_set.hpp"

#include <algorithm>
#include <atomic>

namespace quernbrook::row_kernels {
namespace {

std::atomic<InstructionSet> used = widest_instruction_set();

}  // namespace

InstructionSet widest_instruction_set() noexcept {
#if defined(__x86_64__)
  __builtin_cpu_init();
  const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
                    __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("fma");
  const bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                      __builtin_cpu_supports("avx512cd") && __builtin_cpu_supports("avx512dq") &&
                      __builtin_cpu_supports("avx512vl");
  if (avx2 && avx512) return InstructionSet::avx512;
  if (avx2) return InstructionSet::avx2;
#endif
  return InstructionSet::baseline;
}

void use_instruction_set(InstructionSet set) noexcept {
  used = std::min(set, widest_instruction_set());
}

const Statistics& statistics_loops() noexcept {
#if defined(__x86_64__)
  if (used == InstructionSet::avx512) return avx512::statistics;
#endif
  return half_statistics_loops();
}

const Statistics& half_statistics_loops() noexcept {
#if defined(__x86_64__)
  if (used != InstructionSet::baseline) return avx2::statistics;
#endif
  return baseline::statistics;
}

}  // namespace quernbrook::row_kernels
