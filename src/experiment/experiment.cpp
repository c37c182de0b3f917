#include "korvalin_client/experiment/experiment.hpp"

#include <limits>
#include <set>
#include <utility>

#include "korvalin_client/utils/space_cache.hpp"

namespace korvalin_client::experiment {

namespace {

std::string quote_text(const std::string& text) {
  return Value(text).dump(-1, ' ', false, Value::error_handler_t::replace);
}

// A value the device will set as a parameter: bounded in depth and free of bytes.
void check_parameter_value(const Value& v, const std::string& what) {
  const ValueShape shape = inspect_value(v);
  if (shape.too_deep) check_depth(v, what);
  if (shape.has_bytes) throw ValueError(what + " holds bytes, which a parameter cannot");
}

// Reading the stored form.

[[noreturn]] void wrong_kind(const std::string& field, const char* wanted, const Value& v) {
  throw TypeError("experiment field \"" + field + "\" must be " + wanted + ", not " +
                  kind_name(v));
}

// A field of `record`; `prefix` locates the record in the stored form ("" or "sweeps[2].").
const Value& required_field(const Value& record, const std::string& prefix, const char* name) {
  auto it = record.find(name);
  if (it == record.end()) throw KeyError("experiment field \"" + prefix + name + "\" is missing");
  return *it;
}

const Value* optional_field(const Value& record, const char* name) {
  auto it = record.find(name);
  return it == record.end() ? nullptr : &*it;
}

std::string read_text(const Value& v, const std::string& field) {
  if (!v.is_string()) wrong_kind(field, "text", v);
  return v.get<std::string>();
}

std::int64_t read_int(const Value& v, const std::string& field) {
  if (!v.is_number_integer()) wrong_kind(field, "an integer", v);
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (v.is_number_unsigned() && v.get<std::uint64_t>() > kMax) {
    throw ValueError("experiment field \"" + field + "\" is out of the 64-bit range");
  }
  return v.get<std::int64_t>();
}

const Value& read_list(const Value& v, const std::string& field) {
  if (!v.is_array()) wrong_kind(field, "a list", v);
  return v;
}

Value read_mapping(const Value& v, const std::string& field) {
  if (!v.is_object()) wrong_kind(field, "a mapping", v);
  check_depth(v, "experiment field \"" + field + "\"");
  return v;
}

}  // namespace

Experiment::Experiment(std::string title, std::string desc, group::Group* group)
    : title(std::move(title)), desc(std::move(desc)), group(group) {}

Experiment& Experiment::sweep(std::string key, std::vector<Value> values) {
  sweeps.push_back({utils::normalize_key(key), std::move(values)});
  return *this;
}

Experiment& Experiment::measure_quantity(std::string name) {
  measure.push_back(std::move(name));
  return *this;
}

Experiment& Experiment::measure_quantities(const std::vector<std::string>& names) {
  measure.insert(measure.end(), names.begin(), names.end());
  return *this;
}

Experiment& Experiment::set_parameter(const std::string& key, Value value) {
  if (parameters.is_null()) parameters = Value::object();
  if (!parameters.is_object()) {
    throw TypeError(std::string("parameters must be a mapping, not ") + kind_name(parameters));
  }
  parameters[utils::normalize_key(key)] = std::move(value);
  return *this;
}

std::int64_t Experiment::item_count() const {
  if (repetitions < 1) return 0;
  for (const auto& s : sweeps) {
    if (s.values.empty()) return 0;
  }
  std::int64_t count = repetitions;
  for (const auto& s : sweeps) {
    if (__builtin_mul_overflow(count, static_cast<std::int64_t>(s.values.size()), &count)) {
      throw ValueError("the experiment's point count does not fit in 64 bits");
    }
  }
  return count;
}

void Experiment::valid() const {
  if (title.empty()) throw ValueError("experiment title is empty");
  if (template_ && template_->empty()) throw ValueError("experiment template name is empty");

  if (measure.empty()) throw ValueError("experiment measures nothing: name a quantity to measure");
  std::set<std::string, std::less<>> measured;
  for (std::size_t i = 0; i < measure.size(); ++i) {
    if (measure[i].empty()) {
      throw ValueError("measured quantity " + std::to_string(i) + " has an empty name");
    }
    if (!measured.insert(measure[i]).second) {
      throw ValueError("quantity " + quote_text(measure[i]) + " is measured twice");
    }
  }

  std::set<std::string, std::less<>> swept;
  for (std::size_t i = 0; i < sweeps.size(); ++i) {
    const Sweep& s = sweeps[i];
    if (s.key.empty()) throw ValueError("sweep " + std::to_string(i) + " has an empty key");
    std::string key = utils::normalize_key(s.key);
    if (!swept.insert(key).second) {
      throw ValueError("parameter " + quote_text(key) + " is swept twice");
    }
    if (s.values.empty()) throw ValueError("sweep of " + quote_text(key) + " has no values");
    for (std::size_t j = 0; j < s.values.size(); ++j) {
      check_parameter_value(s.values[j], "value " + std::to_string(j) + " of the sweep of " +
                                             quote_text(key));
    }
  }

  if (repetitions < 1) {
    throw ValueError("repetitions must be at least 1, not " + std::to_string(repetitions));
  }

  if (!attachment.is_object()) {
    throw ValueError(std::string("attachment must be a mapping of name to resource id, not ") +
                     kind_name(attachment));
  }
  for (const auto& [name, id] : attachment.items()) {
    if (name.empty()) throw ValueError("an attachment has an empty name");
    if (!id.is_number_integer()) {
      throw ValueError("attachment " + quote_text(name) + " must be an integer resource id, not " +
                       kind_name(id));
    }
  }

  if (!parameters.is_object()) {
    throw ValueError(std::string("parameters must be a mapping, not ") + kind_name(parameters));
  }
  for (const auto& [key, value] : parameters.items()) {
    if (key.empty()) throw ValueError("a parameter of the experiment has an empty key");
    check_parameter_value(value, "parameter " + quote_text(key));
  }
  if (!options.is_object()) {
    throw ValueError(std::string("options must be a mapping, not ") + kind_name(options));
  }
  check_depth(options, "options");

  std::int64_t count = item_count();
  if (count > kMaxItems) {
    throw ValueError("experiment has " + std::to_string(count) + " points, more than the " +
                     std::to_string(kMaxItems) + " allowed");
  }
}

Value Experiment::serialize() const {
  Value sweep_list = Value::array();
  for (const auto& s : sweeps) {
    Value entry = Value::object();
    entry["key"] = s.key;
    entry["values"] = Value(s.values);
    sweep_list.push_back(std::move(entry));
  }
  Value out = Value::object();
  out["format"] = kFormat;
  out["version"] = kVersion;
  out["title"] = title;
  out["desc"] = desc;
  out["template"] = template_ ? Value(*template_) : Value(nullptr);
  out["attachment"] = attachment;
  out["sweeps"] = std::move(sweep_list);
  out["repetitions"] = repetitions;
  out["measure"] = measure;
  out["parameters"] = parameters;
  out["options"] = options;
  return out;
}

Experiment Experiment::deserialize(const Value& value, group::Group* group) {
  if (!value.is_object()) {
    throw TypeError(std::string("an experiment must be a mapping, not ") + kind_name(value));
  }
  std::string format = read_text(required_field(value, "", "format"), "format");
  if (format != kFormat) {
    throw ValueError("not an experiment: format " + quote_text(format) + ", not " +
                     quote_text(kFormat));
  }
  std::int64_t version = read_int(required_field(value, "", "version"), "version");
  if (version < 1 || version > kVersion) {
    throw ValueError("experiment version " + std::to_string(version) +
                     " is not one this library reads (1 to " + std::to_string(kVersion) + ")");
  }

  Experiment e;
  e.group = group;
  e.title = read_text(required_field(value, "", "title"), "title");
  if (const Value* v = optional_field(value, "desc")) e.desc = read_text(*v, "desc");
  if (const Value* v = optional_field(value, "template"); v && !v->is_null()) {
    if (!v->is_string()) wrong_kind("template", "text or null", *v);
    e.template_ = v->get<std::string>();
  }
  if (const Value* v = optional_field(value, "attachment")) {
    if (!v->is_object()) wrong_kind("attachment", "a mapping", *v);
    for (const auto& [name, id] : v->items()) {
      if (!id.is_number_integer()) wrong_kind("attachment." + name, "an integer", id);
    }
    e.attachment = *v;
  }

  const Value& sweeps = read_list(required_field(value, "", "sweeps"), "sweeps");
  for (std::size_t i = 0; i < sweeps.size(); ++i) {
    std::string path = "sweeps[" + std::to_string(i) + "]";
    const Value& entry = sweeps[i];
    if (!entry.is_object()) wrong_kind(path, "a mapping", entry);
    Sweep s;
    s.key = read_text(required_field(entry, path + ".", "key"), path + ".key");
    const Value& values =
        read_list(required_field(entry, path + ".", "values"), path + ".values");
    check_depth(values, "experiment field \"" + path + ".values\"");
    s.values.assign(values.begin(), values.end());
    e.sweeps.push_back(std::move(s));
  }

  if (const Value* v = optional_field(value, "repetitions")) {
    e.repetitions = read_int(*v, "repetitions");
  }
  const Value& measure = read_list(required_field(value, "", "measure"), "measure");
  for (std::size_t i = 0; i < measure.size(); ++i) {
    e.measure.push_back(read_text(measure[i], "measure[" + std::to_string(i) + "]"));
  }
  if (const Value* v = optional_field(value, "parameters")) {
    e.parameters = read_mapping(*v, "parameters");
  }
  if (const Value* v = optional_field(value, "options")) {
    e.options = read_mapping(*v, "options");
  }
  return e;
}

bool operator==(const Experiment& a, const Experiment& b) {
  return a.title == b.title && a.desc == b.desc && a.template_ == b.template_ &&
         a.attachment == b.attachment && a.sweeps == b.sweeps &&
         a.repetitions == b.repetitions && a.measure == b.measure &&
         a.parameters == b.parameters && a.options == b.options;
}

}  // namespace korvalin_client::experiment
