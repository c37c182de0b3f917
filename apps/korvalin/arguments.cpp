// Reading KEY=VALUE, sweeps, comma lists and definition files.
#include "arguments.hpp"

#include <charconv>
#include <cmath>
#include <filesystem>
#include <string_view>

#include "cli.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/space_cache.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;
using kc::Value;

std::string in_quotes(std::string_view text) { return "\"" + std::string(text) + "\""; }

std::string trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(" \t") - first + 1));
}

// KEY and the text after "=" of "KEY=..."; `what` names the argument in the error.
std::pair<std::string, std::string> split_key(const std::string& text, const std::string& what,
                                              const char* form) {
  const auto eq = text.find('=');
  if (eq == std::string::npos || eq == 0) {
    throw UsageError(what + in_quotes(text) + " is not of the form " + form);
  }
  return {kc::utils::normalize_key(text.substr(0, eq)), text.substr(eq + 1)};
}

template <class Number>
bool read_number(std::string_view text, Number& out) {
  const char* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, out);
  return ec == std::errc() && ptr == end;
}

}  // namespace

std::pair<std::string, Value> parse_assignment(const std::string& text) {
  auto [key, value_text] = split_key(text, "", "KEY=VALUE");
  Value value;
  try {
    value = kc::utils::json_loads(value_text);
  } catch (const kc::Error&) {
    value = value_text;  // not JSON: the text itself
  }
  return {std::move(key), std::move(value)};
}

kc::experiment::Sweep parse_sweep(const std::string& text) {
  auto [key, range] = split_key(text, "--sweep ", "KEY=START:STOP:N or KEY=[v1,v2,...]");
  kc::experiment::Sweep sweep{.key = std::move(key), .values = {}};
  const std::string bad = "--sweep " + in_quotes(text);

  if (!range.empty() && range.front() == '[') {
    Value list;
    try {
      list = kc::utils::json_loads(range);
    } catch (const kc::Error& e) {
      throw UsageError(bad + ": the values are not a JSON list (" + e.what() + ")");
    }
    if (!list.is_array() || list.empty() || std::ssize(list) > kMaxSweepPoints) {
      throw UsageError(bad + ": the values must be a list of 1 to " +
                       std::to_string(kMaxSweepPoints) + " values");
    }
    sweep.values.assign(list.begin(), list.end());
    return sweep;
  }

  const auto first = range.find(':');
  const auto second = first == std::string::npos ? first : range.find(':', first + 1);
  if (second == std::string::npos || range.find(':', second + 1) != std::string::npos) {
    throw UsageError(bad + " is not of the form KEY=START:STOP:N");
  }
  const std::string start_text = trim(std::string_view(range).substr(0, first));
  const std::string stop_text = trim(std::string_view(range).substr(first + 1, second - first - 1));
  const std::string count_text = trim(std::string_view(range).substr(second + 1));
  double start = 0, stop = 0;
  std::int64_t n = 0;
  if (!read_number(start_text, start) || !read_number(stop_text, stop) || !std::isfinite(start) ||
      !std::isfinite(stop)) {
    throw UsageError(bad + ": START and STOP must be numbers");
  }
  if (!read_number(count_text, n) || n < 1 || n > kMaxSweepPoints) {
    throw UsageError(bad + ": N must be a whole number from 1 to " +
                     std::to_string(kMaxSweepPoints));
  }

  constexpr std::int64_t kExact = std::int64_t{1} << 53;  // integers a double holds exactly
  std::int64_t int_start = 0, int_stop = 0;
  const bool integers = read_number(start_text, int_start) && read_number(stop_text, int_stop) &&
                        std::abs(int_start) < kExact && std::abs(int_stop) < kExact &&
                        (n == 1 || (int_stop - int_start) % (n - 1) == 0);
  sweep.values.reserve(static_cast<std::size_t>(n));
  for (std::int64_t i = 0; i < n; ++i) {
    if (integers) {
      sweep.values.emplace_back(n == 1 ? int_start
                                       : int_start + (int_stop - int_start) / (n - 1) * i);
    } else {
      // The last point is STOP exactly, not the sum of n - 1 rounded steps.
      sweep.values.emplace_back(n == 1       ? start
                                : i == n - 1 ? stop
                                             : start + (stop - start) * static_cast<double>(i) /
                                                           static_cast<double>(n - 1));
    }
  }
  return sweep;
}

std::vector<std::string> split_names(const std::string& text, const std::string& what) {
  std::vector<std::string> names;
  std::size_t begin = 0;
  while (true) {
    const auto comma = text.find(',', begin);
    std::string name = trim(std::string_view(text).substr(begin, comma - begin));
    if (name.empty()) throw UsageError(what + " " + in_quotes(text) + " has an empty name");
    names.push_back(std::move(name));
    if (comma == std::string::npos) return names;
    begin = comma + 1;
  }
}

kc::experiment::Experiment read_definition_file(const std::string& path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  if (ec)
    throw kc::RuntimeError("cannot read the experiment file " + in_quotes(path) + ": " +
                           ec.message());
  if (size > kMaxDefinitionBytes) {
    throw kc::ValueError("the experiment file " + in_quotes(path) + " is larger than " +
                         std::to_string(kMaxDefinitionBytes >> 20) + " MiB");
  }
  const kc::Bytes bytes = kc::utils::read_file(path);
  try {
    Value definition = kc::utils::json_loads(
        std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    if (!definition.is_object()) {
      throw kc::TypeError(std::string("it must hold a JSON mapping, not ") +
                          kc::kind_name(definition));
    }
    if (!definition.contains("format")) definition["format"] = kc::experiment::Experiment::kFormat;
    if (!definition.contains("version"))
      definition["version"] = kc::experiment::Experiment::kVersion;
    return kc::experiment::Experiment::deserialize(definition);
  } catch (const kc::Error& e) {
    throw kc::ValueError("the experiment file " + in_quotes(path) + ": " + e.what());
  }
}

}  // namespace korvalin_app
