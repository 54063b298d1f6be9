#pragma once

#include <array>
#include <span>

#include "python/sequence_iterator.hpp"

namespace quernbrook::evaluation {

/// Some signals of a pool, whose attributes are read together: the objects on the way to a matrix
/// lie scattered in memory, and each next one is fetched for all signals before it is read for any.
///
/// Plain dictionaries run foreign code only where two keys have the same hash. Everything found is
/// therefore held; otherwise a step returns false where foreign code would have a part in it, and
/// nothing has happened then.
class SignalBatch {
 public:
  static constexpr std::size_t most = 16;

  /// The signals of the ids to come, all of which the pool has; false at the end of the ids.
  bool find(PyObject* pool, const python::SequenceIterator& ids);
  /// The next signals of an exact dict; false at its end.
  bool take(PyObject* pool, Py_ssize_t& place);
  std::size_t size() const noexcept { return count_; }

  /// Reads the attribute `name` of all signals.
  bool read(PyObject* name);
  std::span<const python::Object> values() const noexcept { return {values_.data(), count_}; }

 private:
  std::array<python::Object, most> signals_;
  std::array<python::Object, most> values_;
  std::size_t count_ = 0;
};

/// Has the processor fetch the cache line there.
inline void fetch(const void* address) { __builtin_prefetch(address); }

}  // namespace quernbrook::evaluation
