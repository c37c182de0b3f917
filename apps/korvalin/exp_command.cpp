// korvalin exp list|status|msg|cancel|attachments|fit: a space's experiments, and what one of
// them is doing, said and left behind. Submission (exp_submit_command.cpp) and results
// (exp_pull_command.cpp) add their commands to the same group.
#include <algorithm>
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
  bool json = false;
};

// The commands about one experiment.
struct ExpOptions {
  std::int64_t exp_id = 0;
  bool json = false;
};

std::string status_cell(const Value& record) { return cell(kc::get_key(record, "status")); }

int list(const ListOptions& o) {
  auto group = open_group(o.target.group);
  const Value listed =
      CloudGroup::list_exps(find_space_id(*group, o.target.space), o.page.page, o.page.per_page);
  if (o.json) {
    print_json(listed);
    return 0;
  }
  Table table({"ID", "STATUS", "PROGRESS", "CREATED", "TITLE"});
  for (const Value& e : kc::get_key(listed, "list", Value::array())) {
    table.add({cell(kc::get_key(e, "exp_id")), status_cell(e),
               progress_cell(kc::get_key(e, "progress")), time_cell(kc::get_key(e, "create_time")),
               cell(kc::get_key(e, "title"))});
  }
  table.print();
  print_page_line(o.page.page, o.page.per_page, kc::get_key(listed, "total"));
  return 0;
}

int status(const ExpOptions& o) {
  CloudGroup group;
  const Value detail = group.get_experiment_status(o.exp_id);
  if (o.json) {
    print_json(detail);
    return 0;
  }
  print_fields({{"experiment", cell(kc::get_key(detail, "sub_process_id", o.exp_id))},
                {"title", cell(kc::get_key(detail, "title"))},
                {"status", status_cell(detail)},
                {"progress", progress_cell(kc::get_key(detail, "progress"))},
                {"created", time_cell(kc::get_key(detail, "create_time"))},
                {"updated", time_cell(kc::get_key(detail, "update_time"))},
                {"space", cell(kc::get_key(detail, "space_id"))},
                {"folder", cell(kc::get_key(detail, "exp_folder_id"))},
                {"template", cell(kc::get_key(detail, "template_name"))},
                {"source", cell(kc::get_key(detail, "source"))},
                {"description", cell(kc::get_key(detail, "desc"))}});
  return 0;
}

int messages(const ExpOptions& o) {
  const Value log = CloudGroup::get_experiment_msg(o.exp_id);
  if (o.json) {
    print_json(log);
    return 0;
  }
  Table table({"TIME", "LEVEL", "MESSAGE"});
  for (const Value& m : log) {
    table.add({cell(kc::get_key(m, "timestamp")), cell(kc::get_key(m, "message_level")),
               cell(kc::get_key(m, "message"))});
  }
  table.print();
  return 0;
}

int cancel(const ExpOptions& o) {
  CloudGroup group;
  const Value answer = group.terminate_exp(o.exp_id);
  if (o.json) {
    print_json(answer);
  } else {
    std::cout << "Experiment " << o.exp_id << ": " << status_cell(answer) << "\n";
  }
  return 0;
}

int attachments(const ExpOptions& o) {
  OpenExperiment e = open_experiment(o.exp_id);
  const Value files = e.group->download_exp_attachment(o.exp_id);
  if (o.json) {
    print_json(files);
    return 0;
  }
  Table table({"FILE", "FORMAT", "PATH"});
  for (const auto& [name, file] : files.items()) {
    table.add(
        {cell(name), cell(kc::get_key(file, "format")), cell(kc::get_key(file, "absolute_path"))});
  }
  table.print();
  return 0;
}

// The fitting table ({"columns": [{"name", "type", "values"}]}) as rows.
void print_fitting_table(const Value& table_value) {
  const Value columns = kc::get_key(table_value, "columns", Value::array());
  if (!columns.is_array() || columns.empty()) return;
  std::vector<std::string> headers;
  std::size_t rows = 0;
  for (const Value& c : columns) {
    headers.push_back(cell(kc::get_key(c, "name")));
    const Value values = kc::get_key(c, "values", Value::array());
    if (values.is_array()) rows = std::max(rows, values.size());
  }
  Table table(headers);
  for (std::size_t i = 0; i < rows; ++i) {
    std::vector<std::string> row;
    for (const Value& c : columns) {
      const Value values = kc::get_key(c, "values", Value::array());
      row.push_back(values.is_array() && i < values.size() ? cell(values[i]) : "");
    }
    table.add(std::move(row));
  }
  std::cout << "\n";
  table.print();
}

int fit(const ExpOptions& o) {
  OpenExperiment e = open_experiment(o.exp_id);
  const Value record = e.group->read_fitting_result(o.exp_id);
  if (o.json) {
    print_json(record);
    return 0;
  }
  if (record.is_null()) {
    std::cout << "Experiment " << o.exp_id << " has no fitting result\n";
    return 0;
  }
  print_fields({{"fitting result", cell(kc::get_key(record, "fitting_result_id"))},
                {"experiments", cell(kc::get_key(record, "related_exp"))},
                {"space", cell(kc::get_key(record, "space_id"))},
                {"created", time_cell(kc::get_key(record, "create_time"))},
                {"image", cell(kc::get_key(record, "big_img_id"))},
                {"thumbnail", cell(kc::get_key(record, "small_img_id"))}});
  print_fitting_table(kc::get_key(record, "fitting_result"));
  return 0;
}

}  // namespace

void add_exp_commands(CLI::App& app, Program& program) {
  CLI::App* exp =
      add_command_group(app, "exp", "Submit experiments, follow them, fetch their results");

  auto list_o = std::make_shared<ListOptions>();
  CLI::App* ls = add_command(*exp, "list", "List the experiments of a space, newest first", program,
                             [list_o] { return list(*list_o); });
  add_target_options(*ls, list_o->target, true);
  add_page_options(*ls, list_o->page);
  add_json_flag(*ls, list_o->json);

  struct About {
    const char* name;
    const char* description;
    int (*run)(const ExpOptions&);
  };
  for (const About& about : {
           About{"status", "Show an experiment's status and progress", status},
           About{"msg", "Show an experiment's messages", messages},
           About{"cancel", "Stop an experiment", cancel},
           About{"attachments", "Download an experiment's attachments and list them", attachments},
           About{"fit", "Show an experiment's fitting result", fit},
       }) {
    auto o = std::make_shared<ExpOptions>();
    CLI::App* command = add_command(*exp, about.name, about.description, program,
                                    [o, run = about.run] { return run(*o); });
    command->add_option("id", o->exp_id, "The experiment's id")->required();
    add_json_flag(*command, o->json);
  }

  add_exp_submit_command(*exp, program);
  add_exp_pull_commands(*exp, program);
}

}  // namespace korvalin_app
