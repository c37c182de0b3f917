// Experiment: what a device group is asked to run.
//
// An experiment sweeps parameters over lists of values (the first sweep is the outermost
// loop), repeats the whole grid `repetitions` times, and measures the named quantities at
// every point. Parameters set for the experiment alone travel with it, as do free device
// options and attached resources. The fields are plain data; valid() checks them before
// submission, and serialize()/deserialize() give the stored form:
//
//   {"format": "korvalin.experiment", "version": 1, "title": "...", "desc": "...",
//    "template": null, "attachment": {"pulse": 12}, "sweeps": [{"key": "/q0/drive/freq",
//    "values": [4.9e9, 5.0e9]}], "repetitions": 1, "measure": ["I", "Q"],
//    "parameters": {"/q0/drive/amp": 0.3}, "options": {}}
//
// deserialize() reads "format", "version", "title", "sweeps" and "measure" as required; the
// other fields default to the values of a new Experiment. Fields it does not know are
// ignored, so experiments written by newer versions of the same format still read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::group {
class Group;
}

namespace korvalin_client::experiment {

// One swept parameter: `key` takes each of `values` in turn.
struct Sweep {
  std::string key;
  std::vector<Value> values;

  friend bool operator==(const Sweep&, const Sweep&) = default;
};

class Experiment {
 public:
  // The "format" and the newest "version" of the stored form this library writes and reads.
  static constexpr const char* kFormat = "korvalin.experiment";
  static constexpr std::int64_t kVersion = 1;
  // valid() refuses experiments with more points than this.
  static constexpr std::int64_t kMaxItems = 1'000'000'000;

  Experiment() = default;
  Experiment(std::string title, std::string desc, group::Group* group = nullptr);

  std::string title;
  std::string desc;
  // The name of the experiment template the device runs, if any.
  std::optional<std::string> template_;
  // Attached resources: attachment name -> integer resource id.
  Value attachment = Value::object();
  // Outermost first.
  std::vector<Sweep> sweeps;
  std::int64_t repetitions = 1;
  // Names of the quantities measured at each point, e.g. "I", "Q", "amp".
  std::vector<std::string> measure;
  // Parameter values (full key -> value) set for this experiment only.
  Value parameters = Value::object();
  // Free options passed to the device.
  Value options = Value::object();
  // The group the experiment was created for; not owned, and not part of its stored form.
  group::Group* group = nullptr;

  // Adds a sweep as the new innermost loop. A key without a leading "/" gets one.
  Experiment& sweep(std::string key, std::vector<Value> values);
  // Adds quantities to measure.
  Experiment& measure_quantity(std::string name);
  Experiment& measure_quantities(const std::vector<std::string>& names);
  // Sets a parameter for this experiment only. A key without a leading "/" gets one.
  Experiment& set_parameter(const std::string& key, Value value);

  // The number of points: the product of the sweep lengths times the repetitions (a single
  // point per repetition without sweeps; 0 when a sweep is empty or repetitions < 1).
  // A ValueError when the count does not fit in 64 bits.
  std::int64_t item_count() const;

  // Checks that the experiment can be submitted; a ValueError saying what is wrong otherwise.
  void valid() const;

  // The stored form, shown at the top of this file.
  Value serialize() const;
  // The experiment of a stored form, for `group`. A TypeError naming the field when a field
  // has the wrong kind, a KeyError naming a missing required field, a ValueError for another
  // format or a newer version. The result is not checked: call valid() before submitting it.
  static Experiment deserialize(const Value& value, group::Group* group = nullptr);

  // Equal in everything but `group`.
  friend bool operator==(const Experiment& a, const Experiment& b);
};

}  // namespace korvalin_client::experiment
