#include "python/array_memory.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "python/array.hpp"

namespace quernbrook::python {

// CPython 3.10 declares it for C only.
extern "C" int PyTraceMalloc_Track(unsigned int domain, std::uintptr_t address, std::size_t size);

namespace {

/// Stands before each block: what NumPy says of a block's size need not be true.
struct alignas(64) Header {
  std::size_t capacity;
};

Header* header_of(void* block) noexcept { return static_cast<Header*>(block) - 1; }

/// The blocks that wait for their next use, by size. The interpreter's lock guards them.
class Store {
 public:
  /// A block of just this capacity, or null.
  Header* take(std::size_t capacity) noexcept {
    const auto shelf = std::ranges::find(shelves_, capacity, &Shelf::capacity);
    if (shelf == shelves_.end() || shelf->blocks.empty()) return nullptr;
    Header* block = shelf->blocks.back();
    shelf->blocks.pop_back();
    bytes_ -= sizeof(Header) + capacity;
    return block;
  }

  void keep(Header* block) noexcept {
    const std::size_t capacity = block->capacity;
    // Runs of other sizes were here before: whatever they still need comes back soon.
    const std::size_t size = sizeof(Header) + capacity;
    if (bytes_ + size > most_bytes || shelves_.size() > most_shelves) drop_others(capacity);
    if (bytes_ + size > most_bytes || !put(block)) std::free(block);
  }

 private:
  static constexpr std::size_t most_bytes = std::size_t{32} << 20;
  static constexpr std::size_t most_shelves = 256;

  struct Shelf {
    std::size_t capacity;
    std::vector<Header*> blocks;
  };

  bool put(Header* block) noexcept {
    try {
      auto shelf = std::ranges::find(shelves_, block->capacity, &Shelf::capacity);
      if (shelf == shelves_.end()) shelf = shelves_.insert(shelf, Shelf{block->capacity, {}});
      shelf->blocks.push_back(block);
      bytes_ += sizeof(Header) + block->capacity;
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  void drop_others(std::size_t capacity) noexcept {
    std::erase_if(shelves_, [&](const Shelf& shelf) {
      if (shelf.capacity == capacity) return false;
      for (Header* block : shelf.blocks) std::free(block);
      bytes_ -= (sizeof(Header) + shelf.capacity) * shelf.blocks.size();
      return true;
    });
  }

  std::vector<Shelf> shelves_;
  std::size_t bytes_ = 0;
};

Store& store() {
  // Never destroyed: arrays may be let go as long as there is a process.
  alignas(Store) static std::byte memory[sizeof(Store)];
  static Store& blocks = *new (memory) Store;
  return blocks;
}

void* allocate(std::size_t size) noexcept {
  // In whole headers, as the system's aligned memory wants it.
  const std::size_t capacity = (size + sizeof(Header) - 1) / sizeof(Header) * sizeof(Header);
  if (capacity < size) return nullptr;
  Header* header = is_kept_size(capacity) ? store().take(capacity) : nullptr;
  if (header == nullptr) {
    if (capacity + sizeof(Header) < capacity) return nullptr;
    header = static_cast<Header*>(std::aligned_alloc(alignof(Header), capacity + sizeof(Header)));
    if (header == nullptr) return nullptr;
    header->capacity = capacity;
  }
  return header + 1;
}

// NumPy's way to the memory of an array that somebody resizes or lets go of.

void* numpy_malloc(void*, std::size_t size) { return allocate(size); }

void* numpy_calloc(void*, std::size_t count, std::size_t item_size) {
  std::size_t size = 0;
  if (__builtin_mul_overflow(count, item_size, &size)) return nullptr;
  void* block = allocate(size);
  if (block != nullptr) std::memset(block, 0, size);
  return block;
}

void numpy_free(void*, void* block, std::size_t) {
  if (block != nullptr) give_back_block(block);
}

void* numpy_realloc(void*, void* block, std::size_t size) {
  void* larger = allocate(size);
  if (larger == nullptr || block == nullptr) return larger;
  std::memcpy(larger, block, std::min(size, header_of(block)->capacity));
  give_back_block(block);
  return larger;
}

PyDataMem_Handler handler{.name = "expression_evaluator",
                          .version = 1,
                          .allocator = {.ctx = nullptr,
                                        .malloc = numpy_malloc,
                                        .calloc = numpy_calloc,
                                        .realloc = numpy_realloc,
                                        .free = numpy_free}};

/// The capsule through which an array knows its handler.
Object handler_capsule() {
  static PyObject* const capsule = Object::steal(calling_python([] {
                                     return PyCapsule_New(&handler, "mem_handler", nullptr);
                                   })).release();
  return Object::borrow(capsule);
}

}  // namespace

void* take_block(std::size_t size) noexcept { return allocate(size); }

void give_back_block(void* block) noexcept {
  Header* header = header_of(block);
  if (is_kept_size(header->capacity)) {
    store().keep(header);
  } else {
    std::free(header);
  }
}

void own_block(PyObject* array, void* block, std::size_t size) {
  array_fields(array)->mem_handler = handler_capsule().release();
  PyArray_ENABLEFLAGS(as_array(array), NPY_ARRAY_OWNDATA);
  // As NumPy does for its own: `tracemalloc` sees the arrays. NumPy ends it when it frees them.
  constexpr unsigned numpy_domain = 389047;  // numpy.lib.tracemalloc_domain
  calling_python(
      [&] { PyTraceMalloc_Track(numpy_domain, reinterpret_cast<std::uintptr_t>(block), size); });
}

}  // namespace quernbrook::python
