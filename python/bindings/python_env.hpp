// How a library call behaves inside Python: the GIL, Ctrl-C, printed lines and Python errors.
//
// A bound call that may wait runs inside a Released scope: the GIL is released (other Python
// threads run) and the thread is marked as being in a call. While it is, the library's Env
// (installed when the module is imported) pauses in short slices and lets Python run its
// signal handlers between them, so Ctrl-C raises KeyboardInterrupt in the caller at once,
// whatever retry loop it was in; and the library's progress and warning lines go to Python's
// sys.stdout and sys.stderr, where a notebook or pytest sees them. Threads the library starts
// (the embedded service's worker, download threads) keep the plain Env.
#pragma once

#include <mutex>

#include <pybind11/pybind11.h>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::python {

namespace py = pybind11;

// A Python exception (from a callback, or KeyboardInterrupt from a signal handler) on its way
// back through the library. It is an Interrupted, not a std::exception, so no retry loop of
// the library takes it for a failure to retry; the module's translator raises it again.
struct PythonRaised : Interrupted {
  explicit PythonRaised(py::error_already_set e)
      : Interrupted{"Python exception"}, error(std::move(e)) {}
  py::error_already_set error;
};

// Installs the module's Env (once, for the life of the process).
void install_python_env();

// The scope of a bound call that may wait: marks the thread as in a call, releases the GIL and
// takes `lock` (when given) for the call, in that order, so a thread waiting for the lock never
// holds the GIL.
class Released {
 public:
  explicit Released(std::recursive_mutex* lock = nullptr);
  ~Released();
  Released(const Released&) = delete;
  Released& operator=(const Released&) = delete;

 private:
  py::gil_scoped_release nogil_;
  std::unique_lock<std::recursive_mutex> lock_;
};

}  // namespace korvalin_client::python
