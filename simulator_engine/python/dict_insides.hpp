#pragma once

#include <cstdint>

#include "python/object.hpp"

// What is known of the insides of dicts and of the instances that keep their attributes in one: the
// one place that tells where a look-up runs no foreign code.
namespace quernbrook::python {

/// True if all keys of an exact dict are plain texts: a look-up of one runs no foreign code then.
bool has_string_keys(PyObject* dict);

/// has_string_keys() for a large dict that is asked for again and again, found out anew when it has
/// changed.
class StringKeys {
 public:
  bool of(PyObject* dict);

 private:
  PyObject* dict_ = nullptr;  // compared only
  std::uint64_t version_ = 0;
  bool has_string_keys_ = false;
};

/// The entry of `name` on the type or its bases, not bound; empty when there is none. Odd keys of a
/// class's dictionary have their code run.
Object find_on_type(PyTypeObject* type, PyObject* name);

/// True if both types have the same entry of that name, or neither has one.
bool have_same_entry(PyTypeObject* left, PyTypeObject* right, PyObject* name);

/// True if the object's type and dictionary have the attribute, whatever `__getattr__` says.
bool has_ordinary_attribute(PyObject* object, PyObject* name);

/// True where reading the attribute of the type's instances is a look into their dictionaries: the
/// class itself has nothing to say about the name.
bool has_plain_attribute(PyTypeObject* type, PyObject* name);

/// True where setting the attribute is no more than an entry in the object's dictionary.
bool has_plain_item(PyObject* object, PyObject* name);

/// The attribute where reading it runs no foreign code: as that look finds it among plain texts.
/// Empty elsewhere and where it is missing.
Object plain_attribute(PyObject* object, PyObject* name);

/// The same where the class is known to be one of that kind.
Object own_attribute(PyObject* object, PyObject* name);
/// plain_attribute(), or where the object has none of its own, the entry of its class.
Object plain_or_class_attribute(PyObject* object, PyObject* name);

}  // namespace quernbrook::python
