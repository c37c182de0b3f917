// The progress of a pull, redrawn in place on a terminal or as plain lines.
#include "progress_bar.hpp"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "console.hpp"

namespace korvalin_app {
namespace {

constexpr int kBarWidth = 24;

std::string format(const char* pattern, double value) {
  char text[64];
  std::snprintf(text, sizeof text, pattern, value);
  return text;
}

}  // namespace

ProgressBar::ProgressBar(std::string label, bool terminal)
    : label_(std::move(label)), terminal_(terminal) {}

ProgressBar::~ProgressBar() { finish(); }

void ProgressBar::update(std::int64_t items, std::optional<std::int64_t> total,
                         const std::string& status) {
  // The rate counts the items that came after the first update, over the time since it.
  const double now = console().now();
  if (first_items_ < 0) {
    first_items_ = items;
    first_time_ = now;
  }
  const double elapsed = now - first_time_;
  const std::int64_t counted = items - first_items_;

  std::string line = label_ + (terminal_ ? " " : ": ");
  if (terminal_ && total && *total > 0) {
    const double part =
        std::clamp(static_cast<double>(items) / static_cast<double>(*total), 0.0, 1.0);
    const int filled = static_cast<int>(part * kBarWidth);
    line += "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] ";
    line += format("%5.1f%% ", part * 100);
  }
  line += std::to_string(items) + (total ? "/" + std::to_string(*total) : "") + " items";
  if (!status.empty()) line += ", " + status;
  if (elapsed > 0.05 && counted > 0) line += ", " + format("%.1f", counted / elapsed) + " items/s";
  if (terminal_) {
    console().show_status(line);
  } else if (items != printed_items_ || status != printed_status_) {  // a line per change
    printed_items_ = items;
    printed_status_ = status;
    console().print_error(line);
  }
}

void ProgressBar::finish() {
  if (terminal_) console().end_status();
}

}  // namespace korvalin_app
