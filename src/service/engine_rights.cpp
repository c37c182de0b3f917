// The engine on behalf of a caller: who calls (the local user, or a user known by a token),
// the rights each operation of the catalogue needs, checked before the method of the same name
// runs, and the administration of users, tokens and rights.
#include <cctype>
#include <optional>
#include <string>
#include <utility>

#include "engine_args.hpp"
#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::service {
using namespace checks;

namespace {

constexpr const char* kRead = "READ";
constexpr const char* kWrite = "WRITE";
// Longer than any token the store makes; a longer one is not hashed at all.
constexpr std::size_t kMaxTokenBytes = 256;
// User and organisation names appear in messages and in the server's log.
constexpr std::size_t kMaxAccountNameBytes = 128;

const std::string& account_name(const std::string& name, const std::string& what) {
  if (name.empty() || name.size() > kMaxAccountNameBytes) {
    throw ValueError(what + " must be 1 to " + std::to_string(kMaxAccountNameBytes) +
                     " bytes long");
  }
  for (const char c : name) {
    if (std::iscntrl(static_cast<unsigned char>(c))) {
      throw ValueError(what + " must not hold control characters: " + shown(name));
    }
  }
  return name;
}

Caller caller_of(const User& user) {
  return Caller{user.user_id, user.organization_id, user.user_name};
}

const std::string& name_of(const Value& group) {
  return group["device_group_name"].get_ref<const std::string&>();
}

}  // namespace

// ---- callers ------------------------------------------------------------------------------

const Caller& Engine::local_caller() const { return local_; }

std::optional<Caller> Engine::authenticate(std::string_view token) {
  if (token.empty() || token.size() > kMaxTokenBytes) return std::nullopt;
  const std::optional<User> user = store_.user_of_token(Store::token_hash(token));
  if (!user) return std::nullopt;
  return caller_of(*user);
}

Value Engine::group_of(const Value& record) {
  const std::int64_t id = record["device_group_id"].get<std::int64_t>();
  std::optional<Value> group = store_.find_group(id);
  if (!group) throw RuntimeError("unknown device group " + std::to_string(id));
  return std::move(*group);
}

void Engine::authorize(const Caller& caller, const Value& group, const char* access,
                       const std::string& unknown) {
  if (group["organization_id"].get<std::int64_t>() != caller.organization_id) {
    throw RuntimeError(unknown);
  }
  if (access != nullptr &&
      !store_.has_right(caller.user_id, group["device_group_id"].get<std::int64_t>(), access)) {
    throw PermissionError("user " + shown(caller.user_name) + " lacks " + access +
                          " on device group " + shown(name_of(group)));
  }
}

// ---- the rights of each operation ---------------------------------------------------------

// Every operation must have its rule below, in every build: a missing case fails to compile.
#pragma GCC diagnostic push
#pragma GCC diagnostic error "-Wswitch"

