#include "korvalin_client/group/cloud_group.hpp"

#include <algorithm>
#include <unordered_map>

#include "korvalin_client/com/device.hpp"
#include "korvalin_client/com/space.hpp"
#include "korvalin_client/languages.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_client::group {

using languages::lang;

namespace {

std::string message(std::string_view key, std::initializer_list<std::string> args = {}) {
  return languages::format(lang.msg(key), args);
}

// Creates `dir` when nothing exists at that path; anything already there counts as present.
void ensure_dir(const std::string& dir) {
  if (!utils::path_exists(dir)) utils::make_dirs(dir);
}

std::string text_or_empty(const Value& v, std::string_view what) {
  if (v.is_null()) return {};
  return expect_text(v, what);
}

}  // namespace

// ---- session ------------------------------------------------------------------------------

CloudGroup::CloudGroup(std::optional<std::string> group_name, std::optional<std::string> space_name,
                       GroupOptions options) {
  expect_mapping_or_null(options.space_parameters, "space_parameters");
  expect_mapping_or_null(options.temporary_parameters, "temporary_parameters");
  space_name_ = space_name;
  if (group_name) set_group_name(*group_name, std::move(space_name), std::move(options));
}

void CloudGroup::set_group_name(const std::string& group_name,
                                std::optional<std::string> space_name, GroupOptions options) {
  if (initialized_) return;

  // The base sees no space name: the space is selected below, by this class.
  initialize(group_name, std::nullopt, options.space_version, options.space_parameters,
             options.temporary_parameters);
  has_group_name_ = true;

  group_detail_ = com::device::get_group_detail(this->group_name);
  device_group_id_ = require_key(group_detail_, "device_group_id");
  organization_id_ = require_key(group_detail_, "organization_id");
  organization_name_ = require_key(group_detail_, "organization_name");
  // Reading the record above already fails on a null record; this guard stays for a record
  // that turns null afterwards.
  if (group_detail_.is_null())
    throw RuntimeError(message("group_not_found_on_cloud", {group_name}));

  create_cache_dir();

  spaces_list_ = {};
  spaces_name_mapping_ = {};
  get_space_list();

  space_cache_.clear();
  if (space_name) {
    set_space(*space_name);
    space_name_ = space_name;
  } else {
    space_name_ = std::nullopt;
  }

  initialized_ = true;
}

const Value& CloudGroup::organization_name() const {
  if (!organization_name_) {
    throw RuntimeError("organization_name is not known until a group is selected");
  }
  return *organization_name_;
}

utils::SpaceCache& CloudGroup::space() {
  if (!space_id) throw RuntimeError(lang.msg("group_space_id_not_set"));
  auto it = space_cache_.find(*space_id);
  if (it == space_cache_.end()) {
    it = space_cache_.emplace(*space_id, std::make_unique<utils::SpaceCache>(group_name, *space_id))
             .first;
  }
  return *it->second;
}

Value CloudGroup::get_group_detail() {
  group_detail_ = com::device::get_group_detail(named_group());
  return group_detail_;
}

const std::string& CloudGroup::named_group() const {
  if (!has_group_name_) {
    throw RuntimeError(
        "this CloudGroup has no group: construct it with a group name or call "
        "set_group_name() first");
  }
  return group_name;
}

std::int64_t CloudGroup::selected_space_id() const {
  if (!space_id) throw RuntimeError(lang.msg("group_space_id_not_set"));
  return *space_id;
}

// ---- spaces -------------------------------------------------------------------------------

Value CloudGroup::list_spaces(std::int64_t page, std::int64_t per_page, bool show_hidden) {
  return com::space::list_space(named_group(), page, per_page, show_hidden);
}

const CloudGroup::SpaceList& CloudGroup::get_space_list() {
  // One page large enough for every space; hidden spaces never enter the maps this way.
  const Value space_list = list_spaces(1, 999999999999);

  spaces_list_ = {};
  spaces_name_mapping_ = {};
  const Value& records = require_key(space_list, "list");
  if (!records.is_array()) {
    throw TypeError(std::string("\"list\" of the space listing must be a list, not ") +
                    kind_name(records));
  }
  Value by_id = Value::object();
  for (const Value& record : records) {
    // Each record is filed by id before its name is read: a record without a name fails with
    // the records before it, and itself, already in spaces_list.
    const std::int64_t id = require_int(record, "space_id");
    spaces_list_[id] = record;
    by_id[std::to_string(id)] = record;
    spaces_name_mapping_[require_text(record, "space_name")] = id;
  }
  if (group_detail_.is_object()) group_detail_["space_list"] = std::move(by_id);
  return spaces_list_;
}

