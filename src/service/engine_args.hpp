// The engine's argument checks, shared by its methods (engine.cpp) and by the checks of a
// caller's rights (engine_rights.cpp): both read an argument through the same helper, so a
// value can never be taken one way by the check and another way by the method. Each helper
// names the argument in its error: a TypeError for a wrong kind, a ValueError for a value out
// of bounds. Private to src/service/.
#pragma once

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/service/store.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/space_cache.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::service::checks {

inline constexpr std::int64_t kNoUpperBound = std::numeric_limits<std::int64_t>::max();
// Values kept whole (progress, fitting results) are bounded by their JSON text.
inline constexpr std::size_t kMaxValueBytes = std::size_t{16} << 20;

inline std::string shown(std::string_view text) {
  constexpr std::size_t kShown = 80;
  std::string out = "\"" + std::string(text.substr(0, kShown));
  if (text.size() > kShown) out += "...";
  return out + "\"";
}

inline std::int64_t now() { return env().now_seconds(); }

// The caller Engine::call acts for on this thread (null outside it: the local organisation).
inline thread_local const Caller* t_acting = nullptr;

inline const std::string& text_arg(const Value& v, std::string_view what) {
  const std::string& text = expect_text(v, what);
  if (text.size() > kMaxTextBytes) {
    throw ValueError(std::string(what) + " is longer than " + std::to_string(kMaxTextBytes) +
                     " bytes");
  }
  return text;
}

inline std::string text_or(const Value& v, std::string_view what, std::string fallback) {
  expect_text_or_null(v, what);
  return v.is_null() ? std::move(fallback) : text_arg(v, what);
}

inline std::optional<std::string> opt_text(const Value& v, std::string_view what) {
  expect_text_or_null(v, what);
  if (v.is_null()) return std::nullopt;
  return text_arg(v, what);
}

inline const std::string& name_arg(const Value& v, std::string_view what) {
  const std::string& name = text_arg(v, what);
  if (name.empty()) throw ValueError(std::string(what) + " must not be empty");
  return name;
}

inline std::optional<std::int64_t> opt_int(const Value& v, std::string_view what) {
  expect_int_or_null(v, what);
  if (v.is_null()) return std::nullopt;
  return v.get<std::int64_t>();
}

// A time in seconds: an integer, a real (truncated) or null.
inline std::optional<std::int64_t> time_arg(const Value& v, std::string_view what) {
  if (v.is_number_float()) {
    const double t = v.get<double>();
    if (!(t > -9.2e18 && t < 9.2e18)) throw ValueError(std::string(what) + " is out of range");
    return static_cast<std::int64_t>(std::floor(t));
  }
  return opt_int(v, what);
}

inline bool bool_or(const Value& v, std::string_view what, bool fallback) {
  if (v.is_null()) return fallback;
  if (v.is_boolean()) return v.get<bool>();
  if (v.is_number_integer()) return v.get<std::int64_t>() != 0;
  throw TypeError(std::string(what) + " must be a boolean or null, not " + kind_name(v));
}

inline std::int64_t count_arg(const Value& v, std::string_view what, std::int64_t fallback,
                              std::int64_t low) {
  const std::int64_t n = opt_int(v, what).value_or(fallback);
  if (n < low) {
    throw ValueError(std::string(what) + " must be at least " + std::to_string(low) + ", not " +
                     std::to_string(n));
  }
  return n;
}

inline PageWindow page_arg(const Value& page, const Value& per_page) {
  return page_window(count_arg(page, "page", 1, 1),
                     std::min(count_arg(per_page, "per_page", 10, 1), kMaxPage));
}

inline std::int64_t limit_arg(const Value& v, std::int64_t fallback) {
  return std::min<std::int64_t>(count_arg(v, "limit", fallback, 0), kMaxListItems);
}

inline const Value& list_arg(const Value& v, std::string_view what) {
  if (!v.is_array()) {
    throw TypeError(std::string(what) + " must be a list, not " + kind_name(v));
  }
  if (v.size() > kMaxListItems) {
    throw ValueError(std::string(what) + " holds more than " + std::to_string(kMaxListItems) +
                     " items");
  }
  return v;
}

// A Value the engine keeps whole: bounded in depth and size.
inline void check_kept_value(const Value& v, std::string_view what) {
  check_depth(v, what);
  if (inspect_value(v).has_bytes) throw TypeError(std::string(what) + " must not hold bytes");
  if (v.dump().size() > kMaxValueBytes) {
    throw ValueError(std::string(what) + " is larger than " + std::to_string(kMaxValueBytes) +
                     " bytes");
  }
}

// Experiment, node and session tags: an integer, a text or null.
inline const Value& tag_arg(const Value& v, std::string_view what) {
  if (v.is_null() || v.is_number_integer()) return v;
  if (v.is_string()) {
    text_arg(v, what);
    return v;
  }
  throw TypeError(std::string(what) + " must be an integer, text or null, not " + kind_name(v));
}

// A full parameter key: leading "/" added; no empty path component.
inline std::string key_arg(const Value& v, std::string_view what) {
  std::string key = utils::normalize_key(text_arg(v, what));
  if (key.size() < 2 || key.back() == '/' || key.find("//") != std::string::npos) {
    throw ValueError(std::string(what) + " is not a parameter key: " + shown(key));
  }
  return key;
}

// A path of the parameter tree as "/a/b" ("" for the root), from "a/b", "/a/b/" or "".
inline std::string tree_path(const Value& v, std::string_view what) {
  if (v.is_null()) return "";
  std::string path = text_arg(v, what);
  const std::size_t first = path.find_first_not_of('/');
  if (first == std::string::npos) return "";
  const std::size_t last = path.find_last_not_of('/');
  path = "/" + path.substr(first, last - first + 1);
  if (path.find("//") != std::string::npos) {
    throw ValueError(std::string(what) + " is not a parameter path: " + shown(path));
  }
  return path;
}

inline std::string access_arg(const Value& v) {
  if (v.is_null()) return "WRITE";
  std::string access = text_arg(v, "access");
  for (char& c : access) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (access != "READ" && access != "WRITE") {
    throw ValueError("access must be \"READ\" or \"WRITE\", not " + shown(access));
  }
  return access;
}

}  // namespace korvalin_client::service::checks
