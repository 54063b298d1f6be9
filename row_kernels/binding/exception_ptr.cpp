// What GCC 11 and later make of std::exception_ptr refers to functions that older C++ libraries
// lack. With our own, which nobody else sees, what is built here loads on those systems, too. They
// do their work by the copies and destructors that all of these libraries have, named by their
// versions: the compiler's own copies of those would call ours again.

#include <exception>

#if defined(__GLIBCXX__) && defined(__gnu_linux__)
asm(".symver quernbrook_copy, _ZNSt15__exception_ptr13exception_ptrC1ERKS0_@CXXABI_1.3.3");
asm(".symver quernbrook_destroy, _ZNSt15__exception_ptr13exception_ptrD1Ev@CXXABI_1.3.3");
extern "C" void quernbrook_copy(void** target, void* const* source) noexcept;
extern "C" void quernbrook_destroy(void** pointer) noexcept;

void add_reference(void* const* pointer) noexcept
    asm("_ZNSt15__exception_ptr13exception_ptr9_M_addrefEv");
void release(void** pointer) noexcept asm("_ZNSt15__exception_ptr13exception_ptr10_M_releaseEv");

void add_reference(void* const* pointer) noexcept {
  void* reference = nullptr;  // never destroyed
  quernbrook_copy(&reference, pointer);
}

void release(void** pointer) noexcept {
  quernbrook_destroy(pointer);
  *pointer = nullptr;
}
#endif
