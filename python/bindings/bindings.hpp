// The parts of the module korvalin_client._core, one function per part (module.cpp calls them).
#pragma once

#include <pybind11/pybind11.h>

namespace korvalin_client::python {

namespace py = pybind11;

void bind_result(py::module_& m);
void bind_experiment(py::module_& m);
void bind_group(py::module_& m);
void bind_cloud_group(py::module_& m);
void bind_cloud_group_experiments(py::module_& m);
void bind_com(py::module_& m);

}  // namespace korvalin_client::python