Value Engine::call(const Caller& caller, com::Operation op, const com::Args& args) {
  using com::Operation;
  const com::OperationInfo& info = com::info(op);
  if (args.size() != info.arguments.size()) {
    throw ValueError(std::string(info.name) + " takes " + std::to_string(info.arguments.size()) +
                     " arguments, not " + std::to_string(args.size()));
  }
  // Names are looked up in the caller's organisation, by the rules and by the methods.
  struct Acting {
    const Caller* outer = t_acting;
    explicit Acting(const Caller& c) { t_acting = &c; }
    ~Acting() { t_acting = outer; }
  } acting(caller);
  // An operation that only reads sees the store as of one moment, for its check and its answer.
  std::optional<Store::ReadSnapshot> snapshot;
  if (com::is_read(op)) snapshot.emplace(store_);
  // The argument of that name: every rule below reads its arguments by their names.
  const auto arg = [&](std::string_view name) -> const Value& {
    for (std::size_t i = 0; i < info.arguments.size(); ++i) {
      if (info.arguments[i] == name) return args[i];
    }
    throw RuntimeError("operation " + std::string(info.name) + " has no argument " +
                       std::string(name));
  };
  // What the operation names, read by the helpers its method reads it with; what is of
  // another organisation gets the error of what does not exist. group() and experiment()
  // return the group they checked.
  const auto group = [&](std::string_view name, const char* access) {
    Value g = require_group(arg(name), name);
    authorize(caller, g, access, "unknown device group " + shown(name_of(g)));
    return g;
  };
  const auto space = [&](const char* access) {
    const Value s = require_space(arg("space_id"), "space_id");
    authorize(caller, group_of(s), access, "unknown space " + to_text(s["space_id"]));
  };
  const auto experiment = [&](const char* access) {
    const Value e = require_experiment(arg("sub_process_id"), "sub_process_id");
    Value g = group_of(e);
    authorize(caller, g, access, "unknown experiment " + to_text(e["sub_process_id"]));
    return g;
  };
  const auto folder = [&](std::string_view name) {
    const std::optional<std::int64_t> id = opt_int(arg(name), name);
    if (!id) return;
    if (const std::optional<Value> f = store_.find_folder(*id)) {
      authorize(caller, group_of(require_space((*f)["space_id"], name)), nullptr,
                "unknown experiment folder " + std::to_string(*id));
    }
  };
  // A record of `group` names a resource of that group, or one the caller may read; any other
  // (another organisation's, of a group they lack READ on, someone else's of no group) does not
  // exist for them.
  const auto resource = [&](std::string_view name, const Value& group) {
    const std::optional<std::int64_t> id = opt_int(arg(name), name);
    if (!id) return;
    const Value found = store_.resources({*id});
    if (found.empty() ||
        (found[0]["device_group_id"] != group["device_group_id"] &&
         store_.resources({*id}, Viewer{caller.user_id, caller.organization_id}).empty())) {
      throw RuntimeError("unknown resource " + std::to_string(*id));
    }
  };
  const auto own_organization = [&](std::string_view name, const char* doing) {
    const std::optional<std::int64_t> org = opt_int(arg(name), name);
    if (org && *org != caller.organization_id) {
      throw PermissionError("user " + shown(caller.user_name) + " may not " + doing +
                            " of another organisation (" + std::to_string(*org) + ")");
    }
  };

  switch (op) {
    case Operation::get_group_list:
      own_organization("org_id", "list the device groups");
      return get_group_list(arg("page"), arg("per_page"), caller.organization_id,
                            arg("show_hidden"));
    case Operation::create_group:
      own_organization("organization_id", "create a device group");
      return create_group_as(caller, arg("device_group_name"), arg("description"),
                             arg("organization_id"));
    case Operation::get_group_detail:
      group("device_group_name", nullptr);
      return dispatch(op, args);
    case Operation::list_space:
      group("group_name", kRead);
      return dispatch(op, args);
    case Operation::create_space:
      group("group_name", kWrite);
      return dispatch(op, args);
    case Operation::get_space_detail:
    case Operation::get_parameter:
    case Operation::get_parameter_log:
    case Operation::get_parameter_tree:
    case Operation::get_parameter_history:
    case Operation::list_sub_processes:
    case Operation::list_new_experiments:
    case Operation::list_sub_processes_by_folder:
    case Operation::count_experiments_by_folder:
      space(kRead);
      return dispatch(op, args);
    case Operation::set_space_hidden:
    case Operation::add_parameter:
    case Operation::delete_parameter:
      space(kWrite);
      return dispatch(op, args);
    case Operation::create_exp_folder:
      space(kWrite);
      folder("parent_exp_folder_id");
      return dispatch(op, args);
    case Operation::list_exp_folders_by_parent:
      if (!arg("device_group_name").is_null()) group("device_group_name", kRead);
      space(kRead);
      folder("parent_exp_folder_id");
      return dispatch(op, args);
    case Operation::create_sub_process:
      resource("resource_id", group("group_name", kWrite));
      space(kWrite);
      folder("exp_folder_id");
      return dispatch(op, args);
    case Operation::get_sub_process_detail:
    case Operation::get_sub_process_result:
    case Operation::get_sub_process_msg:
    case Operation::download_result_chunk_from_cache:
    case Operation::get_fitting_result:
      experiment(kRead);
      return dispatch(op, args);
    case Operation::terminate_sub_process:
      experiment(kWrite);
      return dispatch(op, args);
    case Operation::add_fitting_result: {
      const Value g = experiment(kWrite);
      space(kWrite);
      resource("big_img_id", g);
      resource("small_img_id", g);
      return dispatch(op, args);
    }
    case Operation::add_resource:
      if (const std::optional<std::int64_t> id =
              opt_int(arg("device_group_id"), "device_group_id")) {
        const Value g = group_of(Value{{"device_group_id", *id}});
        authorize(caller, g, kWrite, "unknown device group " + std::to_string(*id));
      }
      return add_resource_as(&caller, arg("file_name"), arg("file_format"), arg("uri"),
                             arg("category"), arg("source"), arg("device_group_id"));
    case Operation::get_resource_info:
      return resource_info(arg("resource_ids"), Viewer{caller.user_id, caller.organization_id});
    case Operation::check_device_permission_by_name:
      return device_permission_of(caller, arg("group_name"), arg("access"));
    case Operation::check_space_permission_by_id:
      return space_permission_of(caller, arg("space_id"));
  }
  // Reached only by a value outside the catalogue: refused, never answered unchecked.
  throw PermissionError("operation " + std::to_string(static_cast<int>(op)) +
                        " has no rule in the rights table");
}

