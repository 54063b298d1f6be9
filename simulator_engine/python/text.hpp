#pragma once

#include <concepts>
#include <vector>

#include "python/finalization.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

/// `format(object)`, the form in which messages show values.
Object formatted(PyObject* object);
/// `type(object).__name__`.
Object type_name(PyObject* object);
/// `str(object)`.
inline Object as_text(PyObject* object) {
  return Object::own(entered([&] { return PyObject_Str(object); }));
}
inline Object as_text(const char* text) { return Object::own(PyUnicode_FromString(text)); }
/// `separator.join(parts)`.
Object join(const char* separator, PyObject* parts);
Object concatenate(const std::vector<Object>& parts);

inline Object message_part(const char* text) { return as_text(text); }
inline Object message_part(PyObject* value) { return formatted(value); }
inline Object message_part(const Object& value) { return formatted(value); }
template <std::signed_integral Number>
Object message_part(Number value) {
  return Object::own(PyUnicode_FromFormat("%zd", static_cast<Py_ssize_t>(value)));
}

/// A text from its parts, left to right; objects appear as formatted() shows them.
template <class... Parts>
Object message(const Parts&... parts) {
  std::vector<Object> texts;
  texts.reserve(sizeof...(parts));
  (texts.push_back(message_part(parts)), ...);
  return concatenate(texts);
}

}  // namespace quernbrook::python
