#pragma once

#include <cstddef>

#include "python/object.hpp"

// Memory for the arrays of runs. A live loop asks for the same blocks in every tick; handed back to
// the system each time, they would have to be mapped and cleared page by page again, which can take
// longer than the tick itself.
namespace quernbrook::python {

/// Whether a block of this size is worth keeping: NumPy has its own store of smaller ones, and
/// larger ones are only used by runs so long that it doesn't matter.
inline bool is_kept_size(std::size_t size) noexcept { return size >= 1024 && size <= 16 << 20; }

/// A block of memory, its contents undefined; null without.
void* take_block(std::size_t size) noexcept;
void give_back_block(void* block) noexcept;

/// Makes the array, which was made over the block, the owner of it.
void own_block(PyObject* array, void* block, std::size_t size);

}  // namespace quernbrook::python
