// korvalin_client.experiment.result: Result, with its columns as NumPy arrays.
//
// A numeric column held in one block is handed out as a read-only array over the block itself:
// the array keeps the block alive, and the block is never written while anything else holds
// it, so no byte is copied and the array never changes under its reader. A column of several
// blocks is copied into one new array; text columns are arrays of Python str (dtype object).
#include <complex>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/complex.h>
#include <pybind11/numpy.h>

#include "bindings.hpp"
#include "define.hpp"

namespace korvalin_client::python {
namespace {

using experiment::Column;
using experiment::DType;
using experiment::Result;
using Complex = std::complex<double>;

template <class T>
py::array numeric_array(const Column& column) {
  if (column.block_count() == 1) {
    auto block = column.shared_block<T>(0);
    const T* data = block->data();
    const auto size = static_cast<py::ssize_t>(block->size());
    // The capsule owns one reference to the block for as long as the array (or a view of it)
    // lives.
    auto* owner = new std::shared_ptr<const std::vector<T>>(std::move(block));
    py::capsule base(owner, [](void* p) {
      delete static_cast<std::shared_ptr<const std::vector<T>>*>(p);
    });
    py::array_t<T> array({size}, {static_cast<py::ssize_t>(sizeof(T))}, data, base);
    py::detail::array_proxy(array.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    return array;
  }
  py::array_t<T> array(static_cast<py::ssize_t>(column.size()));
  T* out = array.mutable_data();
  for (std::size_t b = 0; b < column.block_count(); ++b) {
    const auto block = column.block<T>(b);
    std::memcpy(out, block.data(), block.size_bytes());
    out += block.size();
  }
  return array;
}

py::array text_array(const Column& column) {
  py::array out(py::dtype("O"), std::vector<py::ssize_t>{static_cast<py::ssize_t>(column.size())});
  auto** items = static_cast<PyObject**>(out.mutable_data());
  std::size_t i = 0;
  for (std::size_t b = 0; b < column.block_count(); ++b) {
    for (const std::string& s : column.block<std::string>(b)) {
      Py_XDECREF(items[i]);  // NumPy fills new object arrays with None
      items[i++] = to_str(s).release().ptr();
    }
  }
  return out;
}

py::array column_array(const Column& column) {
  switch (column.dtype()) {
    case DType::Int64:
      return numeric_array<std::int64_t>(column);
    case DType::Float64:
      return numeric_array<double>(column);
    case DType::Complex128:
      return numeric_array<Complex>(column);
    case DType::Text:
      return text_array(column);
  }
  return text_array(column);
}

// A column of a Python sequence or array: its NumPy dtype decides the column's type.
Column to_column(const std::string& name, py::handle values) {
  const py::module_ np = py::module_::import("numpy");
  py::array array = np.attr("asarray")(values);
  if (array.ndim() != 1) {
    throw ValueError("column \"" + name + "\" must be one-dimensional, not of shape " +
                     py::str(array.attr("shape")).cast<std::string>());
  }
  const char kind = array.dtype().kind();
  const auto copy = [&]<class T>(T*) {
    const auto typed =
        np.attr("ascontiguousarray")(array, py::dtype::template of<T>()).template cast<py::array_t<T>>();
    return Column(std::vector<T>(typed.data(), typed.data() + typed.size()));
  };
  if (kind == 'i' || kind == 'u' || kind == 'b') return copy(static_cast<std::int64_t*>(nullptr));
  if (kind == 'f') return copy(static_cast<double*>(nullptr));
  if (kind == 'c') return copy(static_cast<Complex*>(nullptr));
  if (kind == 'U' || kind == 'O' || kind == 'S') {
    std::vector<std::string> texts;
    texts.reserve(static_cast<std::size_t>(array.size()));
    for (const py::handle item : array.attr("tolist")()) {
      texts.push_back(to_text(item, ArgRef{"from_columns", "columns"}));
    }
    return Column(std::move(texts));
  }
  throw TypeError("column \"" + name + "\" holds values of NumPy dtype " +
                  py::str(array.dtype()).cast<std::string>() +
                  ", which a result cannot store (int, float, complex or str)");
}

Result from_columns(py::handle item_id_start, py::handle columns) {
  const ArgRef start_ref{"from_columns", "item_id_start"};
  const ArgRef columns_ref{"from_columns", "columns"};
  const std::int64_t start = to_int(item_id_start, start_ref);
  if (!PyDict_Check(columns.ptr())) wrong_type(columns_ref, "dict", columns);
  std::vector<std::pair<std::string, Column>> out;
  for (const auto& [key, values] : py::reinterpret_borrow<py::dict>(columns)) {
    std::string name = to_text(key, columns_ref);
    Column column = to_column(name, values);
    out.emplace_back(std::move(name), std::move(column));
  }
  return Result::from_columns(start, std::move(out));
}

std::string describe(const Result& r) {
  std::string s = "<Result " + std::to_string(r.size()) + " items";
  if (!r.empty()) {
    s += " [" + std::to_string(r.item_id_start()) + ".." + std::to_string(r.item_id_end()) + "]";
  }
  std::string sep = ", columns ";
  for (const auto& [name, column] : r.data()) {
    s += sep + name + ":" + experiment::dtype_name(column.dtype());
    sep = ", ";
  }
  return s + ">";
}

}  // namespace

void bind_result(py::module_& m) {
  py::class_<Result> cls(m, "Result",
                         "The items an experiment produced, as named columns.\n\n"
                         "result[\"I\"] is a NumPy array; keys() the column names; len(result) "
                         "the number of items.");
  cls.attr("__module__") = "korvalin_client.experiment.result";
  def_init(
      cls, py::init([](py::handle contiguous, py::handle same_columns) {
        return Result(to_bool(contiguous, ArgRef{"Result", "contiguous"}),
                      to_bool(same_columns, ArgRef{"Result", "same_columns"}));
      }),
      "A strict accumulator by default: contiguous item ids, the same columns in every chunk.",
      py::arg("contiguous") = true, py::arg("same_columns") = true);
  def_static(cls, "from_columns", &from_columns,
             "A chunk of items item_id_start, item_id_start + 1, ...: {name: values}, each a "
             "sequence or 1-d array of int, float, complex or str.",
             py::arg("item_id_start"), py::arg("columns"));

  cls.def_property_readonly("item_id_start", &Result::item_id_start,
                            "The first item id (0 when empty).");
  cls.def_property_readonly("item_id_end", &Result::item_id_end,
                            "The last item id (-1 when empty).");
  cls.def_property_readonly("size", &Result::size, "The number of items.");
  cls.def_property_readonly("contiguous", &Result::contiguous);
  cls.def_property_readonly("same_columns", &Result::same_columns);
  cls.def_property_readonly(
      "segments", [](const Result& r) { return py::cast(r.segments()); },
      "(first item id, count) of each contiguous run of item ids.");
  cls.def_property_readonly(
      "dtypes",
      [](const Result& r) {
        py::dict out;
        for (const auto& [name, column] : r.data()) {
          out[to_str(name)] = experiment::dtype_name(column.dtype());
        }
        return out;
      },
      "Column name -> \"int64\", \"float64\", \"complex128\" or \"text\".");
  cls.def("__len__", &Result::size);
  cls.def("__bool__", [](const Result& r) { return !r.empty(); });
  cls.def("__repr__", &describe);
  def(cls, "keys", [](const Result& r) { return answer(r.keys()); }, "Column names in order.");
  cls.def("__iter__", [](const Result& r) { return py::iter(answer(r.keys())); });
  cls.def("__contains__", [](const Result& r, py::handle key) {
    return PyUnicode_Check(key.ptr()) && r.contains(key.cast<std::string>());
  });
  cls.def(
      "__getitem__",
      [](const Result& r, py::handle key) {
        return column_array(r[to_text(key, ArgRef{"__getitem__", "key"})]);
      },
      "The column as a NumPy array (read-only, without a copy when the column is one block).");
  def(
      cls, "item_ids",
      [](const Result& r) {
        py::array_t<std::int64_t> out(static_cast<py::ssize_t>(r.size()));
        std::int64_t* p = out.mutable_data();
        for (const auto& [first, count] : r.segments()) {
          for (std::int64_t i = 0; i < count; ++i) *p++ = first + i;
        }
        return out;
      },
      "Every item id, in order, as a NumPy array.");
  def(
      cls, "concatenate",
      [](py::object self, py::handle chunk) {
        self.cast<Result&>().concatenate(
            instance_of<Result>(chunk, ArgRef{"concatenate", "chunk"}, "Result"));
        return self;
      },
      "Joins `chunk` after the items already here, in place, and returns this result. The "
      "chunk's data is shared, not copied.",
      py::arg("chunk"));
  cls.def("__copy__", [](const Result& r) { return Result(r); });
  cls.def("__deepcopy__", [](const Result& r, py::handle) { return Result(r); });

  // Files. A writer saves a copy, which shares the blocks: the GIL is released while it writes,
  // and a join from another thread meanwhile cannot change what it reads.
  const auto write = [](const Result& self, py::handle path, const char* name, auto&& save) {
    const Result copy(self);
    const std::string p = to_text(path, ArgRef{name, "path"});
    Released released;
    save(copy, p);
  };
  def(
      cls, "save_to_file",
      [write](const Result& r, py::handle path) {
        write(r, path, "save_to_file", [](const Result& c, const std::string& p) { c.save_to_file(p); });
      },
      "Writes the result as a \".kvres\" file, atomically.", py::arg("path"));
  def(
      cls, "save_csv",
      [write](const Result& r, py::handle path) {
        write(r, path, "save_csv", [](const Result& c, const std::string& p) { c.save_csv(p); });
      },
      "Writes the result as CSV: item_id and one field per column.", py::arg("path"));
  def(
      cls, "save_json",
      [write](const Result& r, py::handle path, py::handle attributes) {
        const Value a = to_value(attributes, ArgRef{"save_json", "attributes"});
        write(r, path, "save_json", [&](const Result& c, const std::string& p) { c.save_json(p, a); });
      },
      "Writes the result as JSON, with `attributes` (a dict) describing it.", py::arg("path"),
      py::arg("attributes") = py::dict());
  def(
      cls, "save_hdf5",
      [write](const Result& r, py::handle path, py::handle attributes) {
        const Value a = to_value(attributes, ArgRef{"save_hdf5", "attributes"});
        write(r, path, "save_hdf5", [&](const Result& c, const std::string& p) { c.save_hdf5(p, a); });
      },
      "Writes the result as HDF5: a dataset per column, `attributes` on the root group.",
      py::arg("path"), py::arg("attributes") = py::dict());
  static_method<&Result::load_from_file>(cls, "load_from_file", "Reads a \".kvres\" file.",
                                         py::arg("path"));
  def(
      cls, "to_bytes",
      [](const Result& r) {
        const Bytes b = r.to_bytes();
        return py::bytes(reinterpret_cast<const char*>(b.data()), b.size());
      },
      "The \".kvres\" form in memory.");
  def_static(
      cls, "from_bytes",
      [](py::handle data, py::handle name) {
        const Bytes bytes = to_bytes(data, ArgRef{"from_bytes", "data"});
        const std::string n = to_text(name, ArgRef{"from_bytes", "name"});
        Released released;
        return Result::from_bytes(bytes, n);
      },
      "A result from its \".kvres\" form.", py::arg("data"), py::arg("name") = "<bytes>");
}

}  // namespace korvalin_client::python
