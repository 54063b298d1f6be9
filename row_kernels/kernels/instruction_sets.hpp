#pragma once

// Stands before a function whose loops gain from wider registers: the widest that the processor has
// is chosen when the module is loaded. The results are the same bits on all, for operations on
// doubles are exact to the last bit everywhere and are not contracted. Clang knows the attribute,
// but not on templates, and gets along with the baseline; so do C libraries whose loader can't
// choose, and builds with address checks, which can't be called that early.
#if defined(__x86_64__) && defined(__gnu_linux__) && !defined(__clang__) && \
    !defined(__SANITIZE_ADDRESS__)
#define QUERNBROOK_WIDEST_REGISTERS [[gnu::target_clones("avx512f", "avx2", "default")]]
#else
#define QUERNBROOK_WIDEST_REGISTERS
#endif
