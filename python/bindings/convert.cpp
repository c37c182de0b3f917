#include "convert.hpp"

#include <climits>
#include <cstring>
#include <string>

namespace korvalin_client::python {
namespace {

std::string arg_text(ArgRef where) {
  return std::string(where.function) + "() argument '" + where.name + "'";
}

Value from_python(py::handle obj, ArgRef where, std::size_t depth) {
  if (depth > kMaxValueDepth) {
    throw ValueError(arg_text(where) + " nests lists and mappings deeper than " +
                     std::to_string(kMaxValueDepth) + " levels");
  }
  PyObject* o = obj.ptr();
  if (o == Py_None) return nullptr;
  if (PyBool_Check(o)) return o == Py_True;
  if (PyLong_Check(o)) {
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
    if (overflow == 0) return static_cast<std::int64_t>(v);
    if (overflow > 0) {
      const unsigned long long u = PyLong_AsUnsignedLongLong(o);
      if (!PyErr_Occurred()) return static_cast<std::uint64_t>(u);
      PyErr_Clear();
    }
    throw ValueError(arg_text(where) + " holds an integer out of the 64-bit range");
  }
  if (PyFloat_Check(o)) return PyFloat_AS_DOUBLE(o);
  if (PyUnicode_Check(o)) return to_text(obj, where);
  if (PyBytes_Check(o) || PyByteArray_Check(o) || PyMemoryView_Check(o)) {
    return Value::binary(to_bytes(obj, where));
  }
  if (PyDict_Check(o)) {
    Value out = Value::object();
    PyObject* key = nullptr;
    PyObject* item = nullptr;
    Py_ssize_t pos = 0;
    while (PyDict_Next(o, &pos, &key, &item)) {
      if (!PyUnicode_Check(key)) wrong_type(where, "a dict with str keys", key);
      out[to_text(key, where)] = from_python(item, where, depth + 1);
    }
    return out;
  }
  if (PyList_Check(o) || PyTuple_Check(o)) {
    Value out = Value::array();
    const py::sequence seq = py::reinterpret_borrow<py::sequence>(obj);
    for (const py::handle item : seq) out.push_back(from_python(item, where, depth + 1));
    return out;
  }
  // NumPy arrays and scalars (and anything alike) say what they hold through tolist().
  if (py::hasattr(obj, "tolist")) {
    const py::object plain = obj.attr("tolist")();
    if (plain.ptr() != o) return from_python(plain, where, depth + 1);
  }
  if (PyIndex_Check(o)) return to_int(obj, where);
  wrong_type(where, "a record (dict, list, str, int, float, bool, bytes or None)", obj);
}

}  // namespace

void wrong_type(ArgRef where, const char* wanted, py::handle got) {
  throw TypeError(arg_text(where) + " must be " + wanted + ", not " +
                  std::string(Py_TYPE(got.ptr())->tp_name));
}

py::str to_str(const std::string& text) {
  PyObject* s = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()),
                                     "surrogateescape");
  if (s == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(s);
}

py::object to_python(const Value& v) {
  switch (v.type()) {
    case Value::value_t::null:
    case Value::value_t::discarded:
      return py::none();
    case Value::value_t::boolean:
      return py::bool_(v.get<bool>());
    case Value::value_t::number_integer:
      return py::int_(v.get<std::int64_t>());
    case Value::value_t::number_unsigned:
      return py::int_(v.get<std::uint64_t>());
    case Value::value_t::number_float:
      return py::float_(v.get<double>());
    case Value::value_t::string:
      return to_str(v.get_ref<const std::string&>());
    case Value::value_t::binary: {
      const auto& b = v.get_binary();
      return py::bytes(reinterpret_cast<const char*>(b.data()), b.size());
    }
    case Value::value_t::array: {
      py::list out(v.size());
      std::size_t i = 0;
      for (const Value& item : v) out[i++] = to_python(item);
      return out;
    }
    case Value::value_t::object: {
      py::dict out;
      for (const auto& [key, item] : v.items()) out[to_str(key)] = to_python(item);
      return out;
    }
  }
  return py::none();
}

Value to_value(py::handle obj, ArgRef where) { return from_python(obj, where, 0); }

std::int64_t to_int(py::handle obj, ArgRef where) {
  PyObject* o = obj.ptr();
  if (!PyIndex_Check(o)) wrong_type(where, "int", obj);  // int, bool and NumPy integers
  const py::object index = py::reinterpret_steal<py::object>(PyNumber_Index(o));
  if (!index) throw py::error_already_set();
  int overflow = 0;
  const long long v = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  if (overflow != 0) throw ValueError(arg_text(where) + " is out of the 64-bit integer range");
  return v;
}

double to_real(py::handle obj, ArgRef where) {
  PyObject* o = obj.ptr();
  if (!PyFloat_Check(o) && !PyIndex_Check(o) && !py::hasattr(obj, "__float__")) {
    wrong_type(where, "float", obj);
  }
  const double v = PyFloat_AsDouble(o);
  if (v == -1.0 && PyErr_Occurred()) throw py::error_already_set();
  return v;
}

bool to_bool(py::handle obj, ArgRef where) {
  if (!PyBool_Check(obj.ptr())) wrong_type(where, "bool", obj);
  return obj.ptr() == Py_True;
}

std::string to_text(py::handle obj, ArgRef where) {
  if (!PyUnicode_Check(obj.ptr())) wrong_type(where, "str", obj);
  Py_ssize_t size = 0;
  const char* data = PyUnicode_AsUTF8AndSize(obj.ptr(), &size);
  if (data == nullptr) {
    PyErr_Clear();
    throw ValueError(arg_text(where) + " is not valid Unicode text");
  }
  return std::string(data, static_cast<std::size_t>(size));
}

Bytes to_bytes(py::handle obj, ArgRef where) {
  if (PyUnicode_Check(obj.ptr())) {
    const std::string text = to_text(obj, where);
    return Bytes(text.begin(), text.end());
  }
  if (!PyObject_CheckBuffer(obj.ptr())) wrong_type(where, "bytes", obj);
  Py_buffer view;
  if (PyObject_GetBuffer(obj.ptr(), &view, PyBUF_C_CONTIGUOUS) != 0) throw py::error_already_set();
  const auto* data = static_cast<const std::uint8_t*>(view.buf);
  Bytes out(data, data + view.len);
  PyBuffer_Release(&view);
  return out;
}

std::vector<std::string> to_text_list(py::handle obj, ArgRef where) {
  if (!PyList_Check(obj.ptr()) && !PyTuple_Check(obj.ptr())) wrong_type(where, "list of str", obj);
  std::vector<std::string> out;
  for (const py::handle item : py::reinterpret_borrow<py::sequence>(obj)) {
    if (!PyUnicode_Check(item.ptr())) wrong_type(where, "list of str", item);
    out.push_back(to_text(item, where));
  }
  return out;
}

}  // namespace korvalin_client::python
