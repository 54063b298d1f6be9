/* The additions of a chain by hand, over the same strips: what no evaluator can beat. */
#include <stddef.h>

void add_chain(const double* first, const double* second, double* restrict result, ptrdiff_t rows,
               ptrdiff_t columns, ptrdiff_t rows_at_once, int additions, double* buffers) {
  for (ptrdiff_t row = 0; row < rows; row += rows_at_once) {
    const ptrdiff_t count = rows - row < rows_at_once ? rows - row : rows_at_once;
    const ptrdiff_t cells = count * columns;
    const double* right = second + row * columns;
    const double* left = first + row * columns;
    for (int addition = 0; addition < additions; ++addition) {
      double* restrict target = addition + 1 == additions
                                    ? result + row * columns
                                    : buffers + (addition % 2) * rows_at_once * columns;
      for (ptrdiff_t cell = 0; cell < cells; ++cell) target[cell] = left[cell] + right[cell];
      left = target;
    }
  }
}
