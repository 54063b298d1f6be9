#include "filtration/filter_operands.hpp"

#include <initializer_list>

#include "python/containers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::filtration {

using namespace python;

namespace {

class Parameters {
 public:
  Parameters(PyObject* operation, const FilterOperands& operands)
      : operation_(operation), operands_(operands), values_(new_dict()) {}

  Object fill() {
    if (is_any({"gt", "lt", "gte", "lte", "eq", "neq"})) {
      set_field();
      set_comparison_value();
    } else if (is_any({"between"})) {
      set_field();
      if (operands_.floats.size() >= 2) {
        set("low", operands_.floats[0]);
        set("high", operands_.floats[1]);
      }
    } else if (is_any({"in_"})) {
      set_field();
      set_members();
    } else if (is_any({"top_pct", "bottom_pct"})) {
      set_field();
      if (!operands_.floats.empty()) set("pct", operands_.floats[0]);
    } else if (is_any({"top_n", "bottom_n"})) {
      set_field();
      if (!operands_.integers.empty()) set("n", operands_.integers[0]);
    }
    return std::move(values_);
  }

 private:
  bool is_any(std::initializer_list<const char*> names) const {
    for (const char* name : names) {
      if (equal(operation_, as_text(name))) return true;
    }
    return false;
  }

  void set(const char* key, PyObject* value) { set_dict_item(values_, as_text(key), value); }

  void set_field() {
    if (!operands_.strings.empty()) set("field", operands_.strings[0]);
  }

  void set_comparison_value() {
    if (!operands_.floats.empty()) {
      set("value", operands_.floats[0]);
    } else if (!operands_.integers.empty()) {
      set("value", operands_.integers[0]);
    }
    if (is_any({"eq", "neq"}) && operands_.strings.size() >= 2) set("value", operands_.strings[1]);
  }

  void set_members() {
    if (operands_.strings.size() < 2) return;
    const Object members = new_list();
    for (std::size_t place = 1; place < operands_.strings.size(); ++place) {
      append(members, operands_.strings[place]);
    }
    set("values", members);
  }

  PyObject* operation_;
  const FilterOperands& operands_;
  Object values_;
};

}  // namespace

Object filter_parameters(PyObject* operation, const FilterOperands& operands) {
  return Parameters(operation, operands).fill();
}

}  // namespace quernbrook::filtration
