// The data table of a fitting result: a JSON file of typed columns (docs/fitting.md).
#pragma once

#include <string>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::group {

// The table in `path`, checked: {"columns": [{"name", "type", "values"}, ...]}, names unique
// and not empty, every column as long as the first, each value of its column's type ("int64",
// "float64", "complex128" as [re, im], "bool", "text"; float64 also takes integers). A file
// that cannot be read is a RuntimeError, one that is not such a table a ValueError or
// TypeError; each names the file (and the column).
Value read_fitting_table(const std::string& path);

}  // namespace korvalin_client::group
