#pragma once

#include <array>
#include <span>

#include "python/sequence_iterator.hpp"

namespace quernbrook::evaluation {

/// Some signals of a pool, whose attributes are read together: the objects on the way to a matrix
/// lie scattered in memory, and each next one is fetched for all signals before it is read for any.
///
/// Every step returns false where foreign code would have a part in it; none has run then, and
/// nothing has happened. What is found is borrowed, until foreign code may run again.
class SignalBatch {
 public:
  static constexpr std::size_t most = 16;

  /// The signals with these ids, at most `most`, in an exact dict whose keys are plain texts; false
  /// where there is none.
  bool find(PyObject* pool, std::span<PyObject* const> ids);
  /// The next signals of an exact dict; false at its end.
  bool take(PyObject* pool, Py_ssize_t& place);
  std::size_t size() const noexcept { return count_; }

  /// Reads the attribute `name` of all signals.
  bool read(PyObject* name);
  std::span<PyObject* const> values() const noexcept { return {values_.data(), count_}; }

 private:
  void add(PyObject* signal);

  std::array<PyObject*, most> signals_;
  std::array<PyObject*, most> values_;
  std::size_t count_ = 0;
};

/// Goes through ids: `ahead()` takes as many as it can at once, `one(id)` the next few, so that a
/// pool of odd signals isn't looked at ahead for each of them.
template <class Ahead, class One>
void visit_signals(python::SequenceIterator& ids, Ahead&& ahead, One&& one) {
  while (true) {
    if (!ids.ahead(1).empty()) ahead();
    for (std::size_t count = 0; count < SignalBatch::most; ++count) {
      const python::Object id = ids.next();
      if (id.empty()) return;
      one(id);
    }
  }
}

/// Has the processor fetch the cache line there.
inline void fetch(const void* address) { __builtin_prefetch(address); }

}  // namespace quernbrook::evaluation
