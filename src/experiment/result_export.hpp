// What the CSV, JSON and HDF5 writers of a Result share: number spellings, the walk over a
// column's blocks and over the item ids, buffered output to an atomic file, and the check of
// the attributes argument.
#pragma once

#include <charconv>
#include <cmath>
#include <complex>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::experiment::result_export {

// `attributes` must be a mapping of bounded depth: a TypeError or ValueError naming it.
inline void check_attributes(const Value& attributes) {
  if (!attributes.is_object()) {
    throw TypeError(std::string("attributes must be a mapping, not ") + kind_name(attributes));
  }
  check_depth(attributes, "attributes");
}

inline void append_int(std::string& out, std::int64_t v) {
  char buf[24];
  const auto end = std::to_chars(buf, buf + sizeof buf, v).ptr;
  out.append(buf, end);
}

// The shortest text that reads back as exactly `v`, always recognisable as a real ("1.0",
// "-0.0", "1e+300"). Not for NaN or infinities.
inline void append_finite_real(std::string& out, double v) {
  char buf[40];
  const auto end = std::to_chars(buf, buf + sizeof buf, v).ptr;
  out.append(buf, end);
  if (std::string_view(buf, static_cast<std::size_t>(end - buf)).find_first_of(".e") ==
      std::string_view::npos) {
    out += ".0";
  }
}

// Calls `f` with each of the column's blocks in order, as a std::span of the column's own
// type (std::int64_t, double, std::complex<double> or std::string).
template <class F>
void for_each_block(const Column& column, F&& f) {
  for (std::size_t b = 0; b < column.block_count(); ++b) {
    switch (column.dtype()) {
      case DType::Int64:
        f(column.block<std::int64_t>(b));
        break;
      case DType::Float64:
        f(column.block<double>(b));
        break;
      case DType::Complex128:
        f(column.block<std::complex<double>>(b));
        break;
      case DType::Text:
        f(column.block<std::string>(b));
        break;
    }
  }
}

// Yields the column's values in item order, one at a time, across its blocks.
class ColumnCursor {
 public:
  explicit ColumnCursor(const Column& column) : column_(column) {}

  // Calls `f` with the next value (std::int64_t, double, std::complex<double> or
  // std::string). Only as many times as the column has values.
  template <class F>
  void next(F&& f) {
    switch (column_.dtype()) {
      case DType::Int64:
        return f(take<std::int64_t>());
      case DType::Float64:
        return f(take<double>());
      case DType::Complex128:
        return f(take<std::complex<double>>());
      case DType::Text:
        return f(take<std::string>());
    }
  }

 private:
  template <class T>
  const T& take() {
    auto* span = std::get_if<std::span<const T>>(&block_);
    if (span == nullptr || pos_ == span->size()) {
      block_ = column_.block<T>(next_block_++);
      span = std::get_if<std::span<const T>>(&block_);
      pos_ = 0;
    }
    return (*span)[pos_++];
  }

  const Column& column_;
  std::variant<std::monostate, std::span<const std::int64_t>, std::span<const double>,
               std::span<const std::complex<double>>, std::span<const std::string>>
      block_;
  std::size_t next_block_ = 0;
  std::size_t pos_ = 0;
};

// Yields a result's item ids in order, walking its segments.
class ItemIds {
 public:
  explicit ItemIds(const Result& result) : segments_(result.segments()) {}

  std::int64_t next() {
    while (done_ == segments_[segment_].second) {
      ++segment_;
      done_ = 0;
    }
    return segments_[segment_].first + done_++;
  }

 private:
  const std::vector<std::pair<std::int64_t, std::int64_t>>& segments_;
  std::size_t segment_ = 0;
  std::int64_t done_ = 0;
};

// Text gathered into a buffer and handed to an atomic file in pieces of about 1 MiB, so that
// output is streamed without a system call per value.
class BufferedFile {
 public:
  explicit BufferedFile(const std::string& path) : file_(path) { buf_.reserve(kFlushAt + 4096); }

  // Appends to this, then calls maybe_flush().
  std::string& buffer() { return buf_; }
  void maybe_flush() {
    if (buf_.size() >= kFlushAt) flush();
  }
  void commit() {
    flush();
    file_.commit();
  }

 private:
  static constexpr std::size_t kFlushAt = std::size_t{1} << 20;

  void flush() {
    file_.write(buf_);
    buf_.clear();
  }

  utils::AtomicFile file_;
  std::string buf_;
};

}  // namespace korvalin_client::experiment::result_export
