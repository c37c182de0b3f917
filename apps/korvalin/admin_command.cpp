// korvalin admin: users, their tokens and their rights, written straight into a store (the
// SQLite file is shared safely with a server running on it).
//
//   korvalin admin user add NAME [--org ORG] [--storage DIR]
//   korvalin admin token create NAME [--storage DIR]
//   korvalin admin token revoke NAME [--storage DIR]
//   korvalin admin right grant|revoke NAME GROUP READ|WRITE [--storage DIR]
//   korvalin admin quota set ORG [--bytes N|unlimited] [--queued N|unlimited] [--storage DIR]
//   korvalin admin quota show [ORG] [--storage DIR]
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli.hpp"
#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/utils/value.hpp"
#include "output.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;

// What every admin command takes.
struct AdminOptions {
  std::string storage;  // empty: the default storage directory
  std::string user;
  std::string org;     // user add: the organisation (empty: the local one)
  std::string group;   // right: the device group
  std::string access;  // right: READ or WRITE
  std::string bytes;   // quota set: a count, "unlimited", or empty (kept)
  std::string queued;
  bool json = false;
};

std::string in_quotes(const std::string& text) { return "\"" + cell(text) + "\""; }

std::string organization_name(kc::service::Engine& engine, std::int64_t id) {
  return kc::to_text(engine.store().organization(id)["organization_name"]);
}

int add_user(const AdminOptions& o) {
  kc::service::Engine engine(o.storage);
  const kc::service::Caller user = engine.add_user(o.user, o.org);
  const std::string organization = organization_name(engine, user.organization_id);
  if (o.json) {
    print_json({{"user_name", user.user_name},
                {"organization_id", user.organization_id},
                {"organization_name", organization}});
  } else {
    std::cout << "Added user " << in_quotes(user.user_name) << " to organisation "
              << in_quotes(organization) << " (" << user.organization_id << ")\n";
  }
  return 0;
}

int create_token(const AdminOptions& o) {
  kc::service::Engine engine(o.storage);
  const std::string token = engine.create_token(o.user);
  if (o.json) {
    print_json({{"user_name", o.user}, {"token", token}});
  } else {
    std::cout << "A new token of user " << in_quotes(o.user)
              << "; it is shown this once, keep it safe:\n"
              << token << std::endl;
  }
  return 0;
}

int revoke_tokens(const AdminOptions& o) {
  kc::service::Engine engine(o.storage);
  const std::int64_t n = engine.revoke_tokens(o.user);
  if (o.json) {
    print_json({{"user_name", o.user}, {"revoked", n}});
  } else {
    std::cout << "Revoked " << n << (n == 1 ? " token" : " tokens") << " of user "
              << in_quotes(o.user) << "\n";
  }
  return 0;
}

int set_right(const AdminOptions& o, bool grant) {
  kc::service::Engine engine(o.storage);
  engine.set_right(o.user, o.group, o.access, grant);
  if (o.json) {
    print_json({{"user_name", o.user},
                {"device_group_name", o.group},
                {"right", o.access},
                {"granted", grant}});
  } else {
    std::cout << (grant ? "Granted " : "Revoked ") << o.access << " on device group "
              << in_quotes(o.group) << (grant ? " to" : " of") << " user " << in_quotes(o.user)
              << "\n";
  }
  return 0;
}

// ---- quotas ---------------------------------------------------------------------------------

// The organisation named `org` (its name, or its id); a RuntimeError for none.
kc::service::Quota find_quota(kc::service::Engine& engine, const std::string& org) {
  for (kc::service::Quota& q : engine.store().quotas()) {
    if (q.organization_name == org || std::to_string(q.organization_id) == org) return q;
  }
  throw kc::RuntimeError("unknown organisation \"" + org + "\"");
}

// A quota option: empty keeps `current`, "unlimited" removes the limit.
std::optional<std::int64_t> limit_of(const std::string& text, const char* option,
                                     std::optional<std::int64_t> current) {
  if (text.empty()) return current;
  if (text == "unlimited") return std::nullopt;
  std::size_t used = 0;
  long long n = -1;
  try {
    n = std::stoll(text, &used);
  } catch (const std::exception&) {
  }
  if (used != text.size() || n < 0) {
    throw kc::ValueError(std::string(option) +
                         " must be a count of at least 0 or \"unlimited\", not \"" + text + "\"");
  }
  return n;
}

kc::Value limit_value(const std::optional<std::int64_t>& limit) {
  return limit ? kc::Value(*limit) : kc::Value(nullptr);
}

std::string limit_text(const std::optional<std::int64_t>& limit) {
  return limit ? std::to_string(*limit) : "unlimited";
}

