#pragma once

#include <nanobind/nanobind.h>

#include <cstddef>
#include <vector>

namespace quernbrook::row_kernels::binding {

namespace nb = nanobind;

/// Loads NumPy. To be called once, before all else here.
void import_numpy();

/// A contiguous float64 array of one or two dimensions, kept alive.
struct Array {
  nb::object owner;
  const double* cells;
  std::ptrdiff_t rows;  // 1, if it has one dimension
  std::ptrdiff_t columns;
};

/// Converts like numpy.asarray(..., dtype=float64); arrays that are right already are taken as they
/// are. Raises ValueError for another number of dimensions, under the function's `name`.
Array row_of(nb::handle object, const char* name);
Array block_of(nb::handle object, const char* name);

/// A C-ordered float64 array of two dimensions that is written to where it lies, kept alive.
struct WritableBlock {
  nb::object owner;
  double* cells;
  std::ptrdiff_t rows;
  std::ptrdiff_t columns;
};

/// Raises TypeError for anything else.
WritableBlock writable_block_of(nb::object object, const char* name);

struct NewRow {
  nb::object array;
  double* cells;
};

NewRow new_row(std::ptrdiff_t columns);

/// Nested lists of `rows` rows of `columns` numbers each, and back.
nb::list to_lists(const double* cells, std::size_t rows, std::size_t columns);
/// The rows of lists that all have one width, which is written to `columns`, one after the other.
/// Raises ValueError for rows of different widths and where there are other than `rows` of them.
std::vector<double> from_lists(nb::handle lists, std::size_t rows, std::size_t& columns,
                               const char* name);

}  // namespace quernbrook::row_kernels::binding
