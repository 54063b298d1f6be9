#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "python/object.hpp"

namespace quernbrook::python {

/// What a caller passed, in the form of the vectorcall protocol.
struct CallArguments {
  PyObject* const* values;
  Py_ssize_t positional;
  PyObject* names;  // tuple of the keyword names, or null
};

/// The parameters of a function; those from `positional` on are keyword-only, those from
/// `required` on may be left out.
struct ParameterList {
  const char* function;  // qualified where it is a method: its object counts as an argument, too
  const std::string_view* names;  // of literals
  std::size_t count;
  std::size_t positional;
  std::size_t required;
};

/// Sorts the arguments into the parameters' order. Absent optional ones become null; anything
/// that does not fit is the TypeError that a Python function raises.
void bind_arguments(const ParameterList& parameters, const CallArguments& arguments,
                    PyObject** bound);

/// A function's parameters with their number known at compile time.
///
///     constexpr Parameters<2> parameters{"_graph_has_field", {"node", "key"}};
///     const auto [node, key] = parameters.bind(arguments);
template <std::size_t Count>
struct Parameters {
  const char* function;
  std::array<std::string_view, Count> names;
  std::size_t required = Count;
  std::size_t positional = Count;

  std::array<PyObject*, Count> bind(const CallArguments& arguments) const {
    std::array<PyObject*, Count> bound{};
    bind_arguments({function, names.data(), Count, positional, required}, arguments, bound.data());
    return bound;
  }
};

/// True if the text object has this spelling.
bool is_spelt(PyObject* name, std::string_view text);

/// An optional parameter whose default is None.
inline PyObject* or_none(PyObject* argument) { return argument == nullptr ? Py_None : argument; }

}  // namespace quernbrook::python
