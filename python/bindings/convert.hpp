// Conversions between Python objects and the library's types, at the boundary of every bound
// function.
//
// Records travel as dict, list, int, float, str, bytes, bool and None both ways (tuples and
// NumPy arrays and scalars are taken as the lists and numbers they hold). An argument of the
// wrong type is a TypeError naming the function and the argument, in Python's own words:
//
//   pull_result() argument 'exp_id' must be int, not str
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <pybind11/pybind11.h>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::python {

namespace py = pybind11;

// Which argument of which function a value was given for.
struct ArgRef {
  const char* function;
  const char* name;
};

// Raises the TypeError "<function>() argument '<name>' must be <wanted>, not <type of got>".
[[noreturn]] void wrong_type(ArgRef where, const char* wanted, py::handle got);

// A Value as Python objects: mappings as dict, lists as list, bytes as bytes, null as None.
py::object to_python(const Value& v);

// Any record: dict (text keys), list or tuple, str, int, float, bool, bytes-like, None, and
// objects with tolist() (NumPy arrays and scalars). Nesting deeper than the library accepts is
// a ValueError, so a list that contains itself is refused rather than followed.
Value to_value(py::handle obj, ArgRef where);

// Typed arguments. int takes Python ints (and NumPy integers); float takes ints too.
std::int64_t to_int(py::handle obj, ArgRef where);
double to_real(py::handle obj, ArgRef where);
bool to_bool(py::handle obj, ArgRef where);
std::string to_text(py::handle obj, ArgRef where);
// bytes, bytearray, memoryview or anything with the buffer protocol; str as its UTF-8.
Bytes to_bytes(py::handle obj, ArgRef where);
// A list or tuple of str.
std::vector<std::string> to_text_list(py::handle obj, ArgRef where);

// A str from UTF-8 the library produced (bytes that are not UTF-8 are kept as surrogates).
py::str to_str(const std::string& text);

}  // namespace korvalin_client::python
