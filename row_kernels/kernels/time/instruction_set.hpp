#pragma once

#include "time/loops/statistics.hpp"

namespace quernbrook::row_kernels {

/// The instruction sets that the loops are compiled for: what the build is for, x86-64-v3 and
/// x86-64-v4. Results are the same bits.
enum class InstructionSet { baseline, avx2, avx512 };

/// The widest that this processor has.
InstructionSet widest_instruction_set() noexcept;

/// Has new functions use another than the widest, to compare them; not a wider one.
void use_instruction_set(InstructionSet set) noexcept;

/// The loops for the one in use, and those for half a tile: of registers that this fills.
const Statistics& statistics_loops() noexcept;
const Statistics& half_statistics_loops() noexcept;

}  // namespace quernbrook::row_kernels
