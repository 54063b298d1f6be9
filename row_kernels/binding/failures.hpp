#pragma once

#include <quernbrook/row_kernel.h>

#include <atomic>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <string>

namespace quernbrook::row_kernels::binding {

/// A call with the wrong number or kind of arguments.
class ArgumentError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Holds an instance's state for one call. What two threads did to it at once would be lost, or
/// worse.
class Claim {
 public:
  Claim(std::atomic_flag& claimed, const char* name) : claimed_(claimed) {
    if (claimed_.test_and_set(std::memory_order_acquire)) {
      throw std::runtime_error(std::string(name) +
                               ": another thread is calling this instance; give each run its own");
    }
  }
  ~Claim() { claimed_.clear(std::memory_order_release); }
  Claim(const Claim&) = delete;
  Claim& operator=(const Claim&) = delete;

 private:
  std::atomic_flag& claimed_;
};

/// Runs `work` and tells what it threw, as a kernel must. Returns 0 if nothing was thrown.
template <class Work>
int tell_failure(quernbrook_failure* failure, const Work& work) noexcept {
  const auto tell = [=](quernbrook_failure_kind kind, const char* text) {
    failure->row = 0;
    failure->kind = kind;
    std::snprintf(failure->text, sizeof failure->text, "%s", text);
    return 1;
  };
  try {
    work();
    return 0;
  } catch (const std::invalid_argument& error) {
    return tell(QUERNBROOK_VALUE_ERROR, error.what());
  } catch (const ArgumentError& error) {
    return tell(QUERNBROOK_TYPE_ERROR, error.what());
  } catch (const std::bad_alloc&) {
    return tell(QUERNBROOK_MEMORY_ERROR, "out of memory");
  } catch (const std::length_error&) {
    return tell(QUERNBROOK_MEMORY_ERROR, "out of memory");
  } catch (const std::exception& error) {
    return tell(QUERNBROOK_RUNTIME_ERROR, error.what());
  }
}

/// Raises the Python exception of a failure.
[[noreturn]] void raise(const quernbrook_failure& failure);

}  // namespace quernbrook::row_kernels::binding
