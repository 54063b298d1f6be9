#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <cctype>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "reduction.hpp"
#include "rotation.hpp"

namespace quernbrook::row_kernels::binding {

/// The instance that holds what a factory makes.
template <class Made>
struct BaseOf;
template <>
struct BaseOf<RowFunction> {
  using type = StatelessRotation;
};
template <>
struct BaseOf<WindowFunction> {
  using type = WindowedRotation;
};
template <>
struct BaseOf<SignalFunction> {
  using type = StatelessReduction;
};
template <>
struct BaseOf<WeightedFunction> {
  using type = WeightedReduction;
};

/// What Python gives for an option. Windows are the options of type std::size_t.
template <class Option>
using Given = std::conditional_t<std::is_same_v<Option, std::size_t>, std::int64_t, Option>;

template <class Option>
Option checked(const Given<Option>& given) {
  if constexpr (std::is_same_v<Option, std::size_t>) {
    if (given < 1) {
      const std::string text = "window must be at least 1; got " + std::to_string(given);
      throw nb::value_error(text.c_str());
    }
    return static_cast<std::size_t>(given);
  } else {
    return given;
  }
}

/// An instance of the function that the factory `make` makes: a type of its own in Python.
template <auto make>
class Instance;

template <class Made, class... Options, std::unique_ptr<Made> (*make)(Options...)>
class Instance<make> final : public BaseOf<Made>::type {
 public:
  using Base = typename BaseOf<Made>::type;
  using Init = nb::init<Given<Options>...>;
  static inline const char* name = nullptr;

  explicit Instance(Given<Options>... options)
      : Base(name, make(checked<Options>(options)...)), options_(options...) {}

  template <std::size_t place>
  static auto option(const Instance& self) {
    return std::get<place>(self.options_);
  }

  /// The arguments that make an equal instance.
  nb::tuple arguments() const {
    return std::apply([](const auto&... options) { return nb::make_tuple(options...); }, options_);
  }

 private:
  std::tuple<Given<Options>...> options_;
};

/// "numerical_add" to "NumericalAdd".
inline std::string class_name(const char* name) {
  std::string text;
  bool is_first = true;
  for (; *name != '\0'; ++name) {
    if (*name == '_') {
      is_first = true;
      continue;
    }
    text += is_first ? static_cast<char>(std::toupper(*name)) : *name;
    is_first = false;
  }
  return text;
}

/// Defines the type of a function: `parameters` name the factory's options, `doc` says what it
/// computes, its NaN rule, ties, warm-up, units and source.
template <auto make, class... Parameters>
void define(nb::module_& module, const char* name, const char* doc,
            const Parameters&... parameters) {
  using Type = Instance<make>;
  Type::name = name;
  nb::class_<Type, typename Type::Base> type(module, class_name(name).c_str(), doc, nb::is_final());
  type.def(typename Type::Init(), parameters...);
  [&]<std::size_t... place>(std::index_sequence<place...>) {
    (type.def_prop_ro(parameters.name_, &Type::template option<place>), ...);
  }(std::index_sequence_for<Parameters...>{});
  type.attr("name") = name;
  type.def("__reduce__", [](nb::pointer_and_handle<Type> self) {
    const nb::object kind = nb::borrow(self.h.type());
    const nb::tuple arguments = self.p->arguments();
    if constexpr (requires { self.p->get_state(); }) {
      const nb::object restored =
          nb::module_::import_("quernbrook.row_kernels.states").attr("restored");
      const nb::object state_data = self.p->get_state().attr("state_data");
      return nb::make_tuple(restored, nb::make_tuple(kind, arguments, state_data));
    } else {
      return nb::make_tuple(kind, arguments);
    }
  });
}

}  // namespace quernbrook::row_kernels::binding
