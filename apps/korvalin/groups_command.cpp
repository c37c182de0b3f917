// korvalin groups list|create: the device groups the user sees, and new ones.
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "cli.hpp"
#include "output.hpp"
#include "targets.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;

struct ListOptions {
  Page page;
  std::optional<std::int64_t> org;
  bool json = false;
};

struct CreateOptions {
  std::string name;
  std::string description;
  std::optional<std::int64_t> org;  // none: the user's own
  bool json = false;
};

int list_groups(const ListOptions& o) {
  const Value listed = CloudGroup::list_groups(o.page.page, o.page.per_page, o.org);
  if (o.json) {
    print_json(listed);
    return 0;
  }
  Table table({"ID", "NAME", "ORGANISATION", "HIDDEN", "CREATED", "DESCRIPTION"});
  for (const Value& g : kc::get_key(listed, "list", Value::array())) {
    table.add({cell(kc::get_key(g, "device_group_id")), cell(kc::get_key(g, "device_group_name")),
               cell(kc::get_key(g, "organization_name")),
               kc::truthy(kc::get_key(g, "hidden")) ? "yes" : "",
               time_cell(kc::get_key(g, "create_time")), cell(kc::get_key(g, "description"))});
  }
  table.print();
  print_page_line(o.page.page, o.page.per_page, kc::get_key(listed, "total"));
  return 0;
}

int create_group(const CreateOptions& o) {
  Value created;
  try {
    created = CloudGroup::create_group(o.name, o.description, o.org);
  } catch (const kc::PermissionError& e) {
    throw kc::PermissionError(std::string(e.what()) +
                              "; give the organisation to create it in with --org");
  }
  if (o.json) {
    print_json(created);
  } else {
    std::cout << "Created device group \"" << cell(o.name) << "\" (id "
              << cell(kc::get_key(created, "device_group_id")) << ", organisation "
              << cell(kc::get_key(created, "organization_id"))
              << ") with its space \"origin\"\n";
  }
  return 0;
}

}  // namespace

void add_groups_commands(CLI::App& app, Program& program) {
  CLI::App* groups = add_command_group(app, "groups", "List and create device groups");

  auto list = std::make_shared<ListOptions>();
  CLI::App* ls = add_command(*groups, "list", "List the device groups you see (hidden ones too)",
                             program, [list] { return list_groups(*list); });
  add_page_options(*ls, list->page);
  ls->add_option("--org", list->org, "Only the groups of this organisation id");
  add_json_flag(*ls, list->json);

  auto create = std::make_shared<CreateOptions>();
  CLI::App* mk = add_command(*groups, "create",
                             "Create a device group, with its first space \"origin\" and the "
                             "folders AutoCali, Default and Calibration",
                             program, [create] { return create_group(*create); });
  mk->add_option("name", create->name, "The new group's name")->required();
  mk->add_option("-d,--desc", create->description, "A description");
  mk->add_option("--org", create->org, "The organisation id to create it in (default: your own)")
      ->check(CLI::PositiveNumber);
  add_json_flag(*mk, create->json);
}

}  // namespace korvalin_app
