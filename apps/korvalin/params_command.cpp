// korvalin params get|set|submit|tree|search|history|remove: the parameters of a space.
//
// A command-line process keeps no pending changes between runs, so `set` sets its values and
// submits them at once, as one change of the space; `submit` does the same and tags the change
// with the experiment, node and session it came from.
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "arguments.hpp"
#include "cli.hpp"
#include "korvalin_client/utils/space_cache.hpp"
#include "output.hpp"
#include "targets.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;

// The options every params command has, and the words after it.
struct Options {
  Target target;
  std::vector<std::string> words;  // keys, KEY=VALUE assignments, or a tree path
  bool json = false;
};

struct SetOptions {
  Options common;
  std::optional<std::int64_t> experiment;
  std::optional<std::int64_t> node;
  std::optional<std::int64_t> session;
};

struct TreeOptions {
  Options common;
  std::int64_t version = 0;
};

struct HistoryOptions {
  Options common;
  Page page;
};

std::unique_ptr<CloudGroup> open(const Options& o) {
  return open_group(o.target.group, o.target.space);
}

std::string in_space(const Options& o) {
  return "space \"" + cell(o.target.space) + "\" of device group \"" + cell(o.target.group) + "\"";
}

int get(const Options& o) {
  auto group = open(o);
  Value values = Value::object();
  for (const std::string& key : o.words) {
    values[kc::utils::normalize_key(key)] = group->get_space_parameter(key);
  }
  if (o.json) {
    print_json(values);
    return 0;
  }
  Table table({"KEY", "VALUE"});
  for (const auto& [key, value] : values.items()) table.add({cell(key), cell(value)});
  table.print();
  return 0;
}

int set(const SetOptions& o) {
  // Every assignment is read before anything is asked of the service.
  std::vector<std::pair<std::string, Value>> assignments;
  for (const std::string& word : o.common.words) assignments.push_back(parse_assignment(word));
  auto group = open(o.common);
  Value submitted = Value::object();
  for (auto& [key, value] : assignments) {
    group->set_space_parameter(key, value);
    submitted[key] = std::move(value);
  }
  group->submit_space_parameter(o.experiment, o.node, o.session);
  if (o.common.json) {
    print_json({{"group", o.common.target.group},
                {"space", o.common.target.space},
                {"submitted", std::move(submitted)}});
  } else {
    std::cout << "Submitted " << submitted.size()
              << (submitted.size() == 1 ? " parameter" : " parameters") << " to "
              << in_space(o.common) << ":\n";
    Table table({"KEY", "VALUE"});
    for (const auto& [key, value] : submitted.items()) table.add({cell(key), cell(value)});
    table.print();
  }
  return 0;
}

int tree(const TreeOptions& o) {
  std::vector<std::string> path;
  for (const std::string& word : o.common.words) {
    std::size_t begin = 0;
    while (begin <= word.size()) {
      const std::size_t slash = std::min(word.find('/', begin), word.size());
      if (slash > begin) path.push_back(word.substr(begin, slash - begin));
      begin = slash + 1;
    }
  }
  auto group = open(o.common);
  const Value nodes = group->get_space_parameter_by_tree(std::nullopt, path, o.version);
  if (o.common.json) {
    print_json(nodes);
    return 0;
  }
  Table table({"NAME", "VALUE", "TYPE"});
  for (const Value& n : nodes) {
    const bool inner = kc::get_key(n, "expandable") == true;
    table.add({cell(kc::get_key(n, "node_name")) + (inner ? "/" : ""), cell(kc::get_key(n, "v")),
               cell(kc::get_key(n, "t"))});
  }
  table.print();
  return 0;
}

int search(const Options& o) {
  auto group = open(o);
  const Value found = group->search_space_parameters(
      o.words.empty() ? std::nullopt : std::optional<std::string>(o.words.front()));
  if (o.json) {
    print_json(found);
    return 0;
  }
  Table table({"KEY", "VALUE", "TYPE"});
  for (const Value& p : found) {
    table.add(
        {cell(kc::get_key(p, "full_key")), cell(kc::get_key(p, "v")), cell(kc::get_key(p, "t"))});
  }
  table.print();
  return 0;
}

