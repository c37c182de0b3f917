#include "korvalin_client/experiment/result.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <deque>
#include <iterator>
#include <limits>
#include <optional>
#include <set>
#include <type_traits>

#include "korvalin_client/languages.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "../utils/huge_pages.hpp"

namespace korvalin_client::experiment {
namespace {

using Complex = std::complex<double>;
using Segments = std::vector<std::pair<std::int64_t, std::int64_t>>;

// A joined block of fewer items than kShareItems is copied into the column's own blocks; a
// larger one is shared. Copies go into blocks reserved as large as the column already is (at
// least kBlockItems items, at most kMaxCopyBlockBytes), so that joining n small chunks makes
// O(log n) allocations plus one per 64 MiB and never reallocates a block.
constexpr std::size_t kShareItems = std::size_t{1} << 12;
constexpr std::size_t kBlockItems = std::size_t{1} << 16;
constexpr std::size_t kMaxCopyBlockBytes = std::size_t{64} << 20;

template <class T>
constexpr DType dtype_of() {
  if constexpr (std::is_same_v<T, std::int64_t>) return DType::Int64;
  if constexpr (std::is_same_v<T, double>) return DType::Float64;
  if constexpr (std::is_same_v<T, Complex>) return DType::Complex128;
  if constexpr (std::is_same_v<T, std::string>) return DType::Text;
}

// Whether values of type S may be read as T: the same type or a numeric widening.
template <class S, class T>
constexpr bool readable_as() {
  if constexpr (std::is_same_v<S, T>) return true;
  if constexpr (std::is_same_v<S, std::string> || std::is_same_v<T, std::string>) return false;
  return static_cast<int>(dtype_of<S>()) < static_cast<int>(dtype_of<T>());
}

bool is_numeric(DType d) { return d != DType::Text; }

// The type both of two numeric dtypes widen to (the enum lists them narrowest first).
DType wider(DType a, DType b) { return static_cast<int>(a) < static_cast<int>(b) ? b : a; }

std::string in_quotes(std::string_view s) { return "\"" + std::string(s) + "\""; }

}  // namespace

const char* dtype_name(DType dtype) {
  switch (dtype) {
    case DType::Int64:
      return "int64";
    case DType::Float64:
      return "float64";
    case DType::Complex128:
      return "complex128";
    case DType::Text:
      return "text";
  }
  return "unknown";
}

// ---------------------------------------------------------------------------------------------
// Column

// The mutations Result needs while joining; every function keeps ends_ in step with the blocks.
struct ColumnOps {
  template <class T>
  using Block = Column::Block<T>;

  template <class T>
  static Column::Blocks<T>& blocks(Column& c) {
    return std::get<Column::Blocks<T>>(c.blocks_);
  }

  // Makes sure one more block end fits without reallocating, so that a new block and its end
  // are added together or not at all. Grows geometrically like push_back.
  static void make_room(std::vector<std::size_t>& ends) {
    if (ends.size() == ends.capacity()) ends.reserve(2 * ends.size() + 4);
  }

  // The last block when this column alone holds it and it has room for `n` more items without
  // reallocating (spans over it stay valid); else null. A block held elsewhere too is never
  // written.
  template <class T>
  static std::vector<T>* writable_last(Column::Blocks<T>& bl, std::size_t n) {
    if (bl.empty() || bl.back().use_count() != 1) return nullptr;
#if !defined(__SANITIZE_THREAD__)  // ThreadSanitizer does not model fences (GCC refuses them)
    // Pairs with the release of the other holders' references: their reads are done.
    std::atomic_thread_fence(std::memory_order_acquire);
#endif
    std::vector<T>& last = *bl.back();
    return last.capacity() - last.size() >= n ? &last : nullptr;
  }

  template <class T>
  static void push_block(Column& c, Block<T> block) {
    const std::size_t end = c.size() + block->size();
    make_room(c.ends_);
    blocks<T>(c).push_back(std::move(block));
    c.ends_.push_back(end);
  }

