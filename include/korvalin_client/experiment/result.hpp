// Result: the items an experiment produced, as named columns, joined chunk by chunk.
//
// An experiment delivers its results as numbered chunks; each chunk covers a run of item ids
// and holds one value per item in every column. A Result is both such a chunk and the
// accumulator the client joins them into:
//
//   Result all;                             // strict: contiguous ids, same columns
//   for (auto& chunk : chunks) all.concatenate(std::move(chunk));
//   all.save_to_file(path);
//
// Columns are kept as lists of blocks, so joining costs time proportional to the chunk, never
// to what was joined before; a joined chunk's blocks (moved in, or kept by the caller) are
// shared rather than copied, except small ones, which are copied together into larger blocks.
// Results are stored in ".kvres" files (docs/result-format.md).
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::experiment {

enum class DType { Int64, Float64, Complex128, Text };

// The name of a dtype as written in files and messages: "int64", "float64", "complex128",
// "text".
const char* dtype_name(DType dtype);

// One named column's values, stored as a list of blocks.
class Column {
 public:
  // Column types: int64, float64, complex128 and text (UTF-8 by convention, bytes as given).
  Column(std::vector<std::int64_t> values);
  Column(std::vector<double> values);
  Column(std::vector<std::complex<double>> values);
  Column(std::vector<std::string> values);

  DType dtype() const;
  std::size_t size() const { return ends_.empty() ? 0 : ends_.back(); }
  bool empty() const { return size() == 0; }

  // Item `i` as a Value: an integer, a real, text, or [re, im] for a complex value.
  // A ValueError when `i` is out of range.
  Value value(std::size_t i) const;

  // All values in one vector. T is the column's own type, or a numeric widening of it
  // (int64 -> double, int64 or double -> std::complex<double>); anything else is a TypeError.
  // Defined for std::int64_t, double, std::complex<double> and std::string.
  template <class T>
  std::vector<T> to_vector() const;

  // The blocks, for iteration without copying. T must be the column's own type (TypeError
  // otherwise); `b` out of range is a ValueError. No block is empty.
  std::size_t block_count() const { return ends_.size(); }
  template <class T>
  std::span<const T> block(std::size_t b) const;
  // Block `b` itself, shared: it stays alive, and unchanged, for as long as the pointer is
  // held, since a join never writes into a block held elsewhere. For handing the data to
  // another runtime without copying it (the Python binding's NumPy arrays). The same
  // errors as block().
  template <class T>
  std::shared_ptr<const std::vector<T>> shared_block(std::size_t b) const;

 private:
  friend class Result;
  friend struct ColumnOps;
  friend struct ResultEncoder;
  friend struct ResultDecoder;

  // A block may be held by several Results (a copy, a chunk joined by copy and the result it
  // joined) and is never written while it is: a join writes only into a last block that its
  // column alone holds. Joining or copying therefore shares blocks instead of copying bytes.
  template <class T>
  using Block = std::shared_ptr<std::vector<T>>;
  template <class T>
  using Blocks = std::vector<Block<T>>;
  using Storage = std::variant<Blocks<std::int64_t>, Blocks<double>, Blocks<std::complex<double>>,
                               Blocks<std::string>>;

  Column() = default;

  Storage blocks_;
  std::vector<std::size_t> ends_;  // ends_[b]: items in blocks 0..b
};

extern template std::vector<std::int64_t> Column::to_vector<std::int64_t>() const;
extern template std::vector<double> Column::to_vector<double>() const;
extern template std::vector<std::complex<double>> Column::to_vector<std::complex<double>>() const;
extern template std::vector<std::string> Column::to_vector<std::string>() const;
extern template std::span<const std::int64_t> Column::block<std::int64_t>(std::size_t) const;
extern template std::span<const double> Column::block<double>(std::size_t) const;
extern template std::span<const std::complex<double>> Column::block<std::complex<double>>(
    std::size_t) const;
extern template std::span<const std::string> Column::block<std::string>(std::size_t) const;
extern template std::shared_ptr<const std::vector<std::int64_t>>
Column::shared_block<std::int64_t>(std::size_t) const;
extern template std::shared_ptr<const std::vector<double>> Column::shared_block<double>(
    std::size_t) const;
extern template std::shared_ptr<const std::vector<std::complex<double>>>
Column::shared_block<std::complex<double>>(std::size_t) const;
extern template std::shared_ptr<const std::vector<std::string>>
Column::shared_block<std::string>(std::size_t) const;

class Result {
 public:
  // A strict accumulator: the same as Result(true, true).
  Result();
  // `contiguous`: each chunk must start right after the last item joined so far; otherwise
  // gaps are allowed (each starts a new segment) but ids must still increase.
  // `same_columns`: each chunk must have the columns the result has; otherwise the columns
  // are united and a column missing on one side is filled (NaN for numbers, "" for text).
  Result(bool contiguous, bool same_columns);

  // A chunk of items item_id_start, item_id_start + 1, ... Columns must have equal lengths
  // and unique names, and item_id_start must be >= 0 (ValueError otherwise). The result is a
  // strict accumulator.
  static Result from_columns(std::int64_t item_id_start,
                             std::vector<std::pair<std::string, Column>> columns);

  // The first item id (0 for an empty result) and the last (-1 for an empty result, so that
  // a first chunk starting at 0 continues it).
  std::int64_t item_id_start() const;
  std::int64_t item_id_end() const;
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // Column names in order; empty when there are no columns.
  std::vector<std::string> keys() const;
  bool contains(std::string_view key) const;
  // A KeyError naming the key when there is no such column.
  const Column& operator[](std::string_view key) const;
  const std::vector<std::pair<std::string, Column>>& data() const { return columns_; }

  // (first item id, count) of each contiguous run of ids, in increasing order.
  const std::vector<std::pair<std::int64_t, std::int64_t>>& segments() const { return segments_; }
  // Every item id, in order.
  std::vector<std::int64_t> item_ids() const;

  bool contiguous() const { return contiguous_; }
  bool same_columns() const { return same_columns_; }

  // Joins `chunk` after the items already here, in place. An empty chunk changes nothing.
  // Out-of-order ids are a RuntimeError starting "exp_res_order_wrong: "; different columns
  // (with same_columns) a ValueError; text against numbers a TypeError naming the column.
  // Numbers are widened as needed (int64 -> float64 -> complex128) on either side.
  // Nothing is changed when the chunk is refused.
  Result& concatenate(Result&& chunk);
  Result& concatenate(const Result& chunk);

  // Writes the result as a ".kvres" file, atomically. A RuntimeError naming the file on
  // failure.
  void save_to_file(const std::string& path) const;
  // Reads a ".kvres" file into a strict accumulator. A file that is not a complete, valid
  // result file is a RuntimeError naming the file and saying what is wrong.
  static Result load_from_file(const std::string& path);

  // Exports for other tools (docs/reading-results.md has the layouts). Each file is written
  // atomically and streamed block by block; a failure is a RuntimeError naming the file.
  // `attributes` (a mapping, else a TypeError naming it) describes the result, e.g. {"title",
  // "exp_id", "status", "sweep"}.
  //
  // CSV (RFC 4180): a header "item_id" and one field per column (a complex column as two,
  // "NAME.re" and "NAME.im"), then a line per item. Reals in their shortest exact form, NaN and
  // infinities as "nan", "inf", "-inf". A header field that would appear twice is a
  // ValueError naming the column.
  void save_csv(const std::string& path) const;
  // JSON: {"attributes": {...}, "dtypes": {NAME: dtype}, "item_id": [...],
  // "columns": {NAME: [...]}}. Complex values are [re, im]; NaN and infinities are null.
  void save_json(const std::string& path, const Value& attributes = Value::object()) const;
  // HDF5: a dataset "item_id" and one per column, at the column's name read as a path ("I",
  // "/q0/drive/amp" in groups "q0" and "drive"); complex as a compound {"r", "i"}, text as
  // variable-length UTF-8. A name that is not a path of its own (an empty, "." or ".." part,
  // the place of another dataset or group, "item_id") or text holding a NUL byte is a
  // ValueError naming the column. Attributes go on the root group: text, integers, reals and
  // booleans as scalars of their type, lists, mappings and null as JSON text (an empty name,
  // or a NUL byte in a name or text, is a ValueError naming the attribute).
  void save_hdf5(const std::string& path, const Value& attributes = Value::object()) const;

  // The same format in memory; `name` stands for the data in error messages.
  Bytes to_bytes() const;
  static Result from_bytes(std::span<const std::uint8_t> data, std::string_view name = "<bytes>");

 private:
  friend struct ResultEncoder;
  friend struct ResultDecoder;

  template <class Chunk>
  Result& join(Chunk&& chunk);
  void check_order(const Result& chunk) const;
  void check_columns(const Result& chunk) const;
  void add_segments(const std::vector<std::pair<std::int64_t, std::int64_t>>& runs);
  Column* find(std::string_view key);
  const Column* find(std::string_view key) const;

  bool contiguous_ = true;
  bool same_columns_ = true;
  std::size_t size_ = 0;
  std::vector<std::pair<std::string, Column>> columns_;
  std::map<std::string, std::size_t, std::less<>> index_;  // name -> position in columns_
  std::vector<std::pair<std::int64_t, std::int64_t>> segments_;
};

}  // namespace korvalin_client::experiment