int history(const HistoryOptions& o) {
  auto group = open_group(o.common.target.group);
  const std::int64_t space_id = find_space_id(*group, o.common.target.space);
  const Value found = CloudGroup::get_parameter_history(
      space_id,
      o.common.words.empty() ? std::nullopt : std::optional<std::string>(o.common.words.front()),
      o.page.page, o.page.per_page);
  if (o.common.json) {
    print_json(found);
    return 0;
  }
  Table table({"TIME", "VERSION", "KEY", "VALUE", "TYPE", "EXPERIMENT"});
  for (const Value& r : kc::get_key(found, "list", Value::array())) {
    const bool removed = kc::truthy(kc::get_key(r, "deleted_flag"));
    table.add({time_cell(kc::get_key(r, "timestamp")), cell(kc::get_key(r, "version")),
               cell(kc::get_key(r, "k_full")), removed ? "(removed)" : cell(kc::get_key(r, "v")),
               cell(kc::get_key(r, "t")), cell(kc::get_key(r, "experiment_id"))});
  }
  table.print();
  print_page_line(o.page.page, o.page.per_page, kc::get_key(found, "total"));
  return 0;
}

int remove(const Options& o) {
  auto group = open(o);
  Value keys = Value::array();
  for (const std::string& key : o.words) keys.push_back(kc::utils::normalize_key(key));
  group->remove_space_parameter(keys);
  if (o.json) {
    print_json({{"group", o.target.group}, {"space", o.target.space}, {"removed", keys}});
  } else {
    std::cout << "Removed " << keys.size() << (keys.size() == 1 ? " parameter" : " parameters")
              << " from " << in_space(o) << "\n";
  }
  return 0;
}

// The options of `o` on `command`, with the words described as `words`: one or more when
// `required`, else at most one.
void add_common(CLI::App& command, Options& o, const std::string& words, const std::string& help,
                bool required) {
  auto* option = command.add_option(words, o.words, help);
  if (required) {
    option->required();
  } else {
    option->expected(0, 1);
  }
  add_target_options(command, o.target, true);
  add_json_flag(command, o.json);
}

}  // namespace

void add_params_commands(CLI::App& app, Program& program) {
  CLI::App* params = add_command_group(app, "params", "Read and change the parameters of a space");

  auto get_o = std::make_shared<Options>();
  add_common(*add_command(*params, "get", "Show the values of parameters", program,
                          [get_o] { return get(*get_o); }),
             *get_o, "keys", "The parameters' keys (\"/q0/drive/freq\")", true);

  for (const bool tagged : {false, true}) {
    auto set_o = std::make_shared<SetOptions>();
    CLI::App* command = add_command(
        *params, tagged ? "submit" : "set",
        tagged ? "Set parameters and submit them, tagged with where the values came from"
               : "Set parameters and submit them to the space at once",
        program, [set_o] { return set(*set_o); });
    add_common(*command, set_o->common, "assignments",
               "KEY=VALUE ...: VALUE is read as JSON (a number, true, false, null, \"text\", a "
               "list, a mapping), and taken as text when it is not JSON",
               true);
    if (tagged) {
      command->add_option("--experiment", set_o->experiment, "The experiment the values come from");
      command->add_option("--node", set_o->node, "The node the values come from");
      command->add_option("--session", set_o->session, "The session the values come from");
    }
  }

  auto tree_o = std::make_shared<TreeOptions>();
  CLI::App* tree_command = add_command(*params, "tree", "Show one level of the parameter tree",
                                       program, [tree_o] { return tree(*tree_o); });
  add_common(*tree_command, tree_o->common, "path",
             "The level to show (\"/q0/drive\"); the root when absent", false);
  tree_command->add_option("--version", tree_o->version,
                           "A version of the space (0, the default: the current values)");

  auto search_o = std::make_shared<Options>();
  add_common(*add_command(*params, "search", "List the parameters whose keys contain a word",
                          program, [search_o] { return search(*search_o); }),
             *search_o, "word", "The word (every parameter when absent)", false);

  auto history_o = std::make_shared<HistoryOptions>();
  CLI::App* history_command =
      add_command(*params, "history", "Show the changes of a parameter, newest first", program,
                  [history_o] { return history(*history_o); });
  add_common(*history_command, history_o->common, "key",
             "The parameter (every parameter of the space when absent)", false);
  add_page_options(*history_command, history_o->page);

  auto remove_o = std::make_shared<Options>();
  add_common(*add_command(*params, "remove", "Remove parameters from the space", program,
                          [remove_o] { return remove(*remove_o); }),
             *remove_o, "keys", "The parameters' keys", true);
}

}  // namespace korvalin_app
