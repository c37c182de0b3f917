// Tables, fields and JSON on standard output.
#include "output.hpp"

#include <algorithm>
#include <cmath>
#include <iostream>

#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;

// Characters on screen: UTF-8 continuation bytes take no column of their own.
std::size_t width(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

void pad(std::string& line, const std::string& text, std::size_t to) {
  line += text;
  line.append(to - std::min(to, width(text)), ' ');
}

}  // namespace

void print_json(const Value& value) {
  std::cout << value.dump(2, ' ', false, Value::error_handler_t::replace) << "\n";
}

std::string cell(const Value& value) {
  std::string text;
  if (value.is_null()) return text;
  text = value.is_string() ? value.get<std::string>()
                           : value.dump(-1, ' ', false, Value::error_handler_t::replace);
  for (char& c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '\n' || c == '\r' || c == '\t') {
      c = ' ';
    } else if (u < 0x20 || u == 0x7F) {
      c = '?';
    }
  }
  return text;
}

std::string time_cell(const Value& seconds) {
  if (seconds.is_number() && std::isfinite(seconds.get<double>())) {
    return kc::utils::local_datetime(static_cast<std::int64_t>(seconds.get<double>()));
  }
  return cell(seconds);
}

void Table::print() const {
  if (rows_.empty()) {
    std::cout << "(none)\n";
    return;
  }
  std::vector<std::size_t> widths;
  for (const auto& h : headers_) widths.push_back(width(h));
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < std::min(row.size(), widths.size()); ++i) {
      widths[i] = std::max(widths[i], width(row[i]));
    }
  }
  auto print_row = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (std::size_t i = 0; i < widths.size(); ++i) {
      const std::string& text = i < cells.size() ? cells[i] : std::string();
      pad(line, text, i + 1 == widths.size() ? 0 : widths[i] + 2);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::cout << line << "\n";
  };
  print_row(headers_);
  for (const auto& row : rows_) print_row(row);
}

void print_fields(const Fields& fields) {
  std::size_t name_width = 0;
  for (const auto& [name, value] : fields) name_width = std::max(name_width, width(name) + 1);
  for (const auto& [name, value] : fields) {
    std::string line;
    pad(line, name + ":", name_width + 2);
    std::cout << line << value << "\n";
  }
}

void print_page_line(std::int64_t page, std::int64_t per_page, const Value& total) {
  if (!total.is_number_integer()) return;
  const std::int64_t all = total.get<std::int64_t>();
  const std::int64_t pages = std::max<std::int64_t>(1, (all + per_page - 1) / per_page);
  std::cout << "page " << page << " of " << pages << " (" << all << " in all)\n";
}

std::string progress_cell(const Value& progress) {
  Value p = progress;
  if (p.is_string()) {
    try {
      p = kc::utils::json_loads(p.get<std::string>());
    } catch (const std::exception&) {
      return cell(progress);
    }
  }
  if (!p.is_object() || !p.contains("done")) return cell(p);
  return cell(p["done"]) + "/" + cell(kc::get_key(p, "total", "?"));
}

}  // namespace korvalin_app
