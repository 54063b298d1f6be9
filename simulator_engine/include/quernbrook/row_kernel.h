/* Functions in machine code for the expression evaluator.
 *
 * The type of a function instance opts in with a special method, which is looked up on the type and
 * never on the instance, and asked once a run. It returns a capsule, or None to decline:
 *
 *     rotations   __quernbrook_row_kernel__        QUERNBROOK_ROW_KERNEL_CAPSULE
 *     reductions  __quernbrook_reduction_kernel__  QUERNBROOK_REDUCTION_KERNEL_CAPSULE
 *
 * The capsule's pointer is that of a structure below, which lives as long as the capsule. The
 * evaluator holds capsule and instance until the run ends.
 *
 * A kernel touches no Python object and runs without the interpreter's lock. It may be called from
 * any thread, but for one instance never from two at once in one run. It computes what as many
 * calls of the instance with one row each would, in the order of time: results are the same bits
 * whichever number of rows a call has, and what it leaves in the instance's state is what the
 * instance's next call, get_state() or restore finds.
 *
 * Structures grow at their end. `size` is that of the structure as its maker knows it; a reader
 * takes nothing beyond it. A change that breaks older kernels gets a capsule of another name.
 */
#ifndef QUERNBROOK_ROW_KERNEL_H
#define QUERNBROOK_ROW_KERNEL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QUERNBROOK_ROW_KERNEL_CAPSULE "quernbrook.row_kernel.1"
#define QUERNBROOK_REDUCTION_KERNEL_CAPSULE "quernbrook.reduction_kernel.1"

/* Rows of an argument: row r is the `column_count` doubles from `first + r * stride` on. A stride
 * of 0 means one row that serves all, as a literal's does. Strides are in doubles and may be
 * negative.
 */
typedef struct {
  const double* first;
  ptrdiff_t stride;
} quernbrook_rows;

/* The Python exception that a failure becomes; any other number is a RuntimeError. */
typedef enum {
  QUERNBROOK_VALUE_ERROR = 1,
  QUERNBROOK_TYPE_ERROR = 2,
  QUERNBROOK_ZERO_DIVISION_ERROR = 3,
  QUERNBROOK_OVERFLOW_ERROR = 4,
  QUERNBROOK_FLOATING_POINT_ERROR = 5,
  QUERNBROOK_MEMORY_ERROR = 6,
  QUERNBROOK_RUNTIME_ERROR = 7
} quernbrook_failure_kind;

/* What a kernel tells of a row that failed. The evaluator hands it over zeroed. */
typedef struct {
  ptrdiff_t row;  /* offset in this call's rows, from 0; of a reduction always 0 */
  int32_t kind;   /* a quernbrook_failure_kind */
  char text[256]; /* UTF-8, ended by a zero */
} quernbrook_failure;

/* Results of a row depend on the arguments of that row alone: the kernel keeps no state. */
#define QUERNBROOK_STATELESS UINT64_C(1)

/* What fresh instances compute depends on their function's name, configuration and rows alone:
 * where a graph has two with equal ones, the evaluator may have one instance stand for both. */
#define QUERNBROOK_SHAREABLE UINT64_C(2)

/* A rotation.
 *
 * `run` computes `row_count` rows, at least one, of `column_count` doubles from `argument_count`
 * arguments. The result is one C-ordered block of shape (row_count, column_count) that overlaps no
 * argument. Returns 0, or anything else after it has filled `failure`; the rows before the failing
 * one are then in the result. Arguments of the wrong number or width are failures, too.
 */
typedef struct {
  size_t size;
  uint64_t flags;
  void* state;
  int (*run)(void* state, const quernbrook_rows* arguments, size_t argument_count,
             ptrdiff_t row_count, ptrdiff_t column_count, double* result,
             quernbrook_failure* failure);
} quernbrook_row_kernel;

/* A stateful reduction.
 *
 * `run` makes one row of `column_count` doubles from the weights of the passing signals, a
 * C-ordered block of shape (signal_count, column_count), and their PnL in the row, `signal_count`
 * doubles, or null where the run has none. The result overlaps neither.
 */
typedef struct {
  size_t size;
  uint64_t flags;
  void* state;
  int (*run)(void* state, const double* signals, ptrdiff_t signal_count, ptrdiff_t column_count,
             const double* pnl, double* result, quernbrook_failure* failure);
} quernbrook_reduction_kernel;

#ifdef __cplusplus
}
#endif

#endif
