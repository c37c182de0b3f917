// korvalin_client.group.group (Group) and korvalin_client.group.cloud_group (CloudGroup): the
// session, spaces, parameters, groups and local directories. Experiments, results and fitting
// results are in bind_cloud_group_experiments.cpp.
#include <memory>
#include <string>
#include <utility>

#include <pybind11/stl.h>

#include "bindings.hpp"
#include "define.hpp"
#include "korvalin_client/utils/space_cache.hpp"

namespace korvalin_client::python {
namespace {

using group::CloudGroup;
using group::Group;
using group::GroupOptions;
using utils::SpaceCache;

using GroupClass = py::class_<BoundGroup, Group>;

GroupOptions group_options(const char* function, py::handle space_version,
                           py::handle space_parameters, py::handle temporary_parameters) {
  return GroupOptions{
      .space_version =
          Convert<std::optional<std::int64_t>>::from(space_version, {function, "space_version"}),
      .space_parameters = to_value(space_parameters, {function, "space_parameters"}),
      .temporary_parameters = to_value(temporary_parameters, {function, "temporary_parameters"}),
  };
}

void bind_base(py::module_& m) {
  py::class_<Group> cls(m, "Group",
                        "The base of CloudGroup: the selected space's live parameters, the "
                        "changes not yet submitted and temporary overrides.");
  cls.attr("__module__") = "korvalin_client.group.group";
  locked_property(cls, "group_name", [](const Group& g) { return g.group_name; },
                  "The group's name.");
  locked_property(cls, "space_id", [](const Group& g) { return g.space_id; },
                  "The selected space's id, or None.");
  locked_property(cls, "space_version", [](const Group& g) { return g.space_version; });
  locked_property(cls, "space_parameters", [](const Group& g) { return g.space_parameters; },
                  "The live parameters of the selected space (a copy; change them with "
                  "set_space_parameter).");
  locked_property(cls, "waiting_for_submit", [](const Group& g) { return g.waiting_for_submit; },
                  "The values set since the last submission, in the order they were set (a "
                  "copy).");
  locked_property(cls, "temporary_parameters",
                  [](const Group& g) { return g.temporary_parameters; },
                  "Overrides read before the live values and never submitted (a copy).");
  method<&Group::set_space_parameter>(cls, "set_space_parameter",
                                      "Sets a parameter: live at once, and pending until the "
                                      "next submission.",
                                      py::arg("key"), py::arg("value"));
  method<&Group::get_space_parameter>(cls, "get_space_parameter",
                                      "The value of a parameter (a temporary override first); "
                                      "with refresh_cache, the space is synchronised first. "
                                      "KeyError when it has none; ValueError naming the "
                                      "key when its stored value cannot be read.",
                                      py::arg("key"), py::arg("refresh_cache") = false);
  method<&Group::serialize_parameter>(cls, "serialize_parameter",
                                      "(text, type name) of a value, as the service stores it.",
                                      py::arg("key"), py::arg("value"),
                                      py::arg("json_compact") = true);
  static_method<&Group::deserialize_single_parameter>(
      cls, "deserialize_single_parameter", "The value of a (text, type name) pair.", py::arg("v"),
      py::arg("t"));
  def_static(
      cls, "deserialize_parameter",
      [](py::handle keys, py::handle values, py::handle types) {
        const auto list = [](py::handle o, const char* name) {
          const Value v = to_value(o, {"deserialize_parameter", name});
          if (!v.is_array()) wrong_type({"deserialize_parameter", name}, "list", o);
          return std::vector<Value>(v.begin(), v.end());
        };
        return to_python(Group::deserialize_parameter(
            to_text_list(keys, {"deserialize_parameter", "keys"}), list(values, "values"),
            list(types, "types")));
      },
      "A dict from three parallel lists of keys, texts and type names.", py::arg("keys"),
      py::arg("values"), py::arg("types"));
}

void bind_session(GroupClass& cls) {
  def_init(
      cls,
      py::init([](py::handle group_name, py::handle space_name, py::handle space_version,
                  py::handle space_parameters, py::handle temporary_parameters) {
        const char* f = "CloudGroup";
        auto name = Convert<std::optional<std::string>>::from(group_name, {f, "group_name"});
        auto space = Convert<std::optional<std::string>>::from(space_name, {f, "space_name"});
        GroupOptions options =
            group_options(f, space_version, space_parameters, temporary_parameters);
        Released released;
        return std::make_unique<BoundGroup>(std::move(name), std::move(space), std::move(options));
      }),
      "Builds the group object and, given a group name, selects the group at once (and the "
      "space `space_name`, downloading its parameters).",
      py::arg("group_name") = py::none(), py::arg("space_name") = py::none(),
      py::arg("space_version") = py::none(), py::arg("space_parameters") = py::none(),
      py::arg("temporary_parameters") = py::none());
  def(
      cls, "set_group_name",
      [](BoundGroup& self, py::handle group_name, py::handle space_name, py::handle space_version,
         py::handle space_parameters, py::handle temporary_parameters) {
        const char* f = "set_group_name";
        const std::string name = to_text(group_name, {f, "group_name"});
        auto space = Convert<std::optional<std::string>>::from(space_name, {f, "space_name"});
        GroupOptions options =
            group_options(f, space_version, space_parameters, temporary_parameters);
        Released released(&self.mutex);
        self.set_group_name(name, std::move(space), std::move(options));
      },
      "Selects the group (and optionally a space); does nothing once a group is selected.",
      py::arg("group_name"), py::arg("space_name") = py::none(),
      py::arg("space_version") = py::none(), py::arg("space_parameters") = py::none(),
      py::arg("temporary_parameters") = py::none());

  locked_property(cls, "device_group_id", [](const BoundGroup& g) { return g.device_group_id(); });
  locked_property(cls, "organization_id", [](const BoundGroup& g) { return g.organization_id(); });
  locked_property(cls, "organization_name",
                  [](const BoundGroup& g) { return g.organization_name(); });
  locked_property(cls, "space_name", [](const BoundGroup& g) { return g.space_name(); });
  locked_property(cls, "spaces_list", [](const BoundGroup& g) { return g.spaces_list(); });
  locked_property(cls, "spaces_name_mapping",
                  [](const BoundGroup& g) { return g.spaces_name_mapping(); });
  locked_property(cls, "minio", [](const BoundGroup& g) { return g.minio; },
                  "The object-storage client, once a download or submission created it (else "
                  "None).");
  // The parameter caches are handed out as the group's own objects, alive with it.
  cls.def_property_readonly(
      "space",
      [](py::object self) {
        auto& group = self.cast<BoundGroup&>();
        SpaceCache* cache = nullptr;
        {
          Released released(&group.mutex);
          cache = &group.space();
        }
        return py::cast(cache, py::return_value_policy::reference_internal, self);
      },
      "The selected space's parameter cache (RuntimeError when no space is selected).");
  cls.def_property_readonly(
      "space_cache",
      [](py::object self) {
        auto& group = self.cast<BoundGroup&>();
        std::vector<std::pair<std::int64_t, SpaceCache*>> caches;
        {
          Released released(&group.mutex);
          for (const auto& [id, cache] : group.space_cache()) caches.emplace_back(id, cache.get());
        }
        py::dict out;
        for (const auto& [id, cache] : caches) {
          out[py::int_(id)] = py::cast(cache, py::return_value_policy::reference_internal, self);
        }
        return out;
      },
      "Space id -> that space's parameter cache.");
  method<&CloudGroup::get_group_detail>(cls, "get_group_detail",
                                        "Fetches the group's record afresh and keeps it.");
}

void bind_spaces_and_parameters(GroupClass& cls) {
  method<&CloudGroup::get_space_list>(cls, "get_space_list",
                                      "Lists the group's visible spaces (space id -> record).");
  method<&CloudGroup::set_space>(cls, "set_space",
                                 "Selects a space by id (int) or name (str) and, with "
                                 "update_parameters, synchronises its parameters.",
                                 py::arg("space_id_or_name"), py::arg("update_parameters") = true);
  method<&CloudGroup::list_spaces>(cls, "list_spaces", "One page of the group's spaces.",
                                   py::arg("page") = 1, py::arg("per_page") = 10,
                                   py::arg("show_hidden") = false);
  method<&CloudGroup::create_space>(cls, "create_space", "Creates a space in the group.",
                                    py::arg("name"), py::arg("desc"));
  method<&CloudGroup::hide_space>(cls, "hide_space",
                                  "Hides space `space_id` (the selected one when None).",
                                  py::arg("space_id") = py::none());
  method<&CloudGroup::show_space>(cls, "show_space",
                                  "Shows space `space_id` (the selected one when None).",
                                  py::arg("space_id") = py::none());
  method<&CloudGroup::download_space_parameter>(
      cls, "download_space_parameter",
      "Brings the selected space's cache up to date and loads it; the keys written.");
  method<&CloudGroup::load_parameters_from_local_cache>(
      cls, "load_parameters_from_local_cache",
      "Loads the live parameters from the local cache without asking the service.");
  method<&CloudGroup::get_local_space_info>(cls, "get_local_space_info",
                                            "The selected space's cache bookkeeping.");
  method<&CloudGroup::get_history_space_parameter>(
      cls, "get_history_space_parameter",
      "The selected space as it stood at `timestamp` (seconds; milliseconds above 1e12).",
      py::arg("timestamp"));
  method<&CloudGroup::_put_history_space_cache>(
      cls, "_put_history_space_cache",
      "Stores a snapshot under [space id, timestamp], evicting the oldest beyond 8.",
      py::arg("cache_key"), py::arg("snap"));
  method<&CloudGroup::submit_space_parameter>(
      cls, "submit_space_parameter",
      "Sends every pending change to the service in one call, then synchronises the space.",
      py::arg("experiment_id") = py::none(), py::arg("node_id") = py::none(),
      py::arg("session_id") = py::none());
  method<&CloudGroup::remove_space_parameter>(
      cls, "remove_space_parameter", "Removes a key (str) or keys (list of str) from the space.",
      py::arg("keys"));
  method<&CloudGroup::get_space_parameter_by_tree>(
      cls, "get_space_parameter_by_tree",
      "One level of the parameter tree under `parent_tree` (a list of path components).",
      py::arg("space_id") = py::none(), py::arg("parent_tree") = py::none(),
      py::arg("version") = 0);
  method<&CloudGroup::search_space_parameters>(
      cls, "search_space_parameters",
      "The selected space's parameters whose keys contain `search_word`.",
      py::arg("search_word") = py::none());
  static_method<&CloudGroup::get_parameter_history>(
      cls, "get_parameter_history", "One page of a key's change history.", py::arg("space_id"),
      py::arg("key") = py::none(), py::arg("page") = 1, py::arg("per_page") = 10);
}

void bind_groups_and_directories(GroupClass& cls) {
  static_method<&CloudGroup::list_groups>(
      cls, "list_groups", "One page of the device groups visible to the user.",
      py::arg("page") = 1, py::arg("per_page") = 10, py::arg("org_id") = py::none(),
      py::arg("show_hidden") = true);
  static_method<&CloudGroup::create_group>(
      cls, "create_group",
      "Creates a device group with its first space \"origin\" and its experiment folders.",
      py::arg("device_group_name"), py::arg("description"),
      py::arg("organization_id") = py::none());
  static_method<&CloudGroup::get_parameter_description>(
      cls, "get_parameter_description", "Descriptions of parameter keys from the plug-ins.",
      py::arg("full_key_list"), py::arg("language") = "cn");
  method<&CloudGroup::create_cache_dir>(cls, "create_cache_dir",
                                        "The group's cache directory, created when missing.");
  method<&CloudGroup::create_result_cache_dir>(
      cls, "create_result_cache_dir",
      "group cache directory/exp/<local date>[/<exp_id>], created when missing.",
      py::arg("exp_create_timestamp"), py::arg("exp_id") = py::none());
  method<&CloudGroup::create_exp_cache_dir>(
      cls, "create_exp_cache_dir",
      "group cache directory/exp/<local date>[/<exp_id>], created when missing.",
      py::arg("create_timestamp"), py::arg("exp_id") = py::none());
}

}  // namespace

void bind_group(py::module_& m) { bind_base(m); }

void bind_cloud_group(py::module_& m) {
  GroupClass cls(m, "CloudGroup", "Cloud Group class");
  cls.attr("__module__") = "korvalin_client.group.cloud_group";
  bind_session(cls);
  bind_spaces_and_parameters(cls);
  bind_groups_and_directories(cls);
}

}  // namespace korvalin_client::python
