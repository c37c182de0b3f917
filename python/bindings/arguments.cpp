#include "arguments.hpp"

#include <utility>

#include "python_env.hpp"

namespace korvalin_client::python {

group::UpdateCallback to_update_callback(py::handle obj, ArgRef where) {
  if (obj.is_none()) return {};
  if (!PyCallable_Check(obj.ptr())) wrong_type(where, "callable", obj);
  // The library may copy the callback on any thread; the Python object is shared behind one
  // pointer whose last holder lets it go with the GIL held.
  std::shared_ptr<py::object> callable(new py::object(py::reinterpret_borrow<py::object>(obj)),
                                       [](py::object* p) {
                                         py::gil_scoped_acquire gil;
                                         delete p;
                                       });
  return [callable](const experiment::Result& result, bool finished, const Value& exp_detail) {
    py::gil_scoped_acquire gil;
    try {
      using namespace pybind11::literals;
      (*callable)("result"_a = experiment::Result(result), "finished"_a = finished,
                  "exp_detail"_a = to_python(exp_detail));
    } catch (py::error_already_set& e) {
      throw PythonRaised(std::move(e));
    }
  };
}

py::dict to_python(const group::ParameterMap& map) {
  py::dict out;
  for (const auto& [key, value] : map) out[to_str(key)] = to_python(value);
  return out;
}

std::shared_ptr<group::ParameterMap> to_parameter_map(py::handle obj, ArgRef where) {
  if (obj.is_none()) return nullptr;
  if (!PyDict_Check(obj.ptr())) wrong_type(where, "dict", obj);
  auto map = std::make_shared<group::ParameterMap>();
  const Value values = to_value(obj, where);
  for (const auto& [key, value] : values.items()) map->emplace(key, value);
  return map;
}

Arg<Value&>::Arg(py::handle o, ArgRef w)
    : source(py::reinterpret_borrow<py::object>(o)), value(to_value(o, w)) {}

void Arg<Value&>::write_back() {
  if (PyList_Check(source.ptr())) {
    source.attr("__setitem__")(py::slice(py::none(), py::none(), py::none()), to_python(value));
  } else if (PyDict_Check(source.ptr())) {
    source.attr("clear")();
    source.attr("update")(to_python(value));
  }
}

Arg<std::set<std::int64_t>&>::Arg(py::handle o, ArgRef w)
    : source(py::reinterpret_borrow<py::object>(o)) {
  if (!PySet_Check(o.ptr())) wrong_type(w, "set", o);
  for (const py::handle item : py::reinterpret_borrow<py::set>(o)) value.insert(to_int(item, w));
}

void Arg<std::set<std::int64_t>&>::write_back() {
  py::set out = py::reinterpret_borrow<py::set>(source);
  out.clear();
  for (const std::int64_t id : value) out.add(py::int_(id));
}

py::object answer(const group::CloudGroup::SpaceList& v) {
  py::dict out;
  for (const auto& [id, record] : v) out[py::int_(id)] = to_python(record);
  return out;
}

py::object answer(const std::vector<std::string>& v) {
  py::list out;
  for (const std::string& s : v) out.append(to_str(s));
  return out;
}

}  // namespace korvalin_client::python
