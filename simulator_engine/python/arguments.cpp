#include "python/arguments.hpp"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "python/error.hpp"

namespace quernbrook::python {

bool is_spelt(PyObject* name, std::string_view text) {
  if (!PyUnicode_IS_COMPACT_ASCII(name)) {
    return PyUnicode_CompareWithASCIIString(name, text.data()) == 0;
  }
  return static_cast<std::size_t>(PyUnicode_GET_LENGTH(name)) == text.size() &&
         std::memcmp(PyUnicode_1BYTE_DATA(name), text.data(), text.size()) == 0;
}

namespace {

[[noreturn]] void refuse_surplus(const ParameterList& parameters, Py_ssize_t given) {
  const std::size_t itself = std::strchr(parameters.function, '.') == nullptr ? 0 : 1;
  const std::size_t least = std::min(parameters.required, parameters.positional) + itself;
  const std::size_t most = parameters.positional + itself;
  given += static_cast<Py_ssize_t>(itself);
  const std::string takes = least == most
                                ? std::to_string(most)
                                : "from " + std::to_string(least) + " to " + std::to_string(most);
  raise_format(PyExc_TypeError, "%s() takes %s positional argument%s but %zd %s given",
               parameters.function, takes.c_str(), most == 1 ? "" : "s", given,
               given == 1 ? "was" : "were");
}

[[noreturn]] void refuse_missing(const ParameterList& parameters, PyObject** bound) {
  std::vector<std::string> missing;
  for (std::size_t place = 0; place < parameters.required; ++place) {
    if (bound[place] == nullptr)
      missing.push_back("'" + std::string(parameters.names[place]) + "'");
  }
  std::string list = missing.front();
  for (std::size_t place = 1; place < missing.size(); ++place) {
    const bool last = place + 1 == missing.size();
    list += (last ? (missing.size() == 2 ? " and " : ", and ") : ", ") + missing[place];
  }
  raise_format(PyExc_TypeError, "%s() missing %zd required positional argument%s: %s",
               parameters.function, static_cast<Py_ssize_t>(missing.size()),
               missing.size() == 1 ? "" : "s", list.c_str());
}

/// `guess` is where callers who keep to the parameters' order have the name.
std::size_t place_of(const ParameterList& parameters, PyObject* name, std::size_t guess) {
  if (guess < parameters.count && is_spelt(name, parameters.names[guess])) return guess;
  for (std::size_t place = 0; place < parameters.count; ++place) {
    if (is_spelt(name, parameters.names[place])) return place;
  }
  raise_format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", parameters.function,
               name);
}

}  // namespace

void bind_arguments(const ParameterList& parameters, const CallArguments& arguments,
                    PyObject** bound) {
  if (static_cast<std::size_t>(arguments.positional) > parameters.positional) {
    refuse_surplus(parameters, arguments.positional);
  }
  for (Py_ssize_t place = 0; place < arguments.positional; ++place) {
    bound[place] = arguments.values[place];
  }
  const Py_ssize_t named = arguments.names == nullptr ? 0 : PyTuple_GET_SIZE(arguments.names);
  std::size_t place = static_cast<std::size_t>(arguments.positional) - 1;
  for (Py_ssize_t given = 0; given < named; ++given) {
    PyObject* name = PyTuple_GET_ITEM(arguments.names, given);
    place = place_of(parameters, name, place + 1);
    if (bound[place] != nullptr) {
      raise_format(PyExc_TypeError, "%s() got multiple values for argument '%U'",
                   parameters.function, name);
    }
    bound[place] = arguments.values[arguments.positional + given];
  }
  for (std::size_t required = 0; required < parameters.required; ++required) {
    if (bound[required] == nullptr) refuse_missing(parameters, bound);
  }
}

}  // namespace quernbrook::python