#pragma GCC diagnostic pop

// ---- permission checks --------------------------------------------------------------------

Value Engine::check_device_permission_by_name(const Value& group_name, const Value& access) {
  return device_permission_of(local_, group_name, access);
}

Value Engine::check_space_permission_by_id(const Value& space_id) {
  return space_permission_of(local_, space_id);
}

Value Engine::device_permission_of(const Caller& caller, const Value& group_name,
                                   const Value& access) {
  const Value group = require_group(group_name, "group_name", caller.organization_id);
  const std::string right = access_arg(access);
  return store_.has_right(caller.user_id, group["device_group_id"].get<std::int64_t>(), right);
}

Value Engine::space_permission_of(const Caller& caller, const Value& space_id) {
  const Value space = require_space(space_id, "space_id");
  const Value group = group_of(space);
  authorize(caller, group, nullptr, "unknown space " + to_text(space["space_id"]));
  return store_.has_right(caller.user_id, group["device_group_id"].get<std::int64_t>(), kWrite);
}

// ---- administration -----------------------------------------------------------------------

User Engine::require_user(const std::string& user_name) {
  std::optional<User> user = store_.find_user(user_name);
  if (!user) throw RuntimeError("unknown user " + shown(user_name));
  return std::move(*user);
}

Caller Engine::add_user(const std::string& user_name, const std::string& organization_name) {
  account_name(user_name, "user name");
  // Checked first so that a taken name creates no organisation either.
  if (store_.find_user(user_name))
    throw RuntimeError("user " + shown(user_name) + " already exists");
  const std::int64_t org = organization_name.empty()
                               ? Store::kLocalOrganizationId
                               : store_.find_or_create_organization(
                                     account_name(organization_name, "organisation name"));
  return caller_of(store_.add_user(user_name, org));
}

std::string Engine::create_token(const std::string& user_name) {
  return store_.create_token(require_user(user_name).user_id, now());
}

std::int64_t Engine::revoke_tokens(const std::string& user_name) {
  return store_.revoke_tokens(require_user(user_name).user_id);
}

void Engine::set_right(const std::string& user_name, const std::string& group_name,
                       const std::string& access, bool granted) {
  const User user = require_user(user_name);
  const Value group = require_group(group_name, "group_name", user.organization_id);
  store_.set_right(user.user_id, group["device_group_id"].get<std::int64_t>(), access_arg(access),
                   granted);
}

void Engine::set_right(const std::string& group_name, const std::string& access, bool granted) {
  set_right(local_.user_name, group_name, access, granted);
}

}  // namespace korvalin_client::service
