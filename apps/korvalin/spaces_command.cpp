// korvalin spaces list|create|hide|show: the spaces of a device group.
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

#include "cli.hpp"
#include "output.hpp"
#include "targets.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;

struct ListOptions {
  Target target;
  Page page;
  bool hidden = false;
  bool json = false;
};

struct CreateOptions {
  Target target;
  std::string name;
  std::string description;
  bool json = false;
};

// hide and show.
struct VisibilityOptions {
  Target target;
  std::string space;
  bool json = false;
};

int list_spaces(const ListOptions& o) {
  auto group = open_group(o.target.group);
  const Value listed = group->list_spaces(o.page.page, o.page.per_page, o.hidden);
  if (o.json) {
    print_json(listed);
    return 0;
  }
  Table table({"ID", "NAME", "HIDDEN", "CREATED", "DESCRIPTION"});
  for (const Value& s : kc::get_key(listed, "list", Value::array())) {
    table.add({cell(kc::get_key(s, "space_id")), cell(kc::get_key(s, "space_name")),
               kc::truthy(kc::get_key(s, "hidden")) ? "yes" : "",
               time_cell(kc::get_key(s, "create_time")), cell(kc::get_key(s, "description"))});
  }
  table.print();
  print_page_line(o.page.page, o.page.per_page, kc::get_key(listed, "total"));
  return 0;
}

int create_space(const CreateOptions& o) {
  auto group = open_group(o.target.group);
  const Value created = group->create_space(o.name, o.description);
  if (o.json) {
    print_json(created);
  } else {
    std::cout << "Created space \"" << cell(o.name) << "\" (id "
              << cell(kc::get_key(created, "space_id")) << ") in device group \""
              << cell(o.target.group) << "\"\n";
  }
  return 0;
}

int set_visibility(const VisibilityOptions& o, bool hide) {
  auto group = open_group(o.target.group);
  const std::int64_t id = find_space_id(*group, o.space);
  const Value answer = hide ? group->hide_space(id) : group->show_space(id);
  if (o.json) {
    print_json(answer);
  } else {
    std::cout << (hide ? "Hid" : "Showed") << " space " << id << " (\"" << cell(o.space)
              << "\") of device group \"" << cell(o.target.group) << "\"\n";
  }
  return 0;
}

}  // namespace

void add_spaces_commands(CLI::App& app, Program& program) {
  CLI::App* spaces = add_command_group(app, "spaces", "List, create, hide and show spaces");

  auto list = std::make_shared<ListOptions>();
  CLI::App* ls = add_command(*spaces, "list", "List the spaces of a group", program,
                             [list] { return list_spaces(*list); });
  add_target_options(*ls, list->target, false);
  add_page_options(*ls, list->page);
  ls->add_flag("--hidden", list->hidden, "List hidden spaces too");
  add_json_flag(*ls, list->json);

  auto create = std::make_shared<CreateOptions>();
  CLI::App* mk = add_command(*spaces, "create", "Create a space in a group", program,
                             [create] { return create_space(*create); });
  mk->add_option("name", create->name, "The new space's name")->required();
  add_target_options(*mk, create->target, false);
  mk->add_option("-d,--desc", create->description, "A description");
  add_json_flag(*mk, create->json);

  for (const bool hide : {true, false}) {
    auto visibility = std::make_shared<VisibilityOptions>();
    CLI::App* command = add_command(
        *spaces, hide ? "hide" : "show", hide ? "Hide a space" : "Show a hidden space again",
        program, [visibility, hide] { return set_visibility(*visibility, hide); });
    command->add_option("space", visibility->space, "The space, by name or id")->required();
    add_target_options(*command, visibility->target, false);
    add_json_flag(*command, visibility->json);
  }
}

}  // namespace korvalin_app