  // An empty column of the given dtype.
  static Column make(DType dtype) {
    Column c;
    switch (dtype) {
      case DType::Int64:
        c.blocks_.emplace<Column::Blocks<std::int64_t>>();
        break;
      case DType::Float64:
        c.blocks_.emplace<Column::Blocks<double>>();
        break;
      case DType::Complex128:
        c.blocks_.emplace<Column::Blocks<Complex>>();
        break;
      case DType::Text:
        c.blocks_.emplace<Column::Blocks<std::string>>();
        break;
    }
    return c;
  }

  // Appends copies of `src`, converted to T, into the last block when it has room for them,
  // else into a new block reserved with room for chunks to come.
  template <class T, class S>
  static void append_copy(Column& c, std::span<const S> src) {
    if (src.empty()) return;
    if (std::vector<T>* last = writable_last(blocks<T>(c), src.size())) {
      last->insert(last->end(), src.begin(), src.end());
      c.ends_.back() += src.size();
      return;
    }
    const std::size_t room =
        std::max(src.size(), std::clamp(c.size(), kBlockItems, kMaxCopyBlockBytes / sizeof(T)));
    auto block = std::make_shared<std::vector<T>>();
    block->reserve(room);
    if constexpr (std::is_trivially_copyable_v<T>) utils::advise_huge_pages(block->data(), room * sizeof(T));
    block->insert(block->end(), src.begin(), src.end());
    push_block<T>(c, std::move(block));
  }

  // Appends a block of the column's own type: shared when it is large enough to be a block
  // of its own, copied into the column's blocks when it is small.
  template <class T>
  static void append_block(Column& c, Block<T> block) {
    if (block->empty()) return;
    if (block->size() < kShareItems) return append_copy<T, T>(c, std::span<const T>(*block));
    push_block<T>(c, std::move(block));
  }

  template <class T>
  static void append_fill(Column& c, std::size_t n, const T& value) {
    if (n == 0) return;
    if (std::vector<T>* last = writable_last(blocks<T>(c), n)) {
      last->insert(last->end(), n, value);
      c.ends_.back() += n;
      return;
    }
    push_block<T>(c, std::make_shared<std::vector<T>>(n, value));
  }

  // Fills `n` missing items: NaN for numbers, "" for text. The column must already be of a
  // type that holds NaN (see fill_type).
  static void fill_missing(Column& c, std::size_t n) {
    switch (c.dtype()) {
      case DType::Float64:
        append_fill<double>(c, n, std::numeric_limits<double>::quiet_NaN());
        break;
      case DType::Complex128: {
        const double nan = std::numeric_limits<double>::quiet_NaN();
        append_fill<Complex>(c, n, Complex(nan, nan));
        break;
      }
      case DType::Text:
        append_fill<std::string>(c, n, std::string());
        break;
      case DType::Int64:
        throw std::logic_error("an int64 column cannot hold missing items");
    }
  }

  // The dtype a column of `dtype` becomes when some of its items are missing.
  static DType fill_type(DType dtype) { return dtype == DType::Int64 ? DType::Float64 : dtype; }

  // Converts every block of a numeric column to T, one block at a time, so that the extra
  // memory needed is one block's worth (blocks held elsewhere too stay where they are).
  template <class T, class S>
  static void widen_blocks(Column& c) {
    auto& old = blocks<S>(c);
    Column::Blocks<T> out;
    out.reserve(old.size());
    for (auto& b : old) {
      out.push_back(std::make_shared<std::vector<T>>(b->begin(), b->end()));
      b.reset();
    }
    c.blocks_ = std::move(out);
  }

  // Widens a numeric column to `target` (nothing when it already is of that dtype).
  static void widen(Column& c, DType target) {
    const DType from = c.dtype();
    if (from == target) return;
    if (from == DType::Int64 && target == DType::Float64)
      return widen_blocks<double, std::int64_t>(c);
    if (from == DType::Int64 && target == DType::Complex128)
      return widen_blocks<Complex, std::int64_t>(c);
    if (from == DType::Float64 && target == DType::Complex128)
      return widen_blocks<Complex, double>(c);
    throw std::logic_error("cannot widen a column from " + std::string(dtype_name(from)) + " to " +
                           dtype_name(target));
  }

