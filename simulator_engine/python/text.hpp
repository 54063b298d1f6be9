#pragma once

#include <concepts>
#include <string_view>
#include <vector>

#include "python/calling_python.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

/// `format(object)`, the form in which messages show values.
Object formatted(PyObject* object);
/// `type(object).__name__`.
Object type_name(PyObject* object);
/// `str(object)`.
inline Object as_text(PyObject* object) {
  return Object::steal(calling_python([&] { return PyObject_Str(object); }));
}
Object as_text(std::string_view text);
inline Object as_text(const char* text) { return as_text(std::string_view(text)); }
/// UTF-8 from elsewhere: what isn't is replaced.
Object decoded(std::string_view bytes);
/// The one object of that text which the names in Python code are, too.
Object interned(const char* text);
/// `text + end` of exact texts.
Object appended(PyObject* text, PyObject* end);
/// `separator.join(parts)`.
Object join(const char* separator, PyObject* parts);
Object concatenate(const std::vector<Object>& parts);

inline Object message_part(const char* text) { return as_text(text); }
inline Object message_part(PyObject* value) { return formatted(value); }
inline Object message_part(const Object& value) { return formatted(value); }
template <std::signed_integral Number>
Object message_part(Number value) {
  return Object::steal(
      calling_python([&] { return PyUnicode_FromFormat("%zd", static_cast<Py_ssize_t>(value)); }));
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
