// Result::save_csv: a header line, then one line per item (RFC 4180, CRLF line ends).
#include <set>
#include <type_traits>

#include "result_export.hpp"

namespace korvalin_client::experiment {
namespace {

using namespace result_export;

// A field as RFC 4180 writes it: quoted, with quotes doubled, when it holds a comma, a quote,
// CR or LF; as it stands otherwise.
void append_field(std::string& out, std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
    out += text;
    return;
  }
  out += '"';
  for (const char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

// NaN and infinities as numpy, pandas and spreadsheets read them.
void append_real(std::string& out, double v) {
  if (std::isnan(v)) {
    out += "nan";
  } else if (std::isinf(v)) {
    out += v > 0 ? "inf" : "-inf";
  } else {
    append_finite_real(out, v);
  }
}

// "item_id", then each column's name; a complex column takes two fields, NAME.re and NAME.im.
// A header that would appear twice is a ValueError naming the column.
std::vector<std::string> header(const Result& result) {
  std::vector<std::string> names{"item_id"};
  std::set<std::string> seen{"item_id"};
  for (const auto& [name, column] : result.data()) {
    const bool complex = column.dtype() == DType::Complex128;
    for (std::string field : complex ? std::vector<std::string>{name + ".re", name + ".im"}
                                     : std::vector<std::string>{name}) {
      if (!seen.insert(field).second) {
        throw ValueError("column \"" + name + "\" cannot be written as CSV: the header \"" + field +
                         "\" would appear twice");
      }
      names.push_back(std::move(field));
    }
  }
  return names;
}

}  // namespace

void Result::save_csv(const std::string& path) const {
  const std::vector<std::string> names = header(*this);
  BufferedFile file(path);
  std::string& out = file.buffer();
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i > 0) out += ',';
    append_field(out, names[i]);
  }
  out += "\r\n";

  std::vector<ColumnCursor> cursors;
  cursors.reserve(data().size());
  for (const auto& [name, column] : data()) cursors.emplace_back(column);
  const auto append_value = [&out](const auto& v) {
    using T = std::decay_t<decltype(v)>;
    out += ',';
    if constexpr (std::is_same_v<T, std::int64_t>) {
      append_int(out, v);
    } else if constexpr (std::is_same_v<T, double>) {
      append_real(out, v);
    } else if constexpr (std::is_same_v<T, std::complex<double>>) {
      append_real(out, v.real());
      out += ',';
      append_real(out, v.imag());
    } else {
      append_field(out, v);
    }
  };
  ItemIds ids(*this);
  for (std::size_t item = 0; item < size(); ++item) {
    append_int(out, ids.next());
    for (auto& cursor : cursors) cursor.next(append_value);
    out += "\r\n";
    file.maybe_flush();
  }
  file.commit();
}

}  // namespace korvalin_client::experiment
