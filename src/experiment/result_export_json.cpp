// Result::save_json: one JSON document, written column by column:
//   {"attributes": {...},
//    "dtypes": {"I": "float64", ...},
//    "item_id": [0, 1, ...],
//    "columns": {"I": [...], ...}}
#include <algorithm>
#include <utility>

#include "result_export.hpp"

namespace korvalin_client::experiment {
namespace {

using namespace result_export;

// `text` as a JSON string. Bytes that are not UTF-8 become U+FFFD.
void append_string(std::string& out, std::string_view text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
    return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
  });
  if (plain) {
    out += '"';
    out += text;
    out += '"';
    return;
  }
  out += Value(std::string(text)).dump(-1, ' ', false, Value::error_handler_t::replace);
}

// JSON has no NaN or infinity: those are null.
void append_real(std::string& out, double v) {
  if (std::isfinite(v)) {
    append_finite_real(out, v);
  } else {
    out += "null";
  }
}

void append_value(std::string& out, std::int64_t v) { append_int(out, v); }
void append_value(std::string& out, double v) { append_real(out, v); }
void append_value(std::string& out, const std::complex<double>& v) {
  out += '[';
  append_real(out, v.real());
  out += ", ";
  append_real(out, v.imag());
  out += ']';
}
void append_value(std::string& out, const std::string& v) { append_string(out, v); }

}  // namespace

void Result::save_json(const std::string& path, const Value& attributes) const {
  check_attributes(attributes);
  BufferedFile file(path);
  std::string& out = file.buffer();
  out += "{\"attributes\": ";
  out += attributes.dump(-1, ' ', false, Value::error_handler_t::replace);
  out += ",\n \"dtypes\": {";
  bool first = true;
  for (const auto& [name, column] : data()) {
    if (!std::exchange(first, false)) out += ", ";
    append_string(out, name);
    out += ": \"";
    out += dtype_name(column.dtype());
    out += '"';
  }
  out += "},\n \"item_id\": [";
  ItemIds ids(*this);
  for (std::size_t item = 0; item < size(); ++item) {
    if (item > 0) out += ", ";
    append_int(out, ids.next());
    file.maybe_flush();
  }
  out += "],\n \"columns\": {";
  first = true;
  for (const auto& entry : data()) {
    const Column& column = entry.second;
    out += std::exchange(first, false) ? "\n  " : ",\n  ";
    append_string(out, entry.first);
    out += ": [";
    bool first_value = true;
    for_each_block(column, [&](auto block) {
      for (const auto& v : block) {
        if (!std::exchange(first_value, false)) out += ", ";
        append_value(out, v);
        file.maybe_flush();
      }
    });
    out += ']';
  }
  out += first ? "}}\n" : "\n }}\n";
  file.commit();
}

}  // namespace korvalin_client::experiment