void CloudGroup::set_space(const Value& space_id_or_name, bool update_parameters) {
  if (!space_id_or_name.is_string() && !space_id_or_name.is_number_integer()) {
    throw TypeError(std::string("space_id_or_name must be an integer or text, not ") +
                    kind_name(space_id_or_name));
  }

  get_space_list();

  std::int64_t id = 0;
  if (space_id_or_name.is_string()) {
    const auto& name = space_id_or_name.get_ref<const std::string&>();
    auto it = spaces_name_mapping_.find(name);
    if (it == spaces_name_mapping_.end()) {
      throw RuntimeError(message("group_space_name_not_found", {name}));
    }
    id = it->second;
    space_id = id;
    space_name_ = require_text(spaces_list_.at(id), "space_name");
  } else {
    id = space_id_or_name.get<std::int64_t>();
    // Set before asking the service: a failed lookup leaves the new id selected.
    space_id = id;
    const Value space_info = com::space::get_space_detail(id);
    std::string name = require_text(space_info, "space_name");
    space_name_ = name;
    if (!spaces_list_.contains(id)) {
      spaces_list_[id] = space_info;
      spaces_name_mapping_[std::move(name)] = id;
      if (group_detail_.is_object() && group_detail_.contains("space_list")) {
        group_detail_["space_list"][std::to_string(id)] = space_info;
      }
    }
  }

  if (!space_cache_.contains(id)) {
    space_cache_.emplace(id, std::make_unique<utils::SpaceCache>(group_name, id));
  }
  // Snapshots belong to the previous selection.
  history_space_cache_.clear();

  if (update_parameters) download_space_parameter();
}

Value CloudGroup::create_space(const std::string& name, const std::string& desc) {
  return com::space::create_space(named_group(), name, desc);
}

Value CloudGroup::hide_space(std::optional<std::int64_t> space_id_arg) {
  if (space_id_arg) return com::space::set_space_hidden(*space_id_arg, true);
  if (space_id) return com::space::set_space_hidden(*space_id, true);
  throw RuntimeError(lang.msg("group_space_id_not_set"));
}

Value CloudGroup::show_space(std::optional<std::int64_t> space_id_arg) {
  if (space_id_arg) return com::space::set_space_hidden(*space_id_arg, false);
  if (space_id) return com::space::set_space_hidden(*space_id, false);
  throw RuntimeError(lang.msg("group_space_id_not_set"));
}

// ---- parameters ---------------------------------------------------------------------------

