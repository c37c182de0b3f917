#include "korvalin_client/service/engine.hpp"

#include <algorithm>
#include <utility>

#include "engine_args.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/parameter_codec.hpp"
#include "korvalin_client/utils/task_status.hpp"

namespace korvalin_client::service {
using namespace checks;

namespace {

Value parameter_records(std::vector<Parameter> parameters) {
  Value list = Value::array();
  list.get_ref<Value::array_t&>().reserve(parameters.size());
  for (Parameter& p : parameters) {
    list.push_back(Value{
        {"key", std::move(p.key)}, {"value", std::move(p.value)}, {"type", std::move(p.type)}});
  }
  return list;
}

}  // namespace

Engine::Engine(std::string storage_dir)
    : store_(std::move(storage_dir)), objects_dir_(store_.storage_dir() + "/objects") {
  const User local = require_user(Store::kLocalUserName);
  local_ = Caller{local.user_id, local.organization_id, local.user_name};
}

const std::string& Engine::service_identity() const { return store_.service_identity(); }

// ---- lookups ------------------------------------------------------------------------------

std::int64_t Engine::acting_organization() const {
  return t_acting != nullptr ? t_acting->organization_id : local_.organization_id;
}

Value Engine::require_group(const Value& group_name, std::string_view what,
                            std::optional<std::int64_t> organization_id) {
  const std::string& name = text_arg(group_name, what);
  std::optional<Value> group =
      store_.find_group(name, organization_id.value_or(acting_organization()));
  if (!group) throw RuntimeError("unknown device group " + shown(name));
  return std::move(*group);
}

Value Engine::require_space(const Value& space_id, std::string_view what) {
  const std::int64_t id = expect_int(space_id, what);
  std::optional<Value> space = store_.find_space(id);
  if (!space) throw RuntimeError("unknown space " + std::to_string(id));
  return std::move(*space);
}

Value Engine::require_experiment(const Value& sub_process_id, std::string_view what) {
  const std::int64_t id = expect_int(sub_process_id, what);
  std::optional<Value> exp = store_.find_experiment(id);
  if (!exp) throw RuntimeError("unknown experiment " + std::to_string(id));
  return std::move(*exp);
}

// ---- device -------------------------------------------------------------------------------

Value Engine::get_group_list(const Value& page, const Value& per_page, const Value& org_id,
                             const Value& show_hidden) {
  const PageWindow window = page_arg(page, per_page);
  Value result = store_.list_groups(opt_int(org_id, "org_id"),
                                    bool_or(show_hidden, "show_hidden", true), window);
  result["page"] = count_arg(page, "page", 1, 1);
  result["per_page"] = window.limit;
  return result;
}

Value Engine::create_group(const Value& device_group_name, const Value& description,
                           const Value& organization_id) {
  return create_group_as(local_, device_group_name, description, organization_id);
}

Value Engine::create_group_as(const Caller& owner, const Value& device_group_name,
                              const Value& description, const Value& organization_id) {
  const std::string& name = name_arg(device_group_name, "device_group_name");
  // The client keeps a directory per group below its cache root, named after it: "site/lab-a"
  // nests, "../x" would lead out.
  try {
    utils::check_relative_path(name, "device group");
  } catch (const RuntimeError& e) {
    throw ValueError("device_group_name: " + std::string(e.what()));
  }
  const std::string desc = text_or(description, "description", "");
  const std::int64_t org =
      opt_int(organization_id, "organization_id").value_or(owner.organization_id);
  return store_.create_group(name, desc, org, owner.user_id, now());
}

Value Engine::get_group_detail(const Value& device_group_name) {
  return require_group(device_group_name, "device_group_name");
}

// ---- space --------------------------------------------------------------------------------

Value Engine::list_space(const Value& group_name, const Value& page, const Value& per_page,
                         const Value& show_hidden_space) {
  const Value group = require_group(group_name, "group_name");
  const PageWindow window = page_arg(page, per_page);
  Value result = store_.list_spaces(group["device_group_id"].get<std::int64_t>(),
                                    bool_or(show_hidden_space, "show_hidden_space", false), window);
  result["page"] = count_arg(page, "page", 1, 1);
  result["per_page"] = window.limit;
  return result;
}

Value Engine::create_space(const Value& group_name, const Value& space_name,
                           const Value& description) {
  const Value group = require_group(group_name, "group_name");
  const std::string& name = name_arg(space_name, "space_name");
  return store_.create_space(group["device_group_id"].get<std::int64_t>(), name,
                             text_or(description, "description", ""), now(),
                             kMaxSpacesPerGroup);
}

Value Engine::get_space_detail(const Value& space_id) {
  return require_space(space_id, "space_id");
}

Value Engine::set_space_hidden(const Value& space_id, const Value& hidden) {
  const std::int64_t id = expect_int(space_id, "space_id");
  if (!hidden.is_boolean() && !hidden.is_number_integer()) {
    throw TypeError(std::string("hidden must be a boolean, not ") + kind_name(hidden));
  }
  return store_.set_space_hidden(id, bool_or(hidden, "hidden", false));
}

Value Engine::get_parameter(const Value& space_id, const Value& timestamp,
                            const Value& parent_category) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  const std::optional<std::int64_t> ts = time_arg(timestamp, "timestamp");
  const std::string path = tree_path(parent_category, "parent_category");
  return parameter_records(store_.parameters_as_of(id, ts, path.empty() ? "" : path + "/"));
}

