// korvalin_client._core: the library in Python. The package's modules (korvalin_client.group.
// cloud_group, korvalin_client.experiment.result, ...) take their names from here.
#include <pybind11/pybind11.h>

#include "bindings.hpp"
#include "python_env.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::python {
namespace {

// The library's errors as Python's own; a Python exception on its way back is raised again.
void translate(std::exception_ptr error) {
  try {
    if (error) std::rethrow_exception(error);
  } catch (PythonRaised& e) {
    e.error.restore();
  } catch (const Interrupted& e) {
    PyErr_SetString(PyExc_KeyboardInterrupt, e.reason.c_str());
  } catch (const TypeError& e) {
    PyErr_SetString(PyExc_TypeError, e.what());
  } catch (const ValueError& e) {
    PyErr_SetString(PyExc_ValueError, e.what());
  } catch (const KeyError& e) {
    PyErr_SetString(PyExc_KeyError, e.what());
  } catch (const PermissionError& e) {
    PyErr_SetString(PyExc_PermissionError, e.what());
  } catch (const AuthenticationError& e) {
    PyErr_SetString(PyExc_PermissionError, e.what());
  } catch (const Error& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  }
}

}  // namespace
}  // namespace korvalin_client::python

PYBIND11_MODULE(_core, m) {
  namespace kp = korvalin_client::python;
  m.doc() = "The korvalin_client library (import its classes from the package's modules).";
  m.attr("__version__") = KORVALIN_VERSION;
  // Each function's docstring begins with the text signature its declaration builds
  // (define.hpp), which inspect.signature() and help() read.
  pybind11::options options;
  options.disable_function_signatures();
  pybind11::register_exception_translator(&kp::translate);
  kp::install_python_env();
  kp::bind_result(m);
  kp::bind_experiment(m);
  kp::bind_group(m);
  kp::bind_cloud_group(m);
  kp::bind_cloud_group_experiments(m);
  kp::bind_com(m);
}
