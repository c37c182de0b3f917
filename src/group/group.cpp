#include "korvalin_client/group/group.hpp"

#include "korvalin_client/utils/parameter_codec.hpp"

namespace korvalin_client::group {

namespace {

// The pending changes as a mapping; the field is public, so it may have been replaced.
Value& pending_mapping(Value& pending) {
  if (pending.is_null()) pending = Value::object();
  if (!pending.is_object()) {
    throw TypeError(std::string("waiting_for_submit must be a mapping, not ") +
                    kind_name(pending));
  }
  return pending;
}

// The value of a cached record of parameter `key` in `out`; when it does not decode, false,
// with the error that names the key in `error`.
bool decode_record(const std::string& key, const utils::SpaceCache::Record& record, Value& out,
                   std::exception_ptr& error) {
  try {
    try {
      out = utils::decode_parameter(record.value, record.type);
      return true;
    } catch (...) {
      utils::raise_unreadable(key);
    }
  } catch (const Error&) {
    error = std::current_exception();
    return false;
  }
}

}  // namespace

void Group::initialize(const std::string& group_name,
                       const std::optional<std::string>& /*space_name*/,
                       std::optional<std::int64_t> space_version, const Value& space_parameters,
                       const Value& temporary_parameters) {
  // The space name matters only to groups that talk to the service; a Group of its own has
  // no spaces to look it up in.
  expect_mapping_or_null(space_parameters, "space_parameters");
  expect_mapping_or_null(temporary_parameters, "temporary_parameters");
  check_depth(space_parameters, "space_parameters");
  check_depth(temporary_parameters, "temporary_parameters");

  this->group_name = group_name;
  space_id.reset();
  this->space_version = space_version;
  this->space_parameters.clear();
  waiting_for_submit = Value::object();
  this->temporary_parameters.clear();
  loaded_source_ = 0;
  set_since_load_.clear();
  unreadable_.clear();
  if (space_parameters.is_object()) {
    for (const auto& [key, value] : space_parameters.items()) set_space_parameter(key, value);
  }
  if (temporary_parameters.is_object()) {
    for (const auto& [key, value] : temporary_parameters.items()) {
      this->temporary_parameters[utils::normalize_key(key)] = value;
    }
  }
}

void Group::set_space_parameter(const std::string& key, Value value) {
  std::string full = utils::normalize_key(key);
  check_depth(value, "parameter " + full);
  pending_mapping(waiting_for_submit)[full] = value;
  set_since_load_.insert(full);
  space_parameters[full] = std::move(value);
}

Value Group::get_space_parameter(const std::string& key, bool refresh_cache) {
  std::string full = utils::normalize_key(key);
  if (refresh_cache) refresh_space_parameters();
  if (auto it = temporary_parameters.find(full); it != temporary_parameters.end()) {
    return it->second;
  }
  if (auto it = space_parameters.find(full); it != space_parameters.end()) return it->second;
  if (auto it = unreadable_.find(full); it != unreadable_.end()) {
    std::rethrow_exception(it->second);
  }
  throw KeyError("parameter " + full + " has no value");
}

std::pair<std::string, std::string> Group::serialize_parameter(const std::string& key,
                                                               const Value& value,
                                                               bool json_compact) const {
  return utils::encode_parameter(key, value, json_compact);
}

Value Group::deserialize_single_parameter(const Value& v, const Value& t) {
  return utils::decode_parameter(v, t);
}

ParameterMap Group::deserialize_parameter(const std::vector<std::string>& keys,
                                          const std::vector<Value>& values,
                                          const std::vector<Value>& types) {
  if (keys.size() != values.size() || keys.size() != types.size()) {
    throw ValueError("parameter keys, values and types differ in length (" +
                     std::to_string(keys.size()) + ", " + std::to_string(values.size()) + ", " +
                     std::to_string(types.size()) + ")");
  }
  ParameterMap out;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    try {
      out[keys[i]] = deserialize_single_parameter(values[i], types[i]);
    } catch (...) {
      utils::raise_unreadable(keys[i]);
    }
  }
  return out;
}

void Group::input_space_parameter_from_cache(
    std::int64_t space_id, const std::vector<utils::SpaceCache::Record>& records) {
  // Everything is read before anything changes, so a failure leaves the group as it was. A
  // record that does not decode is no failure: it is kept aside, and the rest loads.
  ParameterMap fresh;
  std::map<std::string, std::exception_ptr, std::less<>> unreadable;
  for (const auto& record : records) {
    std::string key = utils::normalize_key(record.key);
    Value value;
    std::exception_ptr error;
    if (decode_record(key, record, value, error)) {
      // Records come ordered by key, so inserting at the end is the common, constant-time case.
      fresh.insert_or_assign(fresh.end(), std::move(key), std::move(value));
    } else {
      unreadable.insert_or_assign(unreadable.end(), std::move(key), std::move(error));
    }
  }
  for (const auto& [key, value] : pending_mapping(waiting_for_submit).items()) {
    fresh[key] = value;
  }
  space_parameters = std::move(fresh);
  unreadable_ = std::move(unreadable);
  this->space_id = space_id;
  loaded_source_ = 0;
  set_since_load_.clear();
}

void Group::input_space_parameter_from_cache(std::int64_t space_id,
                                             const utils::SpaceCache::Contents& contents) {
  std::optional<utils::SpaceCache::Changes> changes;
  if (loaded_source_ != 0 && loaded_source_ == contents.source() && loaded_space_ == space_id) {
    changes = contents.changes_since(loaded_generation_);
  }
  if (!changes) {
    input_space_parameter_from_cache(space_id, contents.records());
  } else {
    // Keys set since the last load go back to their cached value (or away), as a full load
    // would do, before the pending changes are laid over again.
    std::set<std::string> known;
    for (const auto& record : changes->changed) known.insert(record.key);
    known.insert(changes->removed.begin(), changes->removed.end());
    for (const auto& key : set_since_load_) {
      if (known.contains(key)) continue;
      if (auto record = contents.find(key)) {
        changes->changed.push_back(std::move(*record));
      } else {
        changes->removed.push_back(key);
      }
    }

    // Everything is read before anything changes, as in a full load.
    std::vector<std::pair<std::string, Value>> updates;
    std::vector<std::pair<std::string, std::exception_ptr>> unreadable;
    updates.reserve(changes->changed.size());
    for (const auto& record : changes->changed) {
      std::string key = utils::normalize_key(record.key);
      Value value;
      std::exception_ptr error;
      if (decode_record(key, record, value, error)) {
        updates.emplace_back(std::move(key), std::move(value));
      } else {
        unreadable.emplace_back(std::move(key), std::move(error));
      }
    }
    const Value& pending = pending_mapping(waiting_for_submit);

    for (const auto& removed : changes->removed) {
      const std::string key = utils::normalize_key(removed);
      space_parameters.erase(key);
      unreadable_.erase(key);
    }
    for (auto& [key, value] : updates) {
      unreadable_.erase(key);
      space_parameters.insert_or_assign(key, std::move(value));
    }
    for (auto& [key, error] : unreadable) {
      space_parameters.erase(key);
      unreadable_.insert_or_assign(std::move(key), std::move(error));
    }
    for (const auto& [key, value] : pending.items()) space_parameters[key] = value;
    this->space_id = space_id;
    set_since_load_.clear();
  }
  loaded_source_ = contents.source();
  loaded_generation_ = contents.generation();
  loaded_space_ = space_id;
}

void Group::submit_space_parameter() { waiting_for_submit = Value::object(); }

}  // namespace korvalin_client::group
