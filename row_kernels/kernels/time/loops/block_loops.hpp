#pragma once

#include <type_traits>
#include <utility>

#include "time/loops/lanes.hpp"
#include "time/plan.hpp"

namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET {

/// Statistics in blocks. A block has the window's length and begins at each multiple of it, by the
/// count of all rows. A window is then
///
///     the older rows of a part in the last block, whole parts, the newer rows of that part in this
///
/// and its statistic is put together from those three. Nothing is ever taken away from it again:
/// what has left the window leaves no trace, and what is computed depends on the window's rows and
/// on the count alone. So one goes about extremes (van Herk 1992, Gil and Werman 1993). Parts are a
/// second level: the aggregates of older rows are made, and kept, a part and not a block at a time.
///
/// After the rows a tile holds, in lines of `tile_columns` cells,
///
///     part_length Parts   of the older rows and the whole parts
///     part_count Totals   of the whole parts
///     a Part              of the newer rows
///     a Base

/// A structure of lanes, one line of a tile each, from and to one column group of those lines.
template <class Fields>
inline constexpr std::size_t field_count = sizeof(Fields) / sizeof(Lanes);

// Assigned lane by lane and not as bytes, so that compilers keep structures in registers.
template <class Fields>
inline Fields load_fields(const double* cells) noexcept {
  Fields fields;
  [[maybe_unused]] auto* lanes = reinterpret_cast<Lanes*>(&fields);
  [&]<std::size_t... field>(std::index_sequence<field...>) {
    ((lanes[field] = load(cells + field * tile_columns)), ...);
  }(std::make_index_sequence<field_count<Fields>>());
  return fields;
}

template <class Fields>
inline void store_fields(double* cells, const Fields& fields) noexcept {
  [[maybe_unused]] const auto* lanes = reinterpret_cast<const Lanes*>(&fields);
  [&]<std::size_t... field>(std::index_sequence<field...>) {
    (store(cells + field * tile_columns, lanes[field]), ...);
  }(std::make_index_sequence<field_count<Fields>>());
}

/// One row's cells of every argument.
template <std::size_t arguments>
struct Cells {
  Lanes of[arguments];
};

/// One column group of a tile.
///
/// A statistic is a structure with the number of its `arguments` and
///
///     Base     what all windows that end in a part have in common, if anything
///     Part     the aggregate of some rows, as windows are made of; at first of none
///     Total    the aggregate of a whole part, of which those are made
///
///     append(plan, base, newer, cells, offset)   a row comes after the newer ones
///     prepend(plan, base, older, cells, offset)  a row comes before the older ones
///     total(rows, length)                        of a whole part; rows(r) are its cells. Not
///                                                needed where Total is Part: it is then what the
///                                                newer rows become
///     common(plan, others, base, older)          from the totals that the windows hold whole;
///                                                others(visit) calls visit(total, length, start),
///                                                oldest first; start is the time of the first row,
///                                                from that of the part's first row on
///     finish(plan, base, older, newer, cells, offset)
///
/// where `offset` is the row's in its part; the older rows are those of a block before.
template <class Statistic>
class Group {
 public:
  using Base = typename Statistic::Base;
  using Part = typename Statistic::Part;
  using Total = typename Statistic::Total;
  using Row = Cells<Statistic::arguments>;

  Group(const Plan& plan, double* tile) noexcept
      : plan_(plan),
        rows_(tile),
        older_(rows_ + plan.window * row_size),
        totals_(older_ + plan.part_length * part_size),
        newer_(totals_ + plan.part_count * total_size),
        base_(newer_ + part_size) {}

  void advance(std::size_t place, bool is_filling, const Rows* arguments, std::ptrdiff_t row_count,
               double* result, std::ptrdiff_t result_stride) const noexcept {
    std::size_t part = place / plan_.part_length;
    std::size_t offset = place % plan_.part_length;
    Cursor cursor{{}, {}, result, result_stride};
    for (std::size_t a = 0; a < Statistic::arguments; ++a) {
      cursor.next[a] = arguments[a].first;
      cursor.stride[a] = arguments[a].stride;
    }
    while (row_count > 0) {
      const std::size_t length = length_of(part);
      std::size_t end = length;
      if (row_count < static_cast<std::ptrdiff_t>(length - offset)) {
        end = offset + static_cast<std::size_t>(row_count);
      }
      row_count -= static_cast<std::ptrdiff_t>(end - offset);
      // The first full window is that of the last row of the last part.
      if (is_filling && part + 1 < plan_.part_count) {
        fill(part, offset, end, cursor);
      } else {
        compute(part, offset, end, is_filling, cursor);
      }
      offset = end;
      if (end == length) {
        if constexpr (newer_is_total) {
          store_fields(totals_ + part * total_size, load_fields<Part>(newer_));
        } else {
          store_total(part);
        }
        offset = 0;
        if (++part == plan_.part_count) {
          part = 0;
          is_filling = false;
        }
      }
    }
  }

  void rebuild(std::size_t place) const noexcept {
    for (std::size_t part = 0; part < plan_.part_count; ++part) store_total(part);
    const std::size_t part = place / plan_.part_length;
    const std::size_t end = place % plan_.part_length;
    if (end == 0) return;
    begin(part, false);
    const Base base = load_fields<Base>(base_);
    store_fields(newer_, appended(part, base, end));
  }

 private:
  static constexpr std::size_t row_size = Statistic::arguments * tile_columns;
  static constexpr std::size_t part_size = field_count<Part> * tile_columns;
  static constexpr std::size_t total_size = field_count<Total> * tile_columns;
  static constexpr bool newer_is_total = std::is_same_v<Total, Part>;

  std::size_t length_of(std::size_t part) const noexcept {
    return part + 1 < plan_.part_count ? plan_.part_length : plan_.last_part_length;
  }

  struct Cursor {
    const double* next[Statistic::arguments];
    std::ptrdiff_t stride[Statistic::arguments];
    double* result;
    std::ptrdiff_t result_stride;

    Row read() noexcept {
      Row cells;
      for (std::size_t a = 0; a < Statistic::arguments; ++a) {
        cells.of[a] = load(next[a]);
        fetch_ahead<0>(next[a]);
        next[a] += stride[a];
      }
      return cells;
    }

    void write(Lanes cells) noexcept {
      store(result, cells);
      fetch_ahead<1>(result);
      result += result_stride;
    }
  };

  void compute(std::size_t part, std::size_t offset, std::size_t end, bool is_filling,
               Cursor& at) const noexcept {
    if (offset == 0) begin(part, is_filling);
    const Base base = load_fields<Base>(base_);
    Part newer = load_fields<Part>(newer_);
    Cursor cursor = at;
    double* row = rows_ + (part * plan_.part_length + offset) * row_size;
    const double* older = older_ + offset * part_size;
    for (; offset < end; ++offset) {
      const Row cells = cursor.read();
      store_fields(row, cells);
      Statistic::append(plan_, base, newer, cells, offset);
      cursor.write(Statistic::finish(plan_, base, load_fields<Part>(older), newer, cells, offset));
      row += row_size;
      older += part_size;
    }
    store_fields(newer_, newer);
    at = cursor;
  }

  // What `compute` does, but for all that would come to NaN.
  void fill(std::size_t part, std::size_t offset, std::size_t end, Cursor& at) const noexcept {
    Part newer = offset == 0 ? Part{} : load_fields<Part>(newer_);
    Cursor cursor = at;
    double* row = rows_ + (part * plan_.part_length + offset) * row_size;
    for (; offset < end; ++offset) {
      const Row cells = cursor.read();
      store_fields(row, cells);
      if constexpr (newer_is_total) Statistic::append(plan_, Base{}, newer, cells, offset);
      cursor.write(all(__builtin_nan("")));
      row += row_size;
    }
    store_fields(newer_, newer);
    at = cursor;
  }

  Row row(std::size_t part, std::size_t offset) const noexcept {
    return load_fields<Row>(rows_ + (part * plan_.part_length + offset) * row_size);
  }

  /// Puts together what the windows that end in a part share, while its rows are those of the last
  /// block. Aggregate i is that of the rows after the part's first i + 1. While the window fills
  /// there are no such rows, and all fields are NaN, which leads to NaN.
  void begin(std::size_t part, bool is_filling) const noexcept {
    const auto others = [this, part](auto&& visit) {
      const auto time = [this, part](std::size_t other) {
        return static_cast<double>(other * plan_.part_length) -
               static_cast<double>(part * plan_.part_length);
      };
      for (std::size_t other = part + 1; other < plan_.part_count; ++other) {
        visit(load_fields<Total>(totals_ + other * total_size), length_of(other),
              time(other) - static_cast<double>(plan_.window));
      }
      for (std::size_t other = 0; other < part; ++other) {
        visit(load_fields<Total>(totals_ + other * total_size), length_of(other), time(other));
      }
    };
    Base base{};
    Part older{};
    Statistic::common(plan_, others, base, older);
    store_fields(base_, base);
    store_fields(newer_, Part{});
    std::size_t offset = length_of(part) - 1;
    store_fields(older_ + offset * part_size, older);
    if (is_filling) {
      for (double* cells = older_ + offset * part_size; cells != older_;) {
        cells -= tile_columns;
        store(cells, all(__builtin_nan("")));
      }
      return;
    }
    for (; offset > 0; --offset) {
      Statistic::prepend(plan_, base, older, row(part, offset), offset);
      store_fields(older_ + (offset - 1) * part_size, older);
    }
  }

  Part appended(std::size_t part, const Base& base, std::size_t end) const noexcept {
    Part newer{};
    for (std::size_t offset = 0; offset < end; ++offset) {
      Statistic::append(plan_, base, newer, row(part, offset), offset);
    }
    return newer;
  }

  void store_total(std::size_t part) const noexcept {
    Total total;
    if constexpr (newer_is_total) {
      total = appended(part, Base{}, length_of(part));
    } else {
      const auto rows = [this, part](std::size_t offset) { return row(part, offset); };
      total = Statistic::total(rows, length_of(part));
    }
    store_fields(totals_ + part * total_size, total);
  }

  const Plan& plan_;
  double* rows_;
  double* older_;
  double* totals_;
  double* newer_;
  double* base_;
};

template <class Statistic>
void advance(const Plan& plan, double* tile, std::size_t columns, std::size_t place,
             bool is_filling, const Rows* arguments, std::ptrdiff_t row_count, double* result,
             std::ptrdiff_t result_stride) noexcept {
  for (std::size_t column = 0; column < columns; column += lane_count) {
    Rows cells[Statistic::arguments];
    for (std::size_t a = 0; a < Statistic::arguments; ++a) {
      cells[a] = {arguments[a].first + column, arguments[a].stride};
    }
    Group<Statistic>(plan, tile + column)
        .advance(place, is_filling, cells, row_count, result + column, result_stride);
  }
}

template <class Statistic>
void rebuild(const Plan& plan, double* tile, std::size_t place) noexcept {
  for (std::size_t column = 0; column < tile_columns; column += lane_count) {
    Group<Statistic>(plan, tile + column).rebuild(place);
  }
}

template <class Statistic>
std::size_t tile_size(const Plan& plan) noexcept {
  constexpr std::size_t part = field_count<typename Statistic::Part>;
  constexpr std::size_t total = field_count<typename Statistic::Total>;
  return tile_columns * (plan.window * Statistic::arguments + plan.part_length * part +
                         plan.part_count * total + part + field_count<typename Statistic::Base>);
}

template <class Statistic>
inline constexpr TileLoops block_loops{Statistic::arguments, tile_size<Statistic>,
                                       advance<Statistic>, rebuild<Statistic>};

}  // namespace quernbrook::row_kernels::QUERNBROOK_INSTRUCTION_SET