Value Engine::get_parameter_log(const Value& space_id, const Value& timestamp) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  return store_.parameter_log(id, time_arg(timestamp, "timestamp").value_or(0));
}

Value Engine::add_parameter(const Value& space_id, const Value& keys, const Value& values,
                            const Value& types, const Value& experiment_id, const Value& node_id,
                            const Value& session_id) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  const Value& key_list = list_arg(keys, "keys");
  const Value& value_list = list_arg(values, "values");
  const Value& type_list = list_arg(types, "types");
  if (value_list.size() != key_list.size() || type_list.size() != key_list.size()) {
    throw ValueError("keys, values and types must be of one length (" +
                     std::to_string(key_list.size()) + ", " + std::to_string(value_list.size()) +
                     ", " + std::to_string(type_list.size()) + ")");
  }
  if (key_list.size() > kMaxWriteKeys) {
    throw ValueError("one add_parameter writes at most " + std::to_string(kMaxWriteKeys) +
                     " keys, not " + std::to_string(key_list.size()) + "; write them in parts");
  }
  std::vector<Parameter> parameters;
  parameters.reserve(key_list.size());
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < key_list.size(); ++i) {
    const std::string at = "[" + std::to_string(i) + "]";
    const Value& value = value_list[i];
    if (value.is_string()) {
      text_arg(value, "values" + at);
    } else {
      check_kept_value(value, "values" + at);
    }
    const Value& type = type_list[i];
    expect_text_or_null(type, "types" + at);
    if (type.is_string()) text_arg(type, "types" + at);
    std::string key = key_arg(key_list[i], "keys" + at);
    utils::check_stored_parameter(key, value, type);  // one unreadable value spoils a space
    bytes += key.size() + (value.is_string() ? value.get_ref<const std::string&>().size()
                                             : value.dump().size());
    if (bytes > kMaxWriteBytes) {
      throw ValueError("one add_parameter writes at most " + std::to_string(kMaxWriteBytes) +
                       " bytes of keys and values; write them in parts");
    }
    parameters.push_back(Parameter{std::move(key), value, type});
  }
  const std::int64_t time = now();
  const std::int64_t version =
      store_.add_parameters(id, parameters, time, tag_arg(experiment_id, "experiment_id"),
                            tag_arg(node_id, "node_id"), tag_arg(session_id, "session_id"));
  return Value{
      {"space_id", id}, {"count", parameters.size()}, {"version", version}, {"timestamp", time}};
}

Value Engine::delete_parameter(const Value& space_id, const Value& key,
                               const Value& delete_status) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  const std::string full_key = key_arg(key, "key");
  if (!bool_or(delete_status, "delete_status", true)) {
    throw ValueError(
        "delete_status false asks for no deletion; a parameter is restored by "
        "adding it again");
  }
  const std::int64_t time = now();
  const std::int64_t version = store_.delete_parameter(id, full_key, time);
  return Value{{"space_id", id}, {"key", full_key}, {"version", version}, {"timestamp", time}};
}

