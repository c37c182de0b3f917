#include "korvalin_client/utils/task_status.hpp"

#include <utility>

namespace korvalin_client::utils::task_status {
namespace {

// Raw spellings (already lower-cased, with "-" and " " turned into "_") and the state each
// one stands for.
constexpr std::pair<std::string_view, std::string_view> kSynonyms[] = {
    {"complete", COMPLETE},   {"completed", COMPLETE},  {"finished", COMPLETE},
    {"finish", COMPLETE},     {"success", COMPLETE},    {"succeeded", COMPLETE},
    {"successful", COMPLETE}, {"done", COMPLETE},       {"error", ERROR},
    {"failed", ERROR},        {"failure", ERROR},       {"fail", ERROR},
    {"errored", ERROR},       {"canceled", CANCELED},   {"cancelled", CANCELED},
    {"cancel", CANCELED},     {"terminated", CANCELED}, {"aborted", CANCELED},
    {"killed", CANCELED},     {"stopped", CANCELED},    {"timeout", TIMEOUT},
    {"timed_out", TIMEOUT},   {"timedout", TIMEOUT},    {"time_out", TIMEOUT},
    {"expired", TIMEOUT},     {"running", RUNNING},     {"run", RUNNING},
    {"in_progress", RUNNING}, {"processing", RUNNING},  {"started", RUNNING},
    {"executing", RUNNING},   {"queued", QUEUED},       {"waiting", QUEUED},
    {"submitted", QUEUED},    {"scheduled", QUEUED},    {"queue", QUEUED},
    {"pending", PENDING},     {"created", PENDING},     {"new", PENDING},
    {"init", PENDING},        {"initialized", PENDING},
    // Spellings whose word split differs from the ones above.
    {"inprogress", RUNNING},  {"initialised", PENDING}, {"succeed", COMPLETE},
    {"abort", CANCELED},
};

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// Lower-cases ASCII letters, drops surrounding blanks and writes "-" and " " as "_".
std::string canonical_spelling(std::string_view raw) {
  while (!raw.empty() && is_blank(raw.front())) raw.remove_prefix(1);
  while (!raw.empty() && is_blank(raw.back())) raw.remove_suffix(1);
  std::string out(raw);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    } else if (c == '-' || c == ' ') {
      c = '_';
    }
  }
  return out;
}

}  // namespace

std::string normalize_sub_process_status(const Value& status) {
  if (status.is_null()) return "";
  if (!status.is_string()) {
    throw TypeError(std::string("experiment status must be text or null, got ") +
                    kind_name(status));
  }
  const auto& raw = status.get_ref<const std::string&>();
  const std::string key = canonical_spelling(raw);
  if (key.empty()) return "";
  for (const auto& [spelling, state] : kSynonyms) {
    if (spelling == key) return std::string(state);
  }
  throw ValueError("unknown experiment status: \"" + raw + "\"");
}

bool is_terminal(std::string_view normalized_status) {
  return normalized_status == COMPLETE || normalized_status == ERROR ||
         normalized_status == CANCELED || normalized_status == TIMEOUT;
}

}  // namespace korvalin_client::utils::task_status
