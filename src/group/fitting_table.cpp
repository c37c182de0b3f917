#include "fitting_table.hpp"

#include <set>

#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"

namespace korvalin_client::group {
namespace {

bool is_number(const Value& v) { return v.is_number() && !v.is_boolean(); }

const std::set<std::string> kTypes = {"int64", "float64", "complex128", "bool", "text"};

// Whether `v` is a value of a column of `type` (one of kTypes).
bool of_type(const Value& v, const std::string& type) {
  if (type == "int64") return v.is_number_integer();
  if (type == "float64") return is_number(v);
  if (type == "bool") return v.is_boolean();
  if (type == "text") return v.is_string();
  return v.is_array() && v.size() == 2 && is_number(v[0]) && is_number(v[1]);
}

}  // namespace

Value read_fitting_table(const std::string& path) {
  const std::string where = "fitting table " + path;
  Bytes bytes;
  try {
    bytes = utils::read_file(path);
  } catch (const std::exception& e) {
    throw RuntimeError("cannot read the " + where + ": " + e.what());
  }
  Value table;
  try {
    table = utils::json_loads(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  } catch (const ValueError& e) {
    throw ValueError(where + " is not JSON: " + e.what());
  }
  if (!table.is_object() || !table.contains("columns") || !table["columns"].is_array()) {
    throw TypeError(where + " must be a mapping with a list \"columns\"");
  }
  std::set<std::string> names;
  std::optional<std::size_t> rows;
  for (const Value& column : table["columns"]) {
    if (!column.is_object() || !column.contains("name") || !column["name"].is_string() ||
        !column.contains("type") || !column["type"].is_string() || !column.contains("values") ||
        !column["values"].is_array()) {
      throw TypeError(where + ": each column is a mapping of \"name\" (text), \"type\" (text) and "
                              "\"values\" (a list)");
    }
    const std::string& name = column["name"].get_ref<const std::string&>();
    const std::string& type = column["type"].get_ref<const std::string&>();
    const std::string what = where + ", column \"" + name + "\"";
    if (name.empty() || !names.insert(name).second) {
      throw ValueError(where + ": column names must be unique and not empty (\"" + name + "\")");
    }
    if (!kTypes.contains(type)) {
      throw ValueError(what + " has the unknown type \"" + type +
                       "\" (int64, float64, complex128, bool or text)");
    }
    const Value& values = column["values"];
    if (rows && values.size() != *rows) {
      throw ValueError(what + " has " + std::to_string(values.size()) + " values, the first column " +
                       std::to_string(*rows));
    }
    rows = values.size();
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (!of_type(values[i], type)) {
        throw TypeError(what + ": value " + std::to_string(i) + " is not of type " + type + ": " +
                        values[i].dump().substr(0, 80));
      }
    }
  }
  return table;
}

}  // namespace korvalin_client::group
