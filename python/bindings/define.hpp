// Defining bound functions from one declaration each.
//
//   method<&CloudGroup::pull_result>(cls, "pull_result", "Delivers an experiment's result...",
//                                    py::arg("exp_id"), py::arg("waiting_for_finished") = true,
//                                    py::arg("update_callback") = py::none());
//
// The argument list is the one place a function's keywords and defaults are written: pybind11
// takes it for the call, the argument conversions take the names from it for their errors, and
// the docstring starts with the text signature built from it, so inspect.signature() and help()
// show "pull_result(self, /, exp_id, waiting_for_finished=True, update_callback=None)". Each
// argument is converted by the C++ parameter's type (arguments.hpp), the call runs with the GIL
// released (and the group's lock held), and the answer is converted back.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include <pybind11/pybind11.h>

#include "arguments.hpp"
#include "python_env.hpp"

namespace korvalin_client::python {

namespace detail {

inline void add_parameter(std::string& sig, std::vector<const char*>& names, const py::arg& a) {
  sig += std::string(sig.back() == '(' ? "" : ", ") + a.name;
  names.push_back(a.name);
}
inline void add_parameter(std::string& sig, std::vector<const char*>& names, const py::arg_v& a) {
  add_parameter(sig, names, static_cast<const py::arg&>(a));
  sig += "=" + py::repr(a.value).cast<std::string>();
}
inline void add_parameter(std::string& sig, std::vector<const char*>&, const py::kw_only&) {
  sig += ", *";
}
template <class Other>
void add_parameter(std::string&, std::vector<const char*>&, const Other&) {}  // keep_alive, ...

template <class F>
struct Traits;
template <class R, class C, class... P>
struct Traits<R (C::*)(P...)> {
  using Return = R;
  using Params = std::tuple<P...>;
};
template <class R, class C, class... P>
struct Traits<R (C::*)(P...) const> : Traits<R (C::*)(P...)> {};
template <class R, class... P>
struct Traits<R (*)(P...)> {
  using Return = R;
  using Params = std::tuple<P...>;
};

template <std::size_t>
using Object = py::object;

// Calls `call(converted arguments...)` with the GIL released, then writes back in-out
// arguments and converts the answer.
template <class Params, std::size_t... I, class Call>
py::object invoke([[maybe_unused]] const char* function,
                  [[maybe_unused]] const std::vector<const char*>& names,
                  std::recursive_mutex* lock, const std::array<py::handle, sizeof...(I)>& objs,
                  Call&& call) {
  std::tuple<Arg<std::tuple_element_t<I, Params>>...> args{
      Arg<std::tuple_element_t<I, Params>>(objs[I], ArgRef{function, names[I]})...};
  using R = decltype(call(std::get<I>(args).get()...));
  if constexpr (std::is_void_v<R>) {
    {
      Released released(lock);
      call(std::get<I>(args).get()...);
    }
    (std::get<I>(args).write_back(), ...);
    return py::none();
  } else {
    std::optional<std::remove_cvref_t<R>> out;
    {
      Released released(lock);
      out.emplace(call(std::get<I>(args).get()...));
    }
    (std::get<I>(args).write_back(), ...);
    return answer(std::move(*out));
  }
}

}  // namespace detail

// "name(self, /, a, b=2)\n--\n\n" + doc: the docstring that inspect.signature() reads.
template <class... Extra>
std::pair<std::string, std::vector<const char*>> signature(const char* name, bool is_method,
                                                           const char* doc,
                                                           const Extra&... extra) {
  std::string sig = std::string(name) + (is_method ? "(self, /" : "(");
  std::vector<const char*> names;
  (detail::add_parameter(sig, names, extra), ...);
  return {sig + ")\n--\n\n" + doc, names};
}

// Binds member function F as method `name` of `cls`.
template <auto F, class Class, class... Extra>
void method(Class& cls, const char* name, const char* doc, const Extra&... extra) {
  using Self = typename Class::type;
  using T = detail::Traits<decltype(F)>;
  auto [text, names] = signature(name, true, doc, extra...);
  [&]<std::size_t... I>(std::index_sequence<I...>) {
    cls.def(
        name,
        [name, names = names](Self& self, detail::Object<I>... objs) {
          return detail::invoke<typename T::Params, I...>(
              name, names, lock_of(self), {objs...},
              [&](auto&... a) -> decltype(auto) { return (self.*F)(a...); });
        },
        extra..., py::doc(text.c_str()));
  }(std::make_index_sequence<std::tuple_size_v<typename T::Params>>{});
}

// Binds static member function F as static method `name` of `cls`.
template <auto F, class Class, class... Extra>
void static_method(Class& cls, const char* name, const char* doc, const Extra&... extra) {
  using T = detail::Traits<decltype(F)>;
  auto [text, names] = signature(name, false, doc, extra...);
  [&]<std::size_t... I>(std::index_sequence<I...>) {
    cls.def_static(
        name,
        [name, names = names](detail::Object<I>... objs) {
          return detail::invoke<typename T::Params, I...>(
              name, names, nullptr, {objs...},
              [&](auto&... a) -> decltype(auto) { return F(a...); });
        },
        extra..., py::doc(text.c_str()));
  }(std::make_index_sequence<std::tuple_size_v<typename T::Params>>{});
}

// Binds a function written by hand (it converts its own arguments) as method `name`, with the
// text signature of `extra`.
template <class Class, class F, class... Extra>
void def(Class& cls, const char* name, F&& f, const char* doc, const Extra&... extra) {
  const std::string text = signature(name, true, doc, extra...).first;
  cls.def(name, std::forward<F>(f), extra..., py::doc(text.c_str()));
}
template <class Class, class Init, class... Extra>
void def_init(Class& cls, Init&& init, const char* doc, const Extra&... extra) {
  const std::string text = signature("__init__", true, doc, extra...).first;
  cls.def(std::forward<Init>(init), extra..., py::doc(text.c_str()));
}
template <class Class, class F, class... Extra>
void def_static(Class& cls, const char* name, F&& f, const char* doc, const Extra&... extra) {
  const std::string text = signature(name, false, doc, extra...).first;
  cls.def_static(name, std::forward<F>(f), extra..., py::doc(text.c_str()));
}

// A read-only property whose value `get(self)` is taken under the object's group lock (a read
// never races with another thread's call on the same group), then converted.
template <class Class, class Get>
void locked_property(Class& cls, const char* name, Get get, const char* doc = "") {
  using Self = typename Class::type;
  cls.def_property_readonly(
      name,
      [get](Self& self) {
        auto value = [&] {
          Released released(lock_of(self));
          return get(self);
        }();
        if constexpr (requires { answer(std::move(value)); }) {
          return answer(std::move(value));
        } else {
          return py::object(py::cast(std::move(value)));
        }
      },
      doc);
}

// Binds a module-level function written by hand.
template <class F, class... Extra>
void def_function(py::module_& m, const char* name, F&& f, const char* doc, const Extra&... extra) {
  const std::string text = signature(name, false, doc, extra...).first;
  m.def(name, std::forward<F>(f), extra..., py::doc(text.c_str()));
}

}  // namespace korvalin_client::python
