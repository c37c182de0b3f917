// What the parts of the executor share: the statuses it sets, the progress record, and one
// run in progress. Private to src/service/.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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
  Run() = default;
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  std::int64_t id = 0;
  std::int64_t group_id = 0;  // its device group: one run per group at a time
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
  bool ended = false;    // nothing more to measure: the outcome is set

  // What begin_run() prepared: the device, and the parameters it sees (the space's, the
  // experiment's, and one slot per sweep that each item sets).
  std::shared_ptr<DeviceModel> model;
  Value parameters;
  std::vector<Value*> slots;               // into `parameters`: a Run never moves
  std::vector<std::size_t> coordinates;    // sweeps that get a column of the result
  std::vector<bool> has_column;            // by sweep
  std::int64_t grid = 1;                   // items in one repetition
  // When its last piece was stored (env clock); the next is measured piece_interval later.
  double last_piece_time = -std::numeric_limits<double>::infinity();
};

}  // namespace korvalin_client::service