Value Engine::get_parameter_tree(const Value& space_id, const Value& version,
                                 const Value& parent_tree) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  const std::int64_t v = count_arg(version, "version", 0, 0);
  const std::string prefix = tree_path(parent_tree, "parent_tree") + "/";
  // Inner nodes and leaves of one name are distinct nodes; both sort by name, inner first.
  std::map<std::pair<std::string, bool>, Value> nodes;
  for (Parameter& p : store_.parameters_at_version(id, v, prefix)) {
    const std::string rest = p.key.substr(prefix.size());
    const std::size_t slash = rest.find('/');
    if (slash == std::string::npos) {
      nodes[{rest, true}] = Value{{"node_name", rest},
                                  {"expandable", false},
                                  {"v", std::move(p.value)},
                                  {"t", std::move(p.type)}};
    } else {
      std::string name = rest.substr(0, slash);
      auto& slot = nodes[{name, false}];
      if (slot.is_null()) slot = Value{{"node_name", std::move(name)}, {"expandable", true}};
    }
  }
  Value list = Value::array();
  for (auto& [key, node] : nodes) list.push_back(std::move(node));
  return list;
}

Value Engine::get_parameter_history(const Value& space_id, const Value& key, const Value& page,
                                    const Value& per_page) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  expect_text_or_null(key, "key");
  const std::optional<std::string> full_key =
      key.is_null() ? std::nullopt : std::optional<std::string>(key_arg(key, "key"));
  return store_.parameter_history(id, full_key, page_arg(page, per_page));
}

// ---- sub_process --------------------------------------------------------------------------

Value Engine::create_sub_process(const Value& organization_id, const Value& group_name,
                                 const Value& space_id, const Value& title, const Value& desc,
                                 const Value& resource_id, const Value& source,
                                 const Value& space_timestamp, const Value& template_name,
                                 const Value& exp_folder_id, const Value& priority) {
  const Value group = require_group(group_name, "group_name");
  const Value space = require_space(space_id, "space_id");
  NewExperiment exp;
  exp.device_group_id = group["device_group_id"].get<std::int64_t>();
  exp.organization_id = group["organization_id"].get<std::int64_t>();
  const std::optional<std::int64_t> org = opt_int(organization_id, "organization_id");
  if (org && *org != exp.organization_id) {
    throw ValueError("device group " + shown(group["device_group_name"].get<std::string>()) +
                     " does not belong to organization " + std::to_string(*org));
  }
  exp.space_id = space["space_id"].get<std::int64_t>();
  if (space["device_group_id"] != group["device_group_id"]) {
    throw ValueError("space " + std::to_string(exp.space_id) + " does not belong to device group " +
                     shown(group["device_group_name"].get<std::string>()));
  }
  exp.title = text_or(title, "title", "");
  exp.desc = text_or(desc, "desc", "");
  exp.resource_id = opt_int(resource_id, "resource_id");
  exp.source = text_or(source, "source", "SDK");
  exp.space_timestamp = time_arg(space_timestamp, "space_timestamp").value_or(now());
  exp.template_name = opt_text(template_name, "template_name");
  exp.exp_folder_id = opt_int(exp_folder_id, "exp_folder_id");
  if (exp.exp_folder_id) {
    const std::optional<Value> folder = store_.find_folder(*exp.exp_folder_id);
    if (!folder)
      throw RuntimeError("unknown experiment folder " + std::to_string(*exp.exp_folder_id));
    if ((*folder)["space_id"] != space["space_id"]) {
      throw ValueError("experiment folder " + std::to_string(*exp.exp_folder_id) +
                       " is not in space " + std::to_string(exp.space_id));
    }
  }
  if (!priority.is_null() && !priority.is_number_integer()) text_arg(priority, "priority");
  exp.priority = priority;
  if (exp.resource_id) take_resource(*exp.resource_id, group);
  return store_.create_experiment(exp, now());
}

Value Engine::get_sub_process_detail(const Value& sub_process_id) {
  return require_experiment(sub_process_id, "sub_process_id");
}

Value Engine::get_sub_process_result(const Value& sub_process_id, const Value& start_piece_id,
                                     const Value& end_piece_id) {
  const std::int64_t id = expect_int(sub_process_id, "sub_process_id");
  const std::int64_t start = opt_int(start_piece_id, "start_piece_id").value_or(0);
  const std::int64_t end = opt_int(end_piece_id, "end_piece_id").value_or(kNoUpperBound);
  if (!store_.find_experiment(id)) throw RuntimeError("unknown experiment " + std::to_string(id));
  return store_.result_pieces(id, start, end);
}

Value Engine::get_sub_process_msg(const Value& sub_process_id) {
  return store_.experiment_messages(expect_int(sub_process_id, "sub_process_id"));
}

Value Engine::list_sub_processes(const Value& space_id, const Value& page, const Value& per_page) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  return store_.list_experiments(id, page_arg(page, per_page));
}

