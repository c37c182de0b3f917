// What the two halves of the executor share: the statuses it sets, the progress record, and
// one run in progress. Private to src/service/.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "korvalin_client/experiment/experiment.hpp"
#include "korvalin_client/service/executor.hpp"
#include "korvalin_client/utils/task_status.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::service {
namespace executor_detail {

namespace status = utils::task_status;

inline const std::string kRunning(status::RUNNING);
inline const std::string kQueued(status::QUEUED);
inline const std::string kComplete(status::COMPLETE);
inline const std::string kError(status::ERROR);

// Thrown inside a run when the executor is asked to stop; the experiment is queued again.
struct StopRequested {};

inline Value progress(std::int64_t done, std::int64_t total) {
  return Value{{"done", done}, {"total", total}};
}

// A value as a message shows it, cut at 80 characters.
inline std::string shown(const Value& v) {
  std::string text = v.dump();
  if (text.size() > 80) text = text.substr(0, 80) + "...";
  return text;
}

}  // namespace executor_detail

struct Executor::Run {
  std::int64_t id = 0;
  Value detail;
  experiment::Experiment exp;
  // The test options in force.
  bool legacy_layout = false;
  double merge_delay = 0;
  std::optional<std::int64_t> fail_at_item;
  std::string fail_message;
  std::optional<std::int64_t> restart_at_item;

  std::int64_t total = 0;
  std::int64_t measured = 0;  // items measured, over every pass
  std::int64_t pieces = 0;    // pieces stored; also the next piece id
  std::int64_t next_item = 0;
  bool restart_pending = false;
  bool resumed = false;  // continues where a stopped executor left it
  std::string outcome;   // the final status
  std::string error;     // what went wrong, when the outcome is "error"
};

}  // namespace korvalin_client::service
