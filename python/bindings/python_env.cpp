#include "python_env.hpp"

#include <algorithm>
#include <string>

#include "korvalin_client/utils/env.hpp"

namespace korvalin_client::python {
namespace {

// How many bound calls the thread is inside (a callback may call the library again).
thread_local int calls_in_progress = 0;

// The longest pause between two looks at Python's signals.
constexpr double kSignalSlice = 0.05;

class PythonEnv final : public Env {
 public:
  double now() override { return base_.now(); }

  void sleep(double seconds) override {
    if (calls_in_progress == 0) return base_.sleep(seconds);
    const double until = base_.now() + seconds;
    for (double left = seconds; left > 0; left = until - base_.now()) {
      base_.sleep(std::min(left, kSignalSlice));
      py::gil_scoped_acquire gil;
      // Runs the handlers of signals that arrived (on the main thread only, as Python does):
      // Ctrl-C's handler raises KeyboardInterrupt.
      if (PyErr_CheckSignals() != 0) throw PythonRaised(py::error_already_set());
    }
  }

  void print(const std::string& line) override { write("stdout", line); }
  void print_error(const std::string& line) override { write("stderr", line); }

 private:
  void write(const char* stream, const std::string& line) {
    if (calls_in_progress > 0) {
      py::gil_scoped_acquire gil;
      try {
        const py::object file = py::module_::import("sys").attr(stream);
        if (!file.is_none()) {
          file.attr("write")(line + "\n");
          return;
        }
      } catch (py::error_already_set&) {
        // A closed or broken stream: the line goes to the process's own stream below.
      }
    }
    if (std::string(stream) == "stdout") {
      base_.print(line);
    } else {
      base_.print_error(line);
    }
  }

  Env& base_ = Env::Default();
};

}  // namespace

void install_python_env() {
  // Never destroyed: the embedded service's worker may still pause and print at exit.
  static PythonEnv* const env = new PythonEnv();
  set_env(env);
}

Released::Released(std::recursive_mutex* lock) {
  ++calls_in_progress;
  if (lock != nullptr) lock_ = std::unique_lock<std::recursive_mutex>(*lock);
}

Released::~Released() {
  if (lock_.owns_lock()) lock_.unlock();
  --calls_in_progress;
}

}  // namespace korvalin_client::python