  // Appends the items of `src` to `dst`, whose dtype is src's or wider. Blocks of dst's type
  // are shared (a movable source gives them up); others are converted.
  template <class Src>
  static void append(Column& dst, Src&& src) {
    constexpr bool movable = !std::is_lvalue_reference_v<Src>;
    std::visit(
        [&](auto& dst_blocks) {
          using T = typename std::decay_t<decltype(dst_blocks)>::value_type::element_type::value_type;
          std::visit(
              [&](auto& src_blocks) {
                using S =
                    typename std::decay_t<decltype(src_blocks)>::value_type::element_type::value_type;
                if constexpr (readable_as<S, T>()) {
                  for (auto& b : src_blocks) {
                    if constexpr (std::is_same_v<S, T>) {
                      if constexpr (movable) {
                        append_block<T>(dst, std::move(b));
                      } else {
                        append_block<T>(dst, b);
                      }
                    } else {
                      append_copy<T, S>(dst, std::span<const S>(*b));
                      if constexpr (movable) b.reset();
                    }
                  }
                } else {
                  throw std::logic_error("cannot append a " +
                                         std::string(dtype_name(dtype_of<S>())) + " column to a " +
                                         dtype_name(dtype_of<T>()) + " column");
                }
              },
              src.blocks_);
        },
        dst.blocks_);
    if constexpr (movable) src.ends_.clear();
  }

  // A column's first values, taken over as one block.
  template <class T>
  static void adopt(Column& c, std::vector<T>&& values) {
    c.blocks_.template emplace<Column::Blocks<T>>();
    if (!values.empty()) push_block<T>(c, std::make_shared<std::vector<T>>(std::move(values)));
  }
};

Column::Column(std::vector<std::int64_t> values) { ColumnOps::adopt(*this, std::move(values)); }

Column::Column(std::vector<double> values) { ColumnOps::adopt(*this, std::move(values)); }

Column::Column(std::vector<std::complex<double>> values) {
  ColumnOps::adopt(*this, std::move(values));
}

Column::Column(std::vector<std::string> values) { ColumnOps::adopt(*this, std::move(values)); }

DType Column::dtype() const { return static_cast<DType>(blocks_.index()); }

Value Column::value(std::size_t i) const {
  if (i >= size()) {
    throw ValueError("index " + std::to_string(i) + " is out of range for a column of " +
                     std::to_string(size()) + " items");
  }
  const std::size_t b =
      static_cast<std::size_t>(std::upper_bound(ends_.begin(), ends_.end(), i) - ends_.begin());
  const std::size_t at = i - (b == 0 ? 0 : ends_[b - 1]);
  return std::visit(
      [&](const auto& bl) -> Value {
        const auto& v = (*bl[b])[at];
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, Complex>) {
          return Value::array({v.real(), v.imag()});
        } else {
          return Value(v);
        }
      },
      blocks_);
}

template <class T>
std::vector<T> Column::to_vector() const {
  return std::visit(
      [&](const auto& bl) -> std::vector<T> {
        using S = typename std::decay_t<decltype(bl)>::value_type::element_type::value_type;
        if constexpr (readable_as<S, T>()) {
          std::vector<T> out;
          out.reserve(size());
          for (const auto& b : bl) out.insert(out.end(), b->begin(), b->end());
          return out;
        } else {
          throw TypeError("cannot read a " + std::string(dtype_name(dtype_of<S>())) +
                          " column as " + dtype_name(dtype_of<T>()) + " values");
        }
      },
      blocks_);
}

template <class T>
std::span<const T> Column::block(std::size_t b) const {
  return *shared_block<T>(b);
}

template <class T>
std::shared_ptr<const std::vector<T>> Column::shared_block(std::size_t b) const {
  const auto* bl = std::get_if<Blocks<T>>(&blocks_);
  if (bl == nullptr) {
    throw TypeError("cannot read the blocks of a " + std::string(dtype_name(dtype())) +
                    " column as " + dtype_name(dtype_of<T>()) + " values");
  }
  if (b >= bl->size()) {
    throw ValueError("block " + std::to_string(b) + " is out of range for a column of " +
                     std::to_string(bl->size()) + " blocks");
  }
  return (*bl)[b];
}