Value Engine::list_new_experiments(const Value& space_id, const Value& since_exp_id,
                                   const Value& exp_folder_id, const Value& limit) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  return store_.list_new_experiments(id, opt_int(since_exp_id, "since_exp_id").value_or(0),
                                     opt_int(exp_folder_id, "exp_folder_id"), limit_arg(limit, 50));
}

Value Engine::list_sub_processes_by_folder(const Value& space_id, const Value& exp_folder_id,
                                           const Value& before_exp_id, const Value& limit) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  return store_.list_experiments_by_folder(id, opt_int(exp_folder_id, "exp_folder_id"),
                                           opt_int(before_exp_id, "before_exp_id"),
                                           limit_arg(limit, 10));
}

Value Engine::count_experiments_by_folder(const Value& space_id, const Value& exp_folder_id) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  return Value{
      {"count", store_.count_experiments_by_folder(id, opt_int(exp_folder_id, "exp_folder_id"))}};
}

Value Engine::terminate_sub_process(const Value& sub_process_id) {
  Value exp = require_experiment(sub_process_id, "sub_process_id");
  const std::string status = exp["status"].get<std::string>();
  if (utils::task_status::is_terminal(status)) return exp;
  const std::int64_t id = exp["sub_process_id"].get<std::int64_t>();
  store_.append_message(id, "info", "terminated by the user", now());
  return store_.set_experiment_status(id, std::string(utils::task_status::CANCELED), std::nullopt,
                                      now());
}

Value Engine::download_result_chunk_from_cache(const Value& sub_process_id, const Value& chunk_id) {
  const Value exp = require_experiment(sub_process_id, "sub_process_id");
  const std::int64_t id = exp["sub_process_id"].get<std::int64_t>();
  const std::int64_t piece = expect_int(chunk_id, "chunk_id");
  const std::optional<Value> locator = store_.result_piece_locator(id, piece);
  if (!locator) {
    throw RuntimeError("experiment " + std::to_string(id) + " has no result piece " +
                       std::to_string(piece));
  }
  Bytes data = object_store(exp["organization_id"].get<std::int64_t>())->download(*locator);
  return Value::binary(std::move(data));
}

Value Engine::create_exp_folder(const Value& space_id, const Value& exp_folder_name,
                                const Value& parent_exp_folder_id) {
  const std::int64_t id = require_space(space_id, "space_id")["space_id"].get<std::int64_t>();
  const std::string& name = name_arg(exp_folder_name, "exp_folder_name");
  const std::optional<std::int64_t> parent = opt_int(parent_exp_folder_id, "parent_exp_folder_id");
  if (parent) {
    const std::optional<Value> folder = store_.find_folder(*parent);
    if (!folder) throw RuntimeError("unknown experiment folder " + std::to_string(*parent));
    if ((*folder)["space_id"].get<std::int64_t>() != id) {
      throw ValueError("experiment folder " + std::to_string(*parent) + " is not in space " +
                       std::to_string(id));
    }
  }
  return store_.create_folder(id, name, parent, now());
}

Value Engine::list_exp_folders_by_parent(const Value& device_group_name, const Value& space_id,
                                         const Value& parent_exp_folder_id) {
  const Value space = require_space(space_id, "space_id");
  if (!device_group_name.is_null()) {
    const Value group = require_group(device_group_name, "device_group_name");
    if (group["device_group_id"] != space["device_group_id"]) {
      throw ValueError("space " + to_text(space["space_id"]) + " does not belong to device group " +
                       shown(group["device_group_name"].get<std::string>()));
    }
  }
  const std::optional<std::int64_t> parent = opt_int(parent_exp_folder_id, "parent_exp_folder_id");
  if (parent && !store_.find_folder(*parent)) {
    throw RuntimeError("unknown experiment folder " + std::to_string(*parent));
  }
  return store_.list_folders(space["space_id"].get<std::int64_t>(), parent);
}

Value Engine::add_fitting_result(const Value& sub_process_id, const Value& space_id,
                                 const Value& big_img_id, const Value& small_img_id,
                                 const Value& fitting_result) {
  const Value exp = require_experiment(sub_process_id, "sub_process_id");
  const Value space = require_space(space_id, "space_id");
  const std::int64_t big = expect_int(big_img_id, "big_img_id");
  const std::int64_t small = expect_int(small_img_id, "small_img_id");
  check_kept_value(fitting_result, "fitting_result");
  const Value group = group_of(exp);
  for (const std::int64_t rid : {big, small}) take_resource(rid, group);
  return store_.add_fitting_result(exp["sub_process_id"].get<std::int64_t>(),
                                   space["space_id"].get<std::int64_t>(), big, small,
                                   fitting_result, now());
}

