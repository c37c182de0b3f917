// Finding the group, space or experiment a command names.
#include "targets.hpp"

#include <charconv>

#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/task_status.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;
using kc::Value;

constexpr std::int64_t kPerPage = 100;

// Whether a listing has a page after `page`: its "total" says so, and a short page ends it (so
// does the 10,000th page, whatever a service answers).
bool more_pages(const Value& listed, std::int64_t page) {
  const Value& list = kc::get_key(listed, "list", Value::array());
  const Value total = kc::get_key(listed, "total");
  if (std::ssize(list) < kPerPage || page >= 10000) return false;
  return !total.is_number_integer() || page * kPerPage < total.get<std::int64_t>();
}

std::string in_quotes(const std::string& text) { return "\"" + text + "\""; }

}  // namespace

std::unique_ptr<CloudGroup> open_group(const std::string& group,
                                       const std::optional<std::string>& space) {
  auto opened = std::make_unique<CloudGroup>(group);
  if (space) {
    if (!opened->spaces_name_mapping().contains(*space)) {
      throw kc::RuntimeError("device group " + in_quotes(group) + " has no space " +
                             in_quotes(*space));
    }
    opened->set_space(Value(*space));
  }
  return opened;
}

std::int64_t find_space_id(CloudGroup& group, const std::string& space) {
  std::int64_t id = 0;
  const char* end = space.data() + space.size();
  if (const auto [ptr, ec] = std::from_chars(space.data(), end, id);
      ec == std::errc() && ptr == end) {
    return id;
  }
  if (const auto it = group.spaces_name_mapping().find(space);
      it != group.spaces_name_mapping().end()) {
    return it->second;
  }
  // A hidden space is listed only when asked for.
  for (std::int64_t page = 1;; ++page) {
    const Value listed = group.list_spaces(page, kPerPage, true);
    const Value& list = kc::get_key(listed, "list", Value::array());
    for (const Value& s : list) {
      if (kc::get_key(s, "space_name") == space) return kc::require_int(s, "space_id");
    }
    if (!more_pages(listed, page)) break;
  }
  throw kc::RuntimeError("device group " + in_quotes(group.group_name) + " has no space " +
                         in_quotes(space));
}

OpenExperiment open_experiment(std::int64_t exp_id) {
  Value detail = CloudGroup::get_experiment(exp_id);
  const Value group_id = kc::get_key(detail, "device_group_id");
  for (std::int64_t page = 1;; ++page) {
    const Value listed = CloudGroup::list_groups(page, kPerPage);
    const Value& list = kc::get_key(listed, "list", Value::array());
    for (const Value& g : list) {
      if (kc::get_key(g, "device_group_id") == group_id) {
        return {open_group(kc::require_text(g, "device_group_name")), std::move(detail)};
      }
    }
    if (!more_pages(listed, page)) break;
  }
  throw kc::RuntimeError("experiment " + std::to_string(exp_id) + " belongs to device group " +
                         kc::to_text(group_id) + ", which is not among your groups");
}

Value settled_experiment(std::int64_t exp_id) {
  namespace status = kc::utils::task_status;
  Value detail = CloudGroup::get_experiment(exp_id);
  for (int i = 0; i < 600; ++i) {
    try {
      if (status::is_terminal(status::normalize_sub_process_status(kc::get_key(detail, "status"))))
        break;
    } catch (const kc::Error&) {
      break;  // a status this program does not know: nothing to wait for
    }
    kc::env().sleep(0.1);
    detail = CloudGroup::get_experiment(exp_id);
  }
  return detail;
}

}  // namespace korvalin_app
