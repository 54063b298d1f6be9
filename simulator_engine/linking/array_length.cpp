// Containers as GCC 11 and later compile them refer to a function that older C++ libraries lack.
// With one of our own, which nobody else sees, what is built here loads on those systems, too.

#include <new>

#if defined(__GLIBCXX__) && defined(__gnu_linux__)
[[noreturn]] void throw_bad_array_new_length() asm("_ZSt28__throw_bad_array_new_lengthv");

void throw_bad_array_new_length() { throw std::bad_array_new_length(); }
#endif
