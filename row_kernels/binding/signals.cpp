#include "signals/signals.hpp"

#include <array>
#include <string>

#include "definition.hpp"
#include "functions.hpp"

namespace quernbrook::row_kernels::binding {
namespace {

/// Raises ValueError for a statistic that is none of the function's.
std::unique_ptr<WeightedFunction> make_one_of(std::initializer_list<const char*> known,
                                              std::size_t window, const std::string& stat_name,
                                              bool invert) {
  std::string names;
  for (const char* name : known) {
    if (stat_name == name) return make_weighted(stat_name, window, invert);
    names += (names.empty() ? "" : ", ") + std::string(name);
  }
  const std::string text = "unknown stat_name '" + stat_name + "'; known: " + names;
  throw nb::value_error(text.c_str());
}

// The evaluator reads `pnl_column` from the configuration; the functions get the PnL itself.

std::unique_ptr<WeightedFunction> make_by_vol(std::size_t window, std::string stat_name,
                                              std::string /*pnl_column*/, bool invert) {
  return make_one_of({"vol", "downside_vol"}, window, stat_name, invert);
}

std::unique_ptr<WeightedFunction> make_by_sharpe(std::size_t window, std::string stat_name,
                                                 std::string /*pnl_column*/, bool invert) {
  return make_one_of({"sharpe", "sortino"}, window, stat_name, invert);
}

std::unique_ptr<WeightedFunction> make_by_turnover(std::size_t window, std::string stat_name,
                                                   std::string /*pnl_column*/, bool invert) {
  return make_one_of({"turnover"}, window, stat_name, invert);
}

std::unique_ptr<WeightedFunction> make_by_pnl(std::size_t window, std::string /*pnl_column*/,
                                              bool invert) {
  return make_weighted("pnl", window, invert);
}

constexpr const char* pnl_column_default = "gross_returns";

}  // namespace

void define_signals(nb::module_& module) {
  const auto window = nb::arg("window");
  const auto pnl_column = nb::arg("pnl_column") = pnl_column_default;
  const auto invert = nb::arg("invert") = false;
  define<make_signal_mean>(module, "reduction_mean",
                           "The plain mean over the signals, in the units of the weights. NaN in a "
                           "signal gives NaN; so\n"
                           "does a pool without signals.");
  define<make_by_vol>(
      module, "weighted_by_vol",
      "A mean over the signals in proportion to the population standard deviation of the last "
      "`window`\n"
      "PnL of each (\"vol\"), or to the root mean square of its losses (\"downside_vol\"). With\n"
      "`invert`, to the reciprocal. A signal whose statistic is NaN, zero or negative gets no "
      "share;\n"
      "when none gets one, the plain mean. NaN for the first window - 1 rows.",
      window, nb::arg("stat_name") = "vol", pnl_column, invert);
  define<make_by_sharpe>(
      module, "weighted_by_sharpe",
      "A mean over the signals in proportion to the mean of the last `window` PnL of each over "
      "their\n"
      "standard deviation (\"sharpe\"), or over the root mean square of its losses (\"sortino\"), "
      "both\n"
      "for one row and not for a year. `invert`, NaN, shares and warm-up as of weighted_by_vol.\n"
      "Sources: W. F. Sharpe, Mutual Fund Performance, 1966; F. A. Sortino and L. N. Price,\n"
      "Performance Measurement in a Downside Risk Framework, 1994.",
      window, nb::arg("stat_name") = "sharpe", pnl_column, invert);
  define<make_by_turnover>(
      module, "weighted_by_turnover",
      "A mean over the signals in proportion to the mean turnover of each over the last `window` "
      "rows:\n"
      "the absolute changes of its weights from row to row, summed, in the units of the weights. "
      "The\n"
      "first row is a change from nothing, and a NaN weight counts as none. `invert`, shares and\n"
      "warm-up as of weighted_by_vol.",
      window, nb::arg("stat_name") = "turnover", pnl_column, invert);
  define<make_by_pnl>(module, "weighted_by_pnl",
                      "A mean over the signals in proportion to the mean of the last `window` PnL "
                      "of each. `invert`,\n"
                      "NaN, shares and warm-up as of weighted_by_vol.",
                      window, pnl_column, invert);
}

}  // namespace quernbrook::row_kernels::binding