template std::vector<std::int64_t> Column::to_vector<std::int64_t>() const;
template std::vector<double> Column::to_vector<double>() const;
template std::vector<Complex> Column::to_vector<Complex>() const;
template std::vector<std::string> Column::to_vector<std::string>() const;
template std::span<const std::int64_t> Column::block<std::int64_t>(std::size_t) const;
template std::span<const double> Column::block<double>(std::size_t) const;
template std::span<const Complex> Column::block<Complex>(std::size_t) const;
template std::span<const std::string> Column::block<std::string>(std::size_t) const;
template std::shared_ptr<const std::vector<std::int64_t>> Column::shared_block<std::int64_t>(
    std::size_t) const;
template std::shared_ptr<const std::vector<double>> Column::shared_block<double>(
    std::size_t) const;
template std::shared_ptr<const std::vector<Complex>> Column::shared_block<Complex>(
    std::size_t) const;
template std::shared_ptr<const std::vector<std::string>> Column::shared_block<std::string>(
    std::size_t) const;

// ---------------------------------------------------------------------------------------------
// Result: joining

Result::Result() = default;

Result::Result(bool contiguous, bool same_columns)
    : contiguous_(contiguous), same_columns_(same_columns) {}

Result Result::from_columns(std::int64_t item_id_start,
                            std::vector<std::pair<std::string, Column>> columns) {
  if (item_id_start < 0) {
    throw ValueError("item ids start at 0, not at " + std::to_string(item_id_start));
  }
  Result r;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    const auto& [name, column] = columns[i];
    if (!r.index_.emplace(name, i).second) {
      throw ValueError("column " + in_quotes(name) + " appears more than once");
    }
    if (column.size() != columns.front().second.size()) {
      throw ValueError("column " + in_quotes(name) + " has " + std::to_string(column.size()) +
                       " items but column " + in_quotes(columns.front().first) + " has " +
                       std::to_string(columns.front().second.size()));
    }
  }
  const std::size_t n = columns.empty() ? 0 : columns.front().second.size();
  const auto max_id = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (n > max_id - static_cast<std::uint64_t>(item_id_start)) {
    throw ValueError(std::to_string(n) + " items starting at " + std::to_string(item_id_start) +
                     " run past the largest item id");
  }
  r.columns_ = std::move(columns);
  r.size_ = n;
  if (n > 0) r.segments_.emplace_back(item_id_start, static_cast<std::int64_t>(n));
  return r;
}

std::int64_t Result::item_id_start() const {
  return segments_.empty() ? 0 : segments_.front().first;
}

std::int64_t Result::item_id_end() const {
  return segments_.empty() ? -1 : segments_.back().first + (segments_.back().second - 1);
}

std::vector<std::string> Result::keys() const {
  std::vector<std::string> out;
  out.reserve(columns_.size());
  for (const auto& [name, column] : columns_) out.push_back(name);
  return out;
}

bool Result::contains(std::string_view key) const { return find(key) != nullptr; }

const Column* Result::find(std::string_view key) const {
  const auto it = index_.find(key);
  return it == index_.end() ? nullptr : &columns_[it->second].second;
}

Column* Result::find(std::string_view key) {
  const auto it = index_.find(key);
  return it == index_.end() ? nullptr : &columns_[it->second].second;
}

const Column& Result::operator[](std::string_view key) const {
  const Column* c = find(key);
  if (c == nullptr) throw KeyError("no column " + in_quotes(key) + " in the result");
  return *c;
}

std::vector<std::int64_t> Result::item_ids() const {
  std::vector<std::int64_t> out;
  out.reserve(size_);
  for (const auto& [start, count] : segments_) {
    for (std::int64_t k = 0; k < count; ++k) out.push_back(start + k);
  }
  return out;
}

