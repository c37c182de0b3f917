// What the commands print on standard output: one JSON document (--json), or aligned tables
// and "name: value" fields for a reader. Everything from the service is shown safely: control
// characters never reach the terminal and text that is not UTF-8 never breaks the JSON.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_app {

using korvalin_client::Value;

// `value` as one JSON document (indented, then a line break) on standard output. Bytes that are
// not UTF-8 are shown as U+FFFD.
void print_json(const Value& value);

// The text of a value in a table cell: text as it stands, null empty, anything else as
// compact JSON; line breaks and tabs become blanks and other control characters "?".
std::string cell(const Value& value);
// A time in seconds since the epoch (integer or real) as local "%Y-%m-%d %H:%M:%S"; anything
// else as cell() shows it.
std::string time_cell(const Value& seconds);

// Rows under headers, each column as wide as its widest cell; "(none)" when there are no rows.
class Table {
 public:
  explicit Table(std::vector<std::string> headers) : headers_(std::move(headers)) {}
  // A row of as many cells as there are headers (missing cells are empty).
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  bool empty() const { return rows_.empty(); }
  void print() const;

 private:
  std::vector<std::string> headers_;
  std::vector<std::vector<std::string>> rows_;
};

// "name:  value" lines with the values aligned.
using Fields = std::vector<std::pair<std::string, std::string>>;
void print_fields(const Fields& fields);

// "page P of N (T in all)" under a listing of `total` entries shown `per_page` at a time.
void print_page_line(std::int64_t page, std::int64_t per_page, const Value& total);

// An experiment's progress ({"done", "total"}, or the same as JSON text) as "done/total";
// empty when it has none.
std::string progress_cell(const Value& progress);

}  // namespace korvalin_app
