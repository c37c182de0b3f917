// korvalin admin: users, their tokens and their rights, written straight into a store (the
// SQLite file is shared safely with a server running on it).
//
//   korvalin admin user add NAME [--org ORG] [--storage DIR]
//   korvalin admin token create NAME [--storage DIR]
//   korvalin admin token revoke NAME [--storage DIR]
//   korvalin admin right grant|revoke NAME GROUP READ|WRITE [--storage DIR]
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

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
      "Users, their tokens and their rights, in a store (safe while a server runs on it)");

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
}

}  // namespace korvalin_app