std::vector<std::string> CloudGroup::download_space_parameter() {
  const std::int64_t sid = selected_space_id();
  utils::SpaceCache& cache = space();
  const Value last_updated = require_key(cache.get_cache_info(), "last_updated");

  std::vector<std::string> keys;
  std::vector<Value> values;
  std::vector<std::string> types;
  std::vector<Value> descriptions;
  std::vector<Value> units;

  if (last_updated == 0) {
    // Never filled: take the whole space as it stands now.
    Value records = com::space::get_parameter(sid, env().now_seconds(), nullptr);
    if (!records.is_array()) {
      throw TypeError(std::string("the parameter listing must be a list, not ") +
                      kind_name(records));
    }
    keys.reserve(records.size());
    values.reserve(records.size());
    types.reserve(records.size());
    for (Value& record : records) {
      keys.push_back(utils::normalize_key(expect_text(require_key(record, "key"), "\"key\"")));
      values.push_back(std::move(require_key(record, "value")));
      types.push_back(text_or_empty(require_key(record, "type"), "\"type\""));
    }
    descriptions.assign(keys.size(), nullptr);
    units.assign(keys.size(), nullptr);
    cache.update_cache(keys, values, types, descriptions, units, env().now_seconds());
    input_space_parameter_from_cache(sid, cache.read_all());
    return keys;
  }

  // Filled before: apply the change log since the last update.
  const Value log = com::space::get_parameter_log(sid, last_updated);
  if (!log.is_array()) {
    throw TypeError(std::string("the parameter change log must be a list, not ") + kind_name(log));
  }

  // The latest change per key, walking the log from its end: a later store replaces the
  // entry but keeps the key's first position, so the entry that survives is the one that
  // stands earliest in the service's list.
  struct Change {
    std::string key;
    Value t;
    bool deleted_flag;
    Value v;
  };
  std::vector<Change> changes;
  std::unordered_map<std::string, std::size_t> position;
  for (auto it = log.rbegin(); it != log.rend(); ++it) {
    const Value& record = *it;
    std::string key = expect_text(require_key(record, "k_full"), "\"k_full\"");
    Change change{key, require_key(record, "t"), truthy(get_key(record, "deleted_flag", false)),
                  nullptr};
    change.v =
        truthy(require_key(record, "deleted_flag")) ? Value(nullptr) : require_key(record, "v");
    auto [pos, inserted] = position.try_emplace(std::move(key), changes.size());
    if (inserted) {
      changes.push_back(std::move(change));
    } else {
      changes[pos->second] = std::move(change);
    }
  }

  std::vector<std::string> removed_keys;
  for (Change& change : changes) {
    if (change.deleted_flag) {
      removed_keys.push_back(change.key);
      continue;
    }
    keys.push_back(utils::normalize_key(change.key));
    values.push_back(std::move(change.v));
    types.push_back(text_or_empty(change.t, "\"t\""));
    descriptions.push_back(nullptr);
    units.push_back(nullptr);
    // Keys are unique in `changes`, so this never finds one; kept for a log that repeats a key.
    if (auto r = std::find(removed_keys.begin(), removed_keys.end(), change.key);
        r != removed_keys.end()) {
      removed_keys.erase(r);
    }
  }

  for (const std::string& key : removed_keys) cache.remove_key(key, env().now_seconds());
  cache.update_cache(keys, values, types, descriptions, units, env().now_seconds());
  input_space_parameter_from_cache(sid, cache.read_all());
  return keys;
}

void CloudGroup::load_parameters_from_local_cache() {
  const std::int64_t sid = selected_space_id();
  input_space_parameter_from_cache(sid, space().read_all());
}

Value CloudGroup::get_local_space_info() {
  selected_space_id();
  return space().get_cache_info();
}

void CloudGroup::refresh_space_parameters() { download_space_parameter(); }

// ---- local directories --------------------------------------------------------------------

std::string CloudGroup::create_cache_dir() {
  // The name as it stands: "site/lab-a" nests two levels down. None leads out of the cache
  // root, and every other directory of the group lies below this one.
  const std::string& name = utils::check_relative_path(named_group(), "group");
  const std::string group_cache_dir = utils::get_cache_dir() + "/" + name;
  ensure_dir(group_cache_dir);
  return group_cache_dir;
}

std::string CloudGroup::exp_dir(const Value& timestamp, const Value& exp_id,
                                const char* timestamp_name) {
  if (!timestamp.is_number()) {
    throw TypeError(std::string(timestamp_name) + " must be an integer or a real, not " +
                    kind_name(timestamp));
  }
  expect_int_or_null(exp_id, "exp_id");

  // The group directory and the experiment root are made before the date is worked out.
  const std::string root = create_cache_dir() + "/exp";
  ensure_dir(root);

  std::int64_t seconds = 0;
  if (timestamp.is_number_float()) {
    const double t = timestamp.get<double>();
    if (!(t > -9.2e18 && t < 9.2e18)) {
      throw ValueError(std::string(timestamp_name) + " " + timestamp.dump() +
                       " cannot be converted to a local date");
    }
    seconds = static_cast<std::int64_t>(t);
  } else {
    seconds = timestamp.get<std::int64_t>();
  }
  const std::string day_dir = root + "/" + utils::local_date(seconds);
  ensure_dir(day_dir);
  if (exp_id.is_null()) return day_dir;
  const std::string exp_dir = day_dir + "/" + exp_id.dump();
  ensure_dir(exp_dir);
  return exp_dir;
}

std::string CloudGroup::create_result_cache_dir(const Value& exp_create_timestamp,
                                                const Value& exp_id) {
  return exp_dir(exp_create_timestamp, exp_id, "exp_create_timestamp");
}

std::string CloudGroup::create_exp_cache_dir(const Value& create_timestamp, const Value& exp_id) {
  return exp_dir(create_timestamp, exp_id, "create_timestamp");
}

}  // namespace korvalin_client::group
