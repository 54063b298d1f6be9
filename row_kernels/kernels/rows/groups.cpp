#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

#include "nan.hpp"
#include "rows/across_function.hpp"
#include "rows/rows.hpp"
#include "rows/sums.hpp"

namespace quernbrook::row_kernels {
namespace {

/// The columns of a row of group numbers, group by group, in rising order within each.
class Groups {
 public:
  explicit Groups(std::size_t columns)
      : numbers_(columns),
        ids_(columns),
        columns_(columns),
        slots_(std::bit_ceil(2 * columns + 2)),
        shift_(64 - std::countr_zero(slots_.size())) {}

  /// Groups seldom change from row to row, and then nothing is done.
  void read(const double* numbers) {
    const std::size_t bytes = numbers_.size() * sizeof(double);
    if (is_read_ && (bytes == 0 || std::memcmp(numbers_.data(), numbers, bytes) == 0)) return;
    std::copy_n(numbers, numbers_.size(), numbers_.begin());
    is_read_ = true;
    number_groups();
    // Counted, then placed: columns keep their order within a group.
    for (std::size_t group = 1; group < begins_.size(); ++group)
      begins_[group] += begins_[group - 1];
    for (std::size_t column = ids_.size(); column-- > 0;) {
      if (ids_[column] != none)
        columns_[--begins_[ids_[column]]] = static_cast<std::uint32_t>(column);
    }
  }

  std::size_t count() const noexcept { return begins_.size() - 1; }
  const std::uint32_t* begin(std::size_t group) const noexcept {
    return columns_.data() + begins_[group];
  }
  const std::uint32_t* end(std::size_t group) const noexcept { return begin(group + 1); }

 private:
  static constexpr std::uint32_t none = UINT32_MAX;

  struct Slot {
    double number;
    std::uint32_t id;
  };

  /// Gives groups numbers from 0 in the order in which they appear, by a table of open addresses,
  /// and counts their columns.
  void number_groups() {
    std::fill(slots_.begin(), slots_.end(), Slot{0.0, none});
    begins_.clear();
    for (std::size_t column = 0; column < ids_.size(); ++column) {
      const double number = numbers_[column];
      if (is_nan(number)) {
        ids_[column] = none;
        continue;
      }
      // Negative zero is zero.
      const auto bits = std::bit_cast<std::uint64_t>(number + 0.0);
      std::size_t place = (bits * 0x9e3779b97f4a7c15) >> shift_;
      while (slots_[place].id != none && slots_[place].number != number) {
        place = (place + 1) & (slots_.size() - 1);
      }
      if (slots_[place].id == none) {
        slots_[place] = {number, static_cast<std::uint32_t>(begins_.size())};
        begins_.push_back(0);
      }
      ids_[column] = slots_[place].id;
      ++begins_[ids_[column]];
    }
    begins_.push_back(0);
  }

  std::vector<double> numbers_;
  std::vector<std::uint32_t> ids_;  // of each column
  std::vector<std::uint32_t> columns_;
  std::vector<std::uint32_t> begins_;  // of each group in `columns_`, and the end of the last
  std::vector<Slot> slots_;
  int shift_;
  bool is_read_ = false;
};

class GroupDemean {
 public:
  explicit GroupDemean(std::size_t columns) : groups_(columns), values_(columns), taken_(columns) {}

  void operator()(const double* row, const double* numbers, double* result) {
    groups_.read(numbers);
    std::fill_n(result, values_.size(), nan);
    for (std::size_t group = 0; group < groups_.count(); ++group) {
      std::size_t count = 0;
      for (const std::uint32_t* column = groups_.begin(group); column != groups_.end(group);
           ++column) {
        values_[count] = row[*column];
        taken_[count] = *column;
        count += is_nan(row[*column]) ? 0 : 1;
      }
      if (count == 0) continue;
      const double first = values_[0];
      for (std::size_t place = 0; place < count; ++place) values_[place] -= first;
      const double mean = pairwise_sum(values_.data(), count) / static_cast<double>(count);
      for (std::size_t place = 0; place < count; ++place) {
        result[taken_[place]] = values_[place] - mean;
      }
    }
  }

 private:
  Groups groups_;
  std::vector<double> values_;        // of a group's numbers
  std::vector<std::uint32_t> taken_;  // their columns
};

}  // namespace

std::unique_ptr<RowFunction> make_group_demean() { return make_across<GroupDemean, 2>(); }

}  // namespace quernbrook::row_kernels
