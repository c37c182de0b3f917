// korvalin_client.experiment.experiment: Experiment and Sweep.
#include <string>
#include <utility>
#include <vector>

#include "bindings.hpp"
#include "define.hpp"

namespace korvalin_client::python {
namespace {

using experiment::Experiment;
using experiment::Sweep;

// A list of values from a list, tuple or 1-d array.
std::vector<Value> to_values(py::handle obj, ArgRef where) {
  const Value v = to_value(obj, where);
  if (!v.is_array()) wrong_type(where, "a list of values", obj);
  return std::vector<Value>(v.begin(), v.end());
}

py::list values_list(const std::vector<Value>& values) {
  py::list out;
  for (const Value& v : values) out.append(to_python(v));
  return out;
}

// A read-write property whose value is a record (dict or list).
template <Value Experiment::*Field>
void record_property(py::class_<Experiment>& cls, const char* name, const char* doc) {
  cls.def_property(
      name, [](const Experiment& e) { return to_python(e.*Field); },
      [name](Experiment& e, py::handle v) { e.*Field = to_value(v, ArgRef{name, name}); }, doc);
}

}  // namespace

void bind_experiment(py::module_& m) {
  py::class_<Sweep> sweep(m, "Sweep", "One swept parameter: `key` takes each of `values` in turn.");
  sweep.attr("__module__") = "korvalin_client.experiment.experiment";
  def_init(
      sweep,
      py::init([](py::handle key, py::handle values) {
        return Sweep{to_text(key, ArgRef{"Sweep", "key"}),
                     to_values(values, ArgRef{"Sweep", "values"})};
      }),
      "", py::arg("key"), py::arg("values"));
  sweep.def_readonly("key", &Sweep::key);
  sweep.def_property_readonly("values", [](const Sweep& s) { return values_list(s.values); });
  sweep.def("__eq__", [](const Sweep& a, const Sweep& b) { return a == b; });
  sweep.def("__repr__", [](const Sweep& s) {
    return "Sweep(" + py::repr(to_str(s.key)).cast<std::string>() + ", " +
           py::repr(values_list(s.values)).cast<std::string>() + ")";
  });

  py::class_<Experiment> cls(m, "Experiment",
                             "What a device group is asked to run: sweeps (outermost first), "
                             "repetitions, the quantities measured at every point, parameters "
                             "for this experiment alone and device options.");
  cls.attr("__module__") = "korvalin_client.experiment.experiment";
  def_init(
      cls,
      py::init([](py::handle title, py::handle desc) {
        return Experiment(to_text(title, ArgRef{"Experiment", "title"}),
                          to_text(desc, ArgRef{"Experiment", "desc"}));
      }),
      "A new, empty experiment (CloudGroup.create_exp makes one for a group).",
      py::arg("title") = "", py::arg("desc") = "");
  cls.def_readwrite("title", &Experiment::title);
  cls.def_readwrite("desc", &Experiment::desc);
  cls.def_property(
      "template", [](const Experiment& e) { return e.template_; },
      [](Experiment& e, py::handle v) {
        e.template_ = Convert<std::optional<std::string>>::from(v, ArgRef{"template", "template"});
      },
      "The name of the experiment template the device runs, or None.");
  record_property<&Experiment::attachment>(cls, "attachment",
                                           "Attachment name -> integer resource id.");
  record_property<&Experiment::parameters>(cls, "parameters",
                                           "Parameter values (full key -> value) for this "
                                           "experiment only.");
  record_property<&Experiment::options>(cls, "options", "Free options passed to the device.");
  cls.def_property(
      "sweeps", [](const Experiment& e) { return py::cast(e.sweeps); },
      [](Experiment& e, py::handle v) {
        std::vector<Sweep> sweeps;
        for (const py::handle s : py::reinterpret_borrow<py::iterable>(v)) {
          sweeps.push_back(instance_of<Sweep>(s, ArgRef{"sweeps", "sweeps"}, "Sweep"));
        }
        e.sweeps = std::move(sweeps);
      },
      "The sweeps, outermost first (a list of Sweep; assign a new list to change them).");
  cls.def_property(
      "repetitions", [](const Experiment& e) { return e.repetitions; },
      [](Experiment& e, py::handle v) {
        e.repetitions = to_int(v, ArgRef{"repetitions", "repetitions"});
      });
  cls.def_property(
      "measure", [](const Experiment& e) { return answer(e.measure); },
      [](Experiment& e, py::handle v) {
        e.measure = to_text_list(v, ArgRef{"measure", "measure"});
      },
      "Names of the quantities measured at each point.");

  def(
      cls, "sweep",
      [](py::object self, py::handle key, py::handle values) {
        self.cast<Experiment&>().sweep(to_text(key, ArgRef{"sweep", "key"}),
                                       to_values(values, ArgRef{"sweep", "values"}));
        return self;
      },
      "Adds a sweep as the new innermost loop (`values`: a list or 1-d array); returns the "
      "experiment.",
      py::arg("key"), py::arg("values"));
  def(
      cls, "measure_quantity",
      [](py::object self, py::handle name) {
        self.cast<Experiment&>().measure_quantity(to_text(name, ArgRef{"measure_quantity", "name"}));
        return self;
      },
      "Adds a quantity to measure; returns the experiment.", py::arg("name"));
  def(
      cls, "measure_quantities",
      [](py::object self, py::handle names) {
        self.cast<Experiment&>().measure_quantities(
            to_text_list(names, ArgRef{"measure_quantities", "names"}));
        return self;
      },
      "Adds quantities to measure; returns the experiment.", py::arg("names"));
  def(
      cls, "set_parameter",
      [](py::object self, py::handle key, py::handle value) {
        self.cast<Experiment&>().set_parameter(to_text(key, ArgRef{"set_parameter", "key"}),
                                               to_value(value, ArgRef{"set_parameter", "value"}));
        return self;
      },
      "Sets a parameter for this experiment only; returns the experiment.", py::arg("key"),
      py::arg("value"));
  method<&Experiment::item_count>(cls, "item_count",
                                  "The number of points: the product of the sweep lengths times "
                                  "the repetitions.");
  method<&Experiment::valid>(cls, "valid",
                             "Checks that the experiment can be submitted (ValueError saying "
                             "what is wrong otherwise).");
  method<&Experiment::serialize>(cls, "serialize", "The stored form, a dict.");
  def_static(
      cls, "deserialize",
      [](py::handle value) {
        return Experiment::deserialize(to_value(value, ArgRef{"deserialize", "value"}));
      },
      "The experiment of a stored form.", py::arg("value"));
  cls.def("__eq__", [](const Experiment& a, const Experiment& b) { return a == b; });
  cls.def("__repr__", [](const Experiment& e) {
    return "<Experiment " + py::repr(to_str(e.title)).cast<std::string>() + ", " +
           std::to_string(e.sweeps.size()) + " sweeps, measures " +
           py::repr(answer(e.measure)).cast<std::string>() + ">";
  });
}

}  // namespace korvalin_client::python
