// ProgressBar: how far a pull of an experiment's result has got, on standard error. On a
// terminal, one line redrawn in place (a bar when the total is known, the items so far, the
// status and the rate in items/s); otherwise one plain line per update. The line is finished
// when the bar ends, also when an exception (an interruption) unwinds past it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace korvalin_app {

class ProgressBar {
 public:
  // `label` begins every line ("exp 12"); `terminal` chooses the redrawn line.
  ProgressBar(std::string label, bool terminal);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // `items` received so far, of `total` when known, with the experiment's status.
  void update(std::int64_t items, std::optional<std::int64_t> total, const std::string& status);
  // Ends the redrawn line (nothing to do for plain lines); later updates start a new one.
  void finish();

 private:
  std::string label_;
  bool terminal_;
  std::int64_t first_items_ = -1;  // items and time at the first update
  double first_time_ = 0;
  std::int64_t printed_items_ = -1;  // what the last plain line said
  std::string printed_status_;
};

}  // namespace korvalin_app
