#include <algorithm>

#include "nan.hpp"
#include "signals/row_sums.hpp"
#include "signals/signals.hpp"

namespace quernbrook::row_kernels {
namespace {

class SignalMean final : public SignalFunction {
 public:
  bool needs_pnl() const noexcept override { return false; }

  void run(const double* signals, std::ptrdiff_t signal_count, std::ptrdiff_t column_count,
           const double* /*pnl*/, double* result) override {
    const auto columns = static_cast<std::size_t>(column_count);
    if (signal_count == 0) {
      std::fill_n(result, columns, nan);
      return;
    }
    sum_rows(signals, static_cast<std::size_t>(signal_count), columns, result);
    divide_row(result, static_cast<double>(signal_count), columns);
  }
};

}  // namespace

std::unique_ptr<SignalFunction> make_signal_mean() { return std::make_unique<SignalMean>(); }

}  // namespace quernbrook::row_kernels
