// CloudGroup: historical snapshots, parameter submission and removal, parameter queries, and
// the group-level operations that need no group object.
#include <cmath>
#include <limits>

#include "korvalin_client/com/device.hpp"
#include "korvalin_client/com/space.hpp"
#include "korvalin_client/com/sub_process.hpp"
#include "korvalin_client/com/user.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/languages.hpp"
#include "korvalin_client/plugin/plugin_register.hpp"
#include "korvalin_client/utils/parameter_codec.hpp"

namespace korvalin_client::group {

using languages::lang;

namespace {

// A timestamp above 1e12 is taken as milliseconds: multiplied by 0.001 in double precision
// and truncated (divided by 1000 as a real for integers beyond 60 bits).
std::int64_t normalize_timestamp(std::int64_t ts) {
  if (static_cast<double>(ts) > 1e12) {
    const double d = static_cast<double>(ts);
    return static_cast<std::int64_t>(ts < (std::int64_t{1} << 60) ? d * 0.001 : d / 1000.0);
  }
  return ts;
}

Value optional_value(const std::optional<std::int64_t>& v) {
  return v ? Value(*v) : Value(nullptr);
}

}  // namespace

// ---- historical snapshots -----------------------------------------------------------------

std::shared_ptr<ParameterMap> CloudGroup::get_history_space_parameter(std::int64_t timestamp) {
  if (!space_id) throw RuntimeError(lang.msg("group_space_id_not_set"));
  const std::int64_t ts = normalize_timestamp(timestamp);
  const Value key = Value::array({*space_id, ts});

  for (const auto& [cached_key, snap] : history_space_cache_) {
    if (cached_key == HistoryKey{*space_id, ts} && snap) return snap;
  }

  // The live parameters are the space as of the cache's last update.
  try {
    const Value info = get_local_space_info();
    if (get_key(info, "last_updated") == ts && !space_parameters.empty()) {
      auto snap = std::make_shared<ParameterMap>(space_parameters);
      _put_history_space_cache(key, snap);
      return snap;
    }
  } catch (const RuntimeError&) {
    // The local cache cannot answer; ask the service.
  }

  const Value records = com::space::get_parameter(*space_id, ts, nullptr);
  if (!records.is_array()) {
    throw TypeError(std::string("the parameter listing must be a list, not ") + kind_name(records));
  }
  std::vector<std::string> keys;
  std::vector<Value> values;
  std::vector<Value> types;
  keys.reserve(records.size());
  values.reserve(records.size());
  types.reserve(records.size());
  for (const Value& record : records) {
    keys.push_back(expect_text(require_key(record, "key"), "\"key\""));
    values.push_back(require_key(record, "value"));
    types.push_back(require_key(record, "type"));
  }
  auto snap = std::make_shared<ParameterMap>(deserialize_parameter(keys, values, types));
  _put_history_space_cache(key, snap);
  return snap;
}

void CloudGroup::_put_history_space_cache(const Value& cache_key,
                                          std::shared_ptr<ParameterMap> snap) {
  if (!cache_key.is_array() || cache_key.size() != 2 || !cache_key[0].is_number_integer() ||
      !cache_key[1].is_number_integer()) {
    throw TypeError(std::string("cache_key must be a pair of integers, not ") +
                    (cache_key.is_array() ? cache_key.dump() : kind_name(cache_key)));
  }
  if (!snap) throw TypeError("snap must be a mapping, not null");
  const HistoryKey key{cache_key[0].get<std::int64_t>(), cache_key[1].get<std::int64_t>()};

  // A key stored again keeps its first place; eviction is first in, first out.
  auto it = std::find_if(history_space_cache_.begin(), history_space_cache_.end(),
                         [&](const auto& entry) { return entry.first == key; });
  if (it != history_space_cache_.end()) {
    it->second = std::move(snap);
  } else {
    history_space_cache_.emplace_back(key, std::move(snap));
  }
  while (history_space_cache_.size() > history_space_cache_max_) {
    history_space_cache_.erase(history_space_cache_.begin());
  }
}

// ---- submission and removal ---------------------------------------------------------------

void CloudGroup::submit_space_parameter(std::optional<std::int64_t> experiment_id,
                                        std::optional<std::int64_t> node_id,
                                        std::optional<std::int64_t> session_id) {
  if (!space_id) throw RuntimeError(lang.msg("group_space_id_not_set"));
  if (!waiting_for_submit.is_object()) {
    throw TypeError(std::string("waiting_for_submit must be a mapping, not ") +
                    kind_name(waiting_for_submit));
  }

  Value keys = Value::array();
  Value values = Value::array();
  Value types = Value::array();
  for (const auto& [key, value] : waiting_for_submit.items()) {
    auto [text, type] = serialize_parameter(key, value);
    keys.push_back(key);
    values.push_back(std::move(text));
    types.push_back(std::move(type));
  }

  try {
    com::space::add_parameter(*space_id, keys, values, types, optional_value(experiment_id),
                              optional_value(node_id), optional_value(session_id));
  } catch (const std::exception&) {
    // Pending changes are dropped, not kept for a retry.
    waiting_for_submit = Value::object();
    throw;
  }

  download_space_parameter();
  Group::submit_space_parameter();
}

bool CloudGroup::remove_space_parameter(const Value& keys) {
  if (!space_id) throw RuntimeError(lang.msg("group_space_id_not_set"));
  const Value list = keys.is_string() ? Value::array({keys}) : keys;
  if (!list.is_array()) {
    throw TypeError(std::string("keys must be text or a list of text, not ") + kind_name(keys));
  }
  for (const Value& key : list) expect_text(key, "each of keys");

  for (const Value& key : list) com::space::delete_parameter(*space_id, key, true);
  download_space_parameter();
  return true;
}

// ---- queries ------------------------------------------------------------------------------

Value CloudGroup::get_space_parameter_by_tree(std::optional<std::int64_t> space_id_arg,
                                              std::optional<std::vector<std::string>> parent_tree,
                                              std::int64_t version) {
  if (space_id_arg) set_space(*space_id_arg);
  const std::vector<std::string> path = parent_tree.value_or(std::vector<std::string>{});

  std::string parent_tree_str;
  for (const auto& component : path) parent_tree_str += "/" + component;

  const Value nodes =
      com::space::get_parameter_tree(optional_value(space_id), version, parent_tree_str);
  if (!nodes.is_array()) {
    throw TypeError(std::string("the parameter tree must be a list, not ") + kind_name(nodes));
  }

  Value entries = Value::array();
  for (const Value& node : nodes) {
    const Value& node_name = require_key(node, "node_name");
    const std::string full_key = parent_tree_str + "/" + expect_text(node_name, "\"node_name\"");
    const Value& expandable = require_key(node, "expandable");
    // Only the boolean true marks an inner node; a truthy number does not.
    if (expandable.is_boolean() && expandable.get<bool>()) {
      entries.push_back(Value::object(
          {{"full_key", full_key}, {"node_name", node_name}, {"expandable", expandable}}));
      continue;
    }
    Value value;
    if (version == 0) {
      value = get_space_parameter(full_key, true);
    } else {
      try {
        value = deserialize_single_parameter(get_key(node, "v"), get_key(node, "t"));
      } catch (...) {
        utils::raise_unreadable(full_key);
      }
    }
    auto [v, t] = serialize_parameter(full_key, value, false);
    entries.push_back(Value::object({{"full_key", full_key},
                                     {"node_name", node_name},
                                     {"expandable", expandable},
                                     {"v", std::move(v)},
                                     {"t", std::move(t)}}));
  }
  return entries;
}

Value CloudGroup::search_space_parameters(const std::optional<std::string>& search_word) {
  if (!truthy(com::user::check_device_permission_by_name(named_group(), "READ"))) {
    throw RuntimeError("Permission Denied");
  }
  Value found = Value::array();
  for (const std::string& key : space().fuzzy_query(search_word)) {
    auto [v, t] = serialize_parameter(key, get_space_parameter(key), false);
    found.push_back(Value::object({{"full_key", key}, {"v", std::move(v)}, {"t", std::move(t)}}));
  }
  return found;
}

Value CloudGroup::get_parameter_history(std::int64_t space_id,
                                        const std::optional<std::string>& key, std::int64_t page,
                                        std::int64_t per_page) {
  const Value result = com::space::get_parameter_history(
      space_id, key ? Value(*key) : Value(nullptr), page, per_page);
  if (!result.is_array() || result.size() < 2) {
    throw KeyError("the parameter history answer must be a pair (records, total), not " +
                   to_text(result));
  }
  return Value::object({{"list", result[0]}, {"total", result[1]}});
}

// ---- groups -------------------------------------------------------------------------------

Value CloudGroup::list_groups(std::int64_t page, std::int64_t per_page,
                              std::optional<std::int64_t> org_id, bool show_hidden) {
  return com::device::get_group_list(page, per_page, optional_value(org_id), show_hidden);
}

Value CloudGroup::create_group(const std::string& device_group_name, const std::string& description,
                               std::optional<std::int64_t> organization_id) {
  Value res =
      com::device::create_group(device_group_name, description, optional_value(organization_id));
  const char* space_desc = lang.language == "cn" ? "初始实验空间" : "Original experiment space.";
  const Value space = com::space::create_space(device_group_name, "origin", space_desc);
  // Passed on even when the answer has no id.
  const Value space_id = get_key(space, "space_id");
  for (const char* folder : {"AutoCali", "Default", "Calibration"}) {
    com::sub_process::create_exp_folder(space_id, folder);
  }
  return res;
}

Value CloudGroup::get_parameter_description(const std::vector<std::string>& full_key_list,
                                            const std::string& language) {
  const auto plugins = plugin::get_plugins_by_hook(plugin::kParameterDescriptionExtension);
  Value result = Value::object();
  if (plugins.empty()) return result;
  const Value keys(full_key_list);
  for (const auto& p : plugins) {
    const Value descriptions = p->parameter_description_extension(keys, language);
    if (!descriptions.is_object()) {
      throw TypeError("plugin " + p->name() + " described parameters with a " +
                      kind_name(descriptions) + ", not a mapping");
    }
    // A later plug-in wins for the same key.
    for (const auto& [k, v] : descriptions.items()) result[k] = v;
  }
  return result;
}

}  // namespace korvalin_client::group
