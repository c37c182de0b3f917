// Arguments and answers of bound functions, by C++ type.
//
// Arg<P> takes the Python object given for a parameter of C++ type P and holds what the C++
// function receives: a converted copy for values, the object inside a bound instance for
// references to bound classes, and for in-out references (a list, dict or set that the C++
// function changes) a copy whose new contents are written back into the Python object after
// the call. Answer() turns what a function returns into Python objects.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <pybind11/pybind11.h>

#include "convert.hpp"
#include "korvalin_client/experiment/experiment.hpp"
#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/group/cloud_group.hpp"

namespace korvalin_client::python {

// The group object as Python holds it: a CloudGroup and the lock that lets one thread at a
// time call it while the GIL is released.
class BoundGroup : public group::CloudGroup {
 public:
  using CloudGroup::CloudGroup;
  std::recursive_mutex mutex;
};

// The lock of the group `self` belongs to (none for other objects).
template <class Self>
std::recursive_mutex* lock_of(Self& self) {
  if constexpr (std::is_base_of_v<group::Group, Self>) {
    if (auto* bound = dynamic_cast<BoundGroup*>(&self)) return &bound->mutex;
  }
  return nullptr;
}

// The update callback of a Python callable (None: none). It is called with the GIL held and
// the keywords result=, finished=, exp_detail=; what it raises travels back as PythonRaised.
group::UpdateCallback to_update_callback(py::handle obj, ArgRef where);

// Parameter maps (full key -> value) and their Python dicts.
py::dict to_python(const group::ParameterMap& map);
std::shared_ptr<group::ParameterMap> to_parameter_map(py::handle obj, ArgRef where);

// ---- arguments ---------------------------------------------------------------------------
template <class T>
struct Convert;  // Convert<T>::from(obj, where) -> T, for value parameters

// A conversion by one of the functions of convert.hpp.
template <class T, T (*F)(py::handle, ArgRef)>
struct ConvertWith {
  static T from(py::handle o, ArgRef w) { return F(o, w); }
};
template <>
struct Convert<std::int64_t> : ConvertWith<std::int64_t, to_int> {};
template <>
struct Convert<double> : ConvertWith<double, to_real> {};
template <>
struct Convert<bool> : ConvertWith<bool, to_bool> {};
template <>
struct Convert<std::string> : ConvertWith<std::string, to_text> {};
template <>
struct Convert<Value> : ConvertWith<Value, to_value> {};
template <>
struct Convert<Bytes> : ConvertWith<Bytes, to_bytes> {};
template <>
struct Convert<std::vector<std::string>> : ConvertWith<std::vector<std::string>, to_text_list> {};
template <>
struct Convert<group::UpdateCallback> : ConvertWith<group::UpdateCallback, to_update_callback> {};
template <>
struct Convert<std::shared_ptr<group::ParameterMap>>
    : ConvertWith<std::shared_ptr<group::ParameterMap>, to_parameter_map> {};
template <class T>
struct Convert<std::optional<T>> {
  static std::optional<T> from(py::handle o, ArgRef w) {
    if (o.is_none()) return std::nullopt;
    return Convert<T>::from(o, w);
  }
};

// An instance of a bound class, or a TypeError naming the argument.
template <class T>
T& instance_of(py::handle o, ArgRef w, const char* type_name) {
  if (!py::isinstance<T>(o)) wrong_type(w, type_name, o);
  return o.cast<T&>();
}

template <>
struct Convert<experiment::Result> {
  // A copy shares the result's blocks: no data is copied.
  static experiment::Result from(py::handle o, ArgRef w) {
    return instance_of<experiment::Result>(o, w, "Result");
  }
};

template <class P>
struct Arg {
  using T = std::remove_cvref_t<P>;
  Arg(py::handle o, ArgRef w) : value(Convert<T>::from(o, w)) {}
  T& get() { return value; }
  void write_back() {}
  T value;
};

template <>
struct Arg<experiment::Experiment&> {
  Arg(py::handle o, ArgRef w)
      : value(&instance_of<experiment::Experiment>(o, w, "Experiment")) {}
  experiment::Experiment& get() { return *value; }
  void write_back() {}
  experiment::Experiment* value;
};

template <>
struct Arg<experiment::Result&> {
  Arg(py::handle o, ArgRef w) : value(&instance_of<experiment::Result>(o, w, "Result")) {}
  experiment::Result& get() { return *value; }
  void write_back() {}
  experiment::Result* value;
};

// A list (or dict) the function changes: its new contents replace the Python object's.
template <>
struct Arg<Value&> {
  Arg(py::handle o, ArgRef w);
  Value& get() { return value; }
  void write_back();
  py::object source;
  Value value;
};

// A set of integers the function adds to.
template <>
struct Arg<std::set<std::int64_t>&> {
  Arg(py::handle o, ArgRef w);
  std::set<std::int64_t>& get() { return value; }
  void write_back();
  py::object source;
  std::set<std::int64_t> value;
};

// ---- answers -----------------------------------------------------------------------------
inline py::object answer(const Value& v) { return to_python(v); }
inline py::object answer(bool v) { return py::bool_(v); }
inline py::object answer(std::int64_t v) { return py::int_(v); }
inline py::object answer(const std::string& v) { return to_str(v); }
inline py::object answer(const std::shared_ptr<group::ParameterMap>& v) {
  return v ? py::object(to_python(*v)) : py::object(py::none());
}
inline py::object answer(const group::ParameterMap& v) { return to_python(v); }
inline py::object answer(experiment::Result&& v) { return py::cast(std::move(v)); }
inline py::object answer(experiment::Experiment&& v) { return py::cast(std::move(v)); }
py::object answer(const group::CloudGroup::SpaceList& v);
py::object answer(const std::vector<std::string>& v);
template <class T>
py::object answer(std::optional<T>&& v) {
  return v ? answer(std::move(*v)) : py::object(py::none());
}
template <class... T>
py::object answer(std::tuple<T...>&& v) {
  return std::apply([](auto&&... x) { return py::object(py::make_tuple(answer(std::move(x))...)); },
                    std::move(v));
}
template <class A, class B>
py::object answer(std::pair<A, B>&& v) {
  return py::make_tuple(answer(std::move(v.first)), answer(std::move(v.second)));
}

}  // namespace korvalin_client::python