kc::Value quota_record(const kc::service::Quota& q) {
  return {{"organization_id", q.organization_id},
          {"organization_name", q.organization_name},
          {"stored_bytes", q.stored_bytes},
          {"max_bytes", limit_value(q.max_bytes)},
          {"queued", q.queued},
          {"max_queued", limit_value(q.max_queued)}};
}

void print_quotas(const std::vector<kc::service::Quota>& quotas, bool json) {
  if (json) {
    kc::Value list = kc::Value::array();
    for (const auto& q : quotas) list.push_back(quota_record(q));
    print_json(list);
    return;
  }
  for (const auto& q : quotas) {
    std::cout << "organisation " << in_quotes(q.organization_name) << " (" << q.organization_id
              << "): stores " << q.stored_bytes << " of " << limit_text(q.max_bytes) << " bytes; "
              << q.queued << " of " << limit_text(q.max_queued) << " experiments queued\n";
  }
}

int set_quota(const AdminOptions& o) {
  kc::service::Engine engine(o.storage);
  const kc::service::Quota q = find_quota(engine, o.org);
  engine.store().set_quota(q.organization_id, limit_of(o.bytes, "--bytes", q.max_bytes),
                           limit_of(o.queued, "--queued", q.max_queued));
  print_quotas({engine.store().quota(q.organization_id)}, o.json);
  return 0;
}

int show_quotas(const AdminOptions& o) {
  kc::service::Engine engine(o.storage);
  print_quotas(o.org.empty() ? engine.store().quotas()
                             : std::vector<kc::service::Quota>{find_quota(engine, o.org)},
               o.json);
  return 0;
}

// A command of `parent` about user NAME, with --storage and --json; its options are `o`.
CLI::App* admin_command(CLI::App& parent, const std::string& name, const std::string& description,
                        Program& program, const std::shared_ptr<AdminOptions>& o,
                        std::function<int(const AdminOptions&)> run) {
  CLI::App* command = add_command(parent, name, description, program, [o, run] { return run(*o); });
  command->add_option("user", o->user, "The user's name")->required();
  command->add_option("--storage", o->storage, "The store (default: $KORVALIN_STORAGE_DIR)");
  add_json_flag(*command, o->json);
  return command;
}

}  // namespace

void add_admin_commands(CLI::App& app, Program& program) {
  CLI::App* admin = add_command_group(
      app, "admin",
      "Users, their tokens, rights and quotas, in a store (safe while a server runs on it)");

  CLI::App* user = add_command_group(*admin, "user", "Add users");
  auto add = std::make_shared<AdminOptions>();
  admin_command(*user, "add", "Add a user to an organisation (created when new)", program, add,
                add_user)
      ->add_option("--org", add->org, "The organisation (default: the local one)");

  CLI::App* token = add_command_group(*admin, "token", "Create and revoke tokens");
  admin_command(*token, "create", "Create a token of a user; it is shown once, on the last line",
                program, std::make_shared<AdminOptions>(), create_token);
  admin_command(*token, "revoke", "Revoke every token of a user", program,
                std::make_shared<AdminOptions>(), revoke_tokens);

  CLI::App* right = add_command_group(*admin, "right", "Grant and revoke rights on device groups");
  for (const bool grant : {true, false}) {
    auto o = std::make_shared<AdminOptions>();
    CLI::App* command = admin_command(
        *right, grant ? "grant" : "revoke",
        grant ? "Grant a user a right on a device group"
              : "Revoke a user's right on a device group",
        program, o, [grant](const AdminOptions& options) { return set_right(options, grant); });
    command->add_option("group", o->group, "The device group")->required();
    command->add_option("right", o->access, "READ or WRITE")
        ->required()
        ->transform(CLI::IsMember({"READ", "WRITE"}, CLI::ignore_case));
  }

  CLI::App* quota = add_command_group(
      *admin, "quota", "Limit what an organisation stores and queues (none set: unlimited)");
  auto set = std::make_shared<AdminOptions>();
  CLI::App* set_command = add_command(*quota, "set", "Set an organisation's quotas", program,
                                      [set] { return set_quota(*set); });
  set_command->add_option("org", set->org, "The organisation (its name or id)")->required();
  set_command->add_option("--bytes", set->bytes,
                          "Bytes its objects may take, or \"unlimited\" (default: kept)");
  set_command->add_option("--queued", set->queued,
                          "Experiments it may have queued, or \"unlimited\" (default: kept)");
  auto show = std::make_shared<AdminOptions>();
  CLI::App* show_command =
      add_command(*quota, "show", "Show what organisations use and are allowed", program,
                  [show] { return show_quotas(*show); });
  show_command->add_option("org", show->org, "The organisation (default: every one)");
  for (const auto& [command, o] : {std::pair{set_command, set}, std::pair{show_command, show}}) {
    command->add_option("--storage", o->storage, "The store (default: $KORVALIN_STORAGE_DIR)");
    add_json_flag(*command, o->json);
  }
}

}  // namespace korvalin_app
