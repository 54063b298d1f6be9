#pragma once

#include <nanobind/nanobind.h>

// Each defines the types of one family of functions, a line or two each.
namespace quernbrook::row_kernels::binding {

void define_arithmetic(nanobind::module_& module);
void define_logic(nanobind::module_& module);
void define_rows(nanobind::module_& module);
void define_signals(nanobind::module_& module);
void define_time(nanobind::module_& module);
/// The type that files rows away, which is no function of a registry.
void define_filing(nanobind::module_& module);

}  // namespace quernbrook::row_kernels::binding
