// korvalin admin: users, their tokens and their rights, written straight into a store (the
// SQLite file is shared safely with a server running on it).
//
//   korvalin admin user add NAME [--org ORG] [--storage DIR]
//   korvalin admin token create NAME [--storage DIR]
//   korvalin admin token revoke NAME [--storage DIR]
//   korvalin admin right grant|revoke NAME GROUP READ|WRITE [--storage DIR]
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.hpp"
#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;

struct AdminArgs {
  std::vector<std::string> words;  // the positional arguments, in order
  std::optional<std::string> org;
  std::string storage;  // empty: the default storage directory
};

AdminArgs parse_admin(const std::vector<std::string>& args) {
  AdminArgs parsed;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size() || args[i + 1].empty()) {
        throw std::invalid_argument(a + " needs a value");
      }
      return args[++i];
    };
    if (a == "--org") {
      parsed.org = value();
    } else if (a == "--storage") {
      parsed.storage = value();
    } else if (a.starts_with("--")) {
      throw std::invalid_argument("unknown option for admin: " + a);
    } else {
      parsed.words.push_back(a);
    }
  }
  return parsed;
}

// The words of `parsed` after the subcommand, which must be exactly `count`.
void expect_words(const AdminArgs& parsed, std::size_t count, const char* usage) {
  if (parsed.words.size() != count) throw std::invalid_argument(std::string("usage: ") + usage);
}

std::string in_quotes(const std::string& text) { return "\"" + text + "\""; }

std::string organization_name(kc::service::Engine& engine, std::int64_t id) {
  return kc::to_text(engine.store().organization(id)["organization_name"]);
}

}  // namespace

int run_admin(const std::vector<std::string>& args) {
  const AdminArgs parsed = parse_admin(args);
  std::string what;  // the subcommand: its first two words
  for (std::size_t i = 0; i < std::min<std::size_t>(2, parsed.words.size()); ++i) {
    what += (i > 0 ? " " : "") + parsed.words[i];
  }
  constexpr const char* kUserAdd = "korvalin admin user add NAME [--org ORG] [--storage DIR]";
  constexpr const char* kToken = "korvalin admin token create|revoke NAME [--storage DIR]";
  constexpr const char* kRight =
      "korvalin admin right grant|revoke NAME GROUP READ|WRITE [--storage DIR]";
  if (parsed.org && what != "user add") {
    throw std::invalid_argument("--org belongs to admin user add only");
  }

  if (what == "user add") {
    expect_words(parsed, 3, kUserAdd);
    kc::service::Engine engine(parsed.storage);
    const kc::service::Caller user = engine.add_user(parsed.words[2], parsed.org.value_or(""));
    std::cout << "Added user " << in_quotes(user.user_name) << " to organisation "
              << in_quotes(organization_name(engine, user.organization_id)) << " ("
              << user.organization_id << ")\n";
    return 0;
  }
  if (what == "token create") {
    expect_words(parsed, 3, kToken);
    kc::service::Engine engine(parsed.storage);
    const std::string token = engine.create_token(parsed.words[2]);
    std::cout << "A new token of user " << in_quotes(parsed.words[2])
              << "; it is shown this once, keep it safe:\n"
              << token << std::endl;
    return 0;
  }
  if (what == "token revoke") {
    expect_words(parsed, 3, kToken);
    kc::service::Engine engine(parsed.storage);
    const std::int64_t n = engine.revoke_tokens(parsed.words[2]);
    std::cout << "Revoked " << n << (n == 1 ? " token" : " tokens") << " of user "
              << in_quotes(parsed.words[2]) << "\n";
    return 0;
  }
  if (what == "right grant" || what == "right revoke") {
    expect_words(parsed, 5, kRight);
    std::string access = parsed.words[4];
    std::transform(access.begin(), access.end(), access.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (access != "READ" && access != "WRITE") {
      throw std::invalid_argument("the right must be READ or WRITE, not " +
                                  in_quotes(parsed.words[4]));
    }
    const bool grant = parsed.words[1] == "grant";
    kc::service::Engine engine(parsed.storage);
    engine.set_right(parsed.words[2], parsed.words[3], access, grant);
    std::cout << (grant ? "Granted " : "Revoked ") << access << " on device group "
              << in_quotes(parsed.words[3]) << (grant ? " to" : " of") << " user "
              << in_quotes(parsed.words[2]) << "\n";
    return 0;
  }
  throw std::invalid_argument(
      what.empty() ? "admin needs a subcommand: user add, token create|revoke, right grant|revoke"
                   : "unknown admin subcommand " + in_quotes(what));
}

}  // namespace korvalin_app
