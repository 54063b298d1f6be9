#pragma once

#include <vector>

#include "host/namespace.hpp"

namespace quernbrook::filtration {

/// The literal children of a filter node by kind, in child order.
struct FilterOperands {
  std::vector<Object> strings;
  std::vector<Object> floats;
  std::vector<Object> integers;
};

/// The parameters that the operator makes of its operands, as a dict. A parameter whose operand is
/// missing stays absent; the library rejects it.
Object filter_parameters(PyObject* operation, const FilterOperands& operands);

}  // namespace quernbrook::filtration
