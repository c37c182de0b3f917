// What the result-retrieval steps of CloudGroup share: reading result and detail records.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::group::result_records {

// The upper bound of piece ids asked for: in practice, every later piece.
inline constexpr std::int64_t kLastPiece = 99999999999;

// A value as it reads in a message: text as it stands, booleans as True/False, null as None.
inline std::string text_of(const Value& v) {
  if (v.is_boolean()) return v.get<bool>() ? "True" : "False";
  return to_text(v);
}

inline std::int64_t piece_id_of(const Value& record) { return require_int(record, "piece_id"); }

// `records` ordered by piece id; records with equal ids keep their order.
inline std::vector<const Value*> sorted_by_piece(const Value& records) {
  std::vector<std::pair<std::int64_t, const Value*>> keyed;
  keyed.reserve(records.size());
  for (const Value& r : records) keyed.emplace_back(piece_id_of(r), &r);
  std::stable_sort(keyed.begin(), keyed.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<const Value*> sorted;
  sorted.reserve(keyed.size());
  for (const auto& [id, r] : keyed) sorted.push_back(r);
  return sorted;
}

// The experiment's own messages, one line each: "[timestamp] level: message\n".
inline std::string experiment_messages(const Value& exp_detail) {
  std::string text;
  const Value messages = get_key(exp_detail, "exp_msg", Value::array());
  if (!messages.is_array()) return text;
  for (const Value& m : messages) {
    text += "[" + text_of(require_key(m, "timestamp")) + "] " +
            text_of(require_key(m, "message_level")) + ": " +
            expect_text(require_key(m, "message"), "\"message\"") + "\n";
  }
  return text;
}

// Sets "sub_process_id" of a detail record handed to a callback, unless it has one.
inline Value with_sub_process_id(Value detail, std::int64_t exp_id) {
  if (!detail.is_object()) {
    throw TypeError(std::string("the experiment detail must be a mapping, not ") +
                    kind_name(detail));
  }
  if (!detail.contains("sub_process_id")) detail["sub_process_id"] = exp_id;
  return detail;
}

inline bool equals(const Value& v, std::string_view constant) {
  return v.is_string() && v.get_ref<const std::string&>() == constant;
}

// A location stored as JSON text in a resource record's "uri".
inline Value decode_uri(const Value& uri) { return Value::parse(expect_text(uri, "\"uri\"")); }


}  // namespace korvalin_client::group::result_records