Value Engine::get_fitting_result(const Value& sub_process_id) {
  const Value exp = require_experiment(sub_process_id, "sub_process_id");
  return store_.fitting_results(exp["sub_process_id"].get<std::int64_t>());
}

// ---- for execution ------------------------------------------------------------------------

std::vector<std::int64_t> Engine::queued_experiments(std::int64_t limit) {
  return store_.queued_experiments(std::clamp<std::int64_t>(limit, 0, kMaxListItems));
}

Value Engine::set_experiment_status(std::int64_t sub_process_id, const std::string& status,
                                    const std::optional<Value>& progress) {
  const std::string normal = utils::task_status::normalize_sub_process_status(status);
  if (normal.empty()) throw ValueError("status must not be empty");
  if (progress) check_kept_value(*progress, "progress");
  return store_.set_experiment_status(sub_process_id, normal, progress, now());
}

std::vector<std::int64_t> Engine::running_experiments(std::int64_t limit) {
  return store_.experiments_with_status(std::string(utils::task_status::RUNNING),
                                        std::clamp<std::int64_t>(limit, 0, kMaxListItems));
}

std::optional<Value> Engine::set_experiment_status_if(std::int64_t sub_process_id,
                                                      const std::string& expected,
                                                      const std::string& status,
                                                      const std::optional<Value>& progress) {
  const std::string from = utils::task_status::normalize_sub_process_status(expected);
  const std::string to = utils::task_status::normalize_sub_process_status(status);
  if (to.empty()) throw ValueError("status must not be empty");
  if (progress) check_kept_value(*progress, "progress");
  return store_.set_experiment_status_if(sub_process_id, from, to, progress, now());
}

void Engine::append_experiment_message(std::int64_t sub_process_id, const std::string& level,
                                       const std::string& message) {
  text_arg(level, "message level");
  text_arg(message, "message");
  store_.append_message(sub_process_id, level, message, now());
}

Value Engine::store_result_piece(std::int64_t sub_process_id, std::int64_t piece_id,
                                 const Bytes& data, std::int64_t item_id_start,
                                 std::int64_t item_id_end, bool final_piece) {
  const Value exp = require_experiment(sub_process_id, "sub_process_id");
  if (piece_id < 0) throw ValueError("piece_id must not be negative: " + std::to_string(piece_id));
  if (item_id_end < item_id_start) {
    throw ValueError("item_id_end " + std::to_string(item_id_end) + " is before item_id_start " +
                     std::to_string(item_id_start));
  }
  const std::int64_t organization_id = exp["organization_id"].get<std::int64_t>();
  const Value locator = object_store(organization_id)
                            ->upload(std::to_string(sub_process_id) + "_" +
                                         std::to_string(piece_id),
                                     data, "result", "kvres");
  store_.claim_object(organization_id, locator["object"].get<std::string>(),
                      exp["device_group_id"].get<std::int64_t>(), now());
  store_.add_result_piece(
      ResultPiece{sub_process_id, piece_id, item_id_start, item_id_end, final_piece, locator});
  return store_.result_pieces(sub_process_id, piece_id, piece_id).at(0);
}

std::int64_t Engine::remove_result_pieces(std::int64_t sub_process_id, std::int64_t start,
                                          std::int64_t end) {
  return store_.remove_result_pieces(sub_process_id, start, end);
}

std::int64_t Engine::set_result_resource(std::int64_t sub_process_id, std::int64_t resource_id) {
  if (store_.resources({resource_id}).empty()) {
    throw RuntimeError("unknown resource " + std::to_string(resource_id));
  }
  return store_.set_result_resource(sub_process_id, resource_id);
}

void Engine::set_piece_resource(std::int64_t sub_process_id, std::int64_t piece_id,
                                std::int64_t resource_id) {
  if (store_.resources({resource_id}).empty()) {
    throw RuntimeError("unknown resource " + std::to_string(resource_id));
  }
  if (!store_.set_piece_resource(sub_process_id, piece_id, resource_id)) {
    throw RuntimeError("experiment " + std::to_string(sub_process_id) + " has no result piece " +
                       std::to_string(piece_id));
  }
}

std::vector<Parameter> Engine::space_parameters_as_of(std::int64_t space_id,
                                                      std::optional<std::int64_t> timestamp) {
  if (!store_.find_space(space_id)) throw RuntimeError("unknown space " + std::to_string(space_id));
  return store_.parameters_as_of(space_id, timestamp);
}

}  // namespace korvalin_client::service
