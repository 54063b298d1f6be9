/* Kernels for tests and benchmarks, as a user of the header would write them. */
#include <math.h>
#include <signal.h>
#include <string.h>

#include "quernbrook/row_kernel.h"

static int fail(quernbrook_failure* failure, ptrdiff_t row, int32_t kind, const char* text) {
  failure->row = row;
  failure->kind = kind;
  strncpy(failure->text, text, sizeof failure->text - 1);
  return 1;
}

int add(void* state, const quernbrook_rows* arguments, size_t argument_count, ptrdiff_t row_count,
        ptrdiff_t column_count, double* restrict result, quernbrook_failure* failure) {
  (void)state;
  if (argument_count != 2) return fail(failure, 0, QUERNBROOK_TYPE_ERROR, "two rows are needed");
  for (ptrdiff_t row = 0; row < row_count; ++row) {
    const double* left = arguments[0].first + row * arguments[0].stride;
    const double* right = arguments[1].first + row * arguments[1].stride;
    for (ptrdiff_t column = 0; column < column_count; ++column) {
      result[row * column_count + column] = left[column] + right[column];
    }
  }
  return 0;
}

#define CELL_BY_CELL(NAME, EXPRESSION)                                                           \
  int NAME(void* state, const quernbrook_rows* arguments, size_t argument_count,                 \
           ptrdiff_t row_count, ptrdiff_t column_count, double* restrict result,                 \
           quernbrook_failure* failure) {                                                        \
    (void)state;                                                                                 \
    if (argument_count != 2) return fail(failure, 0, QUERNBROOK_TYPE_ERROR, "two are needed");   \
    for (ptrdiff_t row = 0; row < row_count; ++row) {                                            \
      const double* a = arguments[0].first + row * arguments[0].stride;                          \
      const double* b = arguments[1].first + row * arguments[1].stride;                          \
      double* target = result + row * column_count;                                              \
      for (ptrdiff_t i = 0; i < column_count; ++i) target[i] = EXPRESSION;                       \
    }                                                                                            \
    return 0;                                                                                    \
  }

CELL_BY_CELL(subtract, a[i] - b[i])
CELL_BY_CELL(multiply, a[i] * b[i])
CELL_BY_CELL(divide, a[i] / b[i])

/* The state is the sums, one a column, behind the count of rows. */
int running_sum(void* state, const quernbrook_rows* arguments, size_t argument_count,
                ptrdiff_t row_count, ptrdiff_t column_count, double* result,
                quernbrook_failure* failure) {
  double* count = state;
  double* sums = count + 1;
  if (argument_count != 1) return fail(failure, 0, QUERNBROOK_TYPE_ERROR, "one row is needed");
  for (ptrdiff_t row = 0; row < row_count; ++row) {
    const double* values = arguments[0].first + row * arguments[0].stride;
    if (column_count > 0 && isinf(values[0])) {
      return fail(failure, row, QUERNBROOK_OVERFLOW_ERROR, "infinity in the first column");
    }
    *count += 1.0;
    for (ptrdiff_t column = 0; column < column_count; ++column) {
      sums[column] += values[column];
      result[row * column_count + column] = sums[column];
    }
  }
  return 0;
}

/* Copies its rows, and sends a signal where the first cell is negative. */
int signalling(void* state, const quernbrook_rows* arguments, size_t argument_count,
               ptrdiff_t row_count, ptrdiff_t column_count, double* result,
               quernbrook_failure* failure) {
  (void)argument_count;
  (void)failure;
  double* rows_seen = state;
  for (ptrdiff_t row = 0; row < row_count; ++row) {
    const double* values = arguments[0].first + row * arguments[0].stride;
    *rows_seen += 1.0;
    if (values[0] < 0.0) raise(SIGUSR1);
    memcpy(result + row * column_count, values, (size_t)column_count * sizeof(double));
  }
  return 0;
}

/* Waits until the number behind its state is set, by whoever else runs meanwhile. */
int waiting(void* state, const quernbrook_rows* arguments, size_t argument_count,
            ptrdiff_t row_count, ptrdiff_t column_count, double* result,
            quernbrook_failure* failure) {
  (void)argument_count;
  volatile double* flag = state;
  for (long turn = 0; *flag == 0.0; ++turn) {
    if (turn == 4000000000L) {
      return fail(failure, 0, QUERNBROOK_RUNTIME_ERROR, "nobody else ran meanwhile");
    }
  }
  for (ptrdiff_t row = 0; row < row_count; ++row) {
    const double* values = arguments[0].first + row * arguments[0].stride;
    memcpy(result + row * column_count, values, (size_t)column_count * sizeof(double));
  }
  return 0;
}
