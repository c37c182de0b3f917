// The queue, served fairly between device groups: one run per group at a time, the runs of
// different groups interleaved piece by piece, each paced by its own piece interval.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "executor_run.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::service {
namespace {

using namespace executor_detail;

// Seconds between looks at the queue while runs are in progress.
constexpr double kQueueLook = 0.05;

// Where a run that an executor stopped at a piece boundary goes on: kept in its progress
// while it is queued again ({"done", "total", "resume": {"item", "piece", "measured",
// "restart_pending"}}), null when it starts from the beginning.
Value resume_point(const Value& detail) {
  const auto it = detail.find("progress");
  if (it == detail.end() || !it->is_string()) return nullptr;
  const Value p = Value::parse(it->get<std::string>(), nullptr, false);
  if (p.is_discarded() || !p.is_object()) return nullptr;
  const auto resume = p.find("resume");
  if (resume == p.end() || !resume->is_object()) return nullptr;
  for (const char* key : {"item", "piece", "measured"}) {
    const auto v = resume->find(key);
    if (v == resume->end() || !v->is_number_integer() || v->get<std::int64_t>() < 0) return nullptr;
  }
  return *resume;
}

}  // namespace

bool Executor::run_once() {
  std::lock_guard lock(work_mutex_);
  if (!own_store_locked() || !settle_endings()) return false;
  Runs active;
  const bool took = admit(active);
  if (active.empty()) return took;  // none queued, or each one taken could not start
  try {
    double looked = env().now();
    while (!active.empty()) {
      if (stop_requested_) {
        pause_all(active, "the executor stopped");
        break;
      }
      take_turn(active);
      // New work of other groups joins in; the queue is looked at every kQueueLook seconds
      // (a look per piece costs more than fine pieces do).
      if (const double now = env().now(); now - looked >= kQueueLook && !stop_requested_) {
        looked = now;
        admit(active);
      }
    }
  } catch (...) {  // an interruption: every run is left queued for the next executor
    pause_all(active, "the executor was interrupted");
    throw;
  }
  return true;
}

bool Executor::admit(Runs& active) {
  // A run whose end is still owed holds back new work (see settle_endings()).
  const auto running = static_cast<std::int64_t>(active.size());
  if (!endings_.empty() || running >= options_.max_active_runs) return false;
  bool took = false;
  std::vector<std::int64_t> busy;
  for (const auto& run : active) busy.push_back(run->group_id);
  for (const auto& next :
       engine_->store().next_queued_runs(busy, options_.max_active_runs - running)) {
    if (!endings_.empty()) break;
    const std::int64_t id = next.sub_process_id;
    // A run starts only with room to end it.
    if (const int error = keep_space_reserve()) {
      const std::string reserve = std::to_string(options_.space_reserve_bytes / 1024) +
                                  " KiB the service keeps in reserve to end a run";
      refuse(id, error == ENOSPC || error == EDQUOT
                     ? "the disk is full: there is no room for the " + reserve
                     : "cannot keep the " + reserve + ": " + std::strerror(error));
      took = true;
      continue;
    }
    // Claimed only while still queued: a cancellation may come first. A run stopped at a
    // piece boundary keeps its resume point.
    const Value resume = resume_point(engine_->get_sub_process_detail(id));
    const Value claimed =
        resume.is_null() ? progress(0, 0) : Value{{"done", resume["measured"]}, {"resume", resume}};
    bool won = false;
    try {
      write("marking experiment " + std::to_string(id) + " running", [&] {
        won = engine_->set_experiment_status_if(id, kQueued, kRunning, claimed).has_value();
      });
    } catch (const std::exception& e) {
      refuse(id, e.what());
      took = true;
      continue;
    }
    if (!won) continue;
    took = true;
    std::unique_ptr<Run> run = begin_run(id, next.device_group_id, resume);
    if (run->ended) {  // it could not begin
      finish(*run);
    } else {
      active.push_back(std::move(run));
    }
  }
  return took;
}

void Executor::refuse(std::int64_t id, const std::string& why) {
  // The store cannot be written, or is about to be full: the reserve makes room for the end.
  release_space_reserve();
  Ending ending{id, {}};
  ending.steps.emplace_back("recording why the run could not start", [this, id, why] {
    engine_->append_experiment_message(id, "ERROR", "the run could not start: " + why);
  });
  ending.steps.emplace_back("setting the final status", [this, id] {
    if (engine_->set_experiment_status_if(id, kQueued, kError, progress(0, 0))) {
      engine_->append_experiment_message(id, "INFO", "ended with an error before its first item");
    }
  });
  if (!carry_out(ending)) endings_.push_back(std::move(ending));
}

void Executor::take_turn(Runs& active) {
  // The run served longest ago: every run keeps its own pace, and equal paces take turns.
  const auto next = std::min_element(active.begin(), active.end(), [](const auto& a, const auto& b) {
    return a->last_piece_time < b->last_piece_time;
  });
  std::unique_ptr<Run> run = std::move(*next);
  active.erase(next);
  try {
    const double waited = env().now() - run->last_piece_time;
    if (waited < options_.piece_interval) env().sleep(options_.piece_interval - waited);
    if (!stop_requested_) advance(*run);
  } catch (...) {  // an interruption: the run is paused with the others
    active.push_back(std::move(run));
    throw;
  }
  if (run->ended) {
    finish(*run);
  } else {
    active.push_back(std::move(run));
  }
}

void Executor::pause_all(Runs& active, const std::string& why) noexcept {
  for (auto& run : active) {
    try {
      pause(*run, why);
    } catch (const std::exception& e) {
      // It stays "running": once this executor gives the lease up, the next owner's recovery
      // starts it over.
      env().print_error("[executor] experiment " + std::to_string(run->id) + ": " + e.what());
    } catch (...) {
    }
  }
  active.clear();
}

}  // namespace korvalin_client::service