void Result::check_order(const Result& chunk) const {
  const std::int64_t end = item_id_end();
  const std::int64_t start = chunk.item_id_start();
  // start >= 0 and end >= -1, so neither comparison can overflow.
  const bool ok = contiguous_ ? start - 1 == end : start > end;
  if (ok) return;
  const std::string expected = std::to_string(static_cast<std::uint64_t>(end) + 1);
  throw RuntimeError("exp_res_order_wrong: " +
                     languages::format(languages::lang.msg("exp_res_order_wrong"),
                                       {std::to_string(end), expected, std::to_string(start)}));
}

void Result::check_columns(const Result& chunk) const {
  if (same_columns_ && !columns_.empty()) {
    std::string missing;
    std::string extra;
    for (const auto& [name, column] : columns_) {
      if (chunk.find(name) == nullptr) missing += (missing.empty() ? "" : ", ") + in_quotes(name);
    }
    for (const auto& [name, column] : chunk.columns_) {
      if (find(name) == nullptr) extra += (extra.empty() ? "" : ", ") + in_quotes(name);
    }
    if (!missing.empty() || !extra.empty()) {
      std::string what = "the chunk's columns differ from the result's:";
      if (!missing.empty()) what += " missing " + missing + (extra.empty() ? "" : ";");
      if (!extra.empty()) what += " extra " + extra;
      throw ValueError(what);
    }
  }
  for (const auto& [name, column] : chunk.columns_) {
    const Column* mine = find(name);
    if (mine != nullptr && is_numeric(mine->dtype()) != is_numeric(column.dtype())) {
      throw TypeError("column " + in_quotes(name) + ": cannot join " + dtype_name(column.dtype()) +
                      " values to " + dtype_name(mine->dtype()) + " values");
    }
  }
}

void Result::add_segments(const Segments& runs) {
  for (const auto& run : runs) {
    if (!segments_.empty() && segments_.back().first + segments_.back().second == run.first) {
      segments_.back().second += run.second;
    } else {
      segments_.push_back(run);
    }
  }
}

template <class Chunk>
Result& Result::join(Chunk&& chunk) {
  constexpr bool movable = !std::is_lvalue_reference_v<Chunk>;
  if (chunk.empty()) return *this;
  check_order(chunk);
  check_columns(chunk);

  const std::size_t before = size_;
  const std::size_t added = chunk.size_;
  const std::size_t own_columns = columns_.size();
  for (std::size_t i = 0; i < own_columns; ++i) {
    Column& mine = columns_[i].second;
    auto* theirs = chunk.find(columns_[i].first);
    if (theirs == nullptr) {
      ColumnOps::widen(mine, ColumnOps::fill_type(mine.dtype()));
      ColumnOps::fill_missing(mine, added);
      continue;
    }
    if (is_numeric(mine.dtype())) ColumnOps::widen(mine, wider(mine.dtype(), theirs->dtype()));
    if constexpr (movable) {
      ColumnOps::append(mine, std::move(*theirs));
    } else {
      ColumnOps::append(mine, std::as_const(*theirs));
    }
  }
  for (auto& [name, theirs] : chunk.columns_) {
    if (index_.contains(name)) continue;
    if (before == 0) {
      if constexpr (movable) {
        columns_.emplace_back(name, std::move(theirs));
      } else {
        columns_.emplace_back(name, theirs);
      }
    } else {
      Column column = ColumnOps::make(ColumnOps::fill_type(theirs.dtype()));
      ColumnOps::fill_missing(column, before);
      if constexpr (movable) {
        ColumnOps::append(column, std::move(theirs));
      } else {
        ColumnOps::append(column, std::as_const(theirs));
      }
      columns_.emplace_back(name, std::move(column));
    }
    index_.emplace(name, columns_.size() - 1);
  }
  add_segments(chunk.segments_);
  size_ += added;
  if constexpr (movable) chunk = Result(chunk.contiguous_, chunk.same_columns_);
  return *this;
}

Result& Result::concatenate(Result&& chunk) { return join(std::move(chunk)); }

Result& Result::concatenate(const Result& chunk) { return join(chunk); }

}  // namespace korvalin_client::experiment
