// The executor's owner side: the lease and recovery, retried writes, the end of each run (kept
// until it is written), the space kept in reserve, and the worker thread. The queue is served
// in executor_queue.cpp; a run itself is in executor_run.cpp.
#include "korvalin_client/service/executor.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <utility>
#include <vector>

#include "executor_run.hpp"
#include "korvalin_client/service/quota.hpp"
#include "korvalin_client/service/write_faults.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"

namespace korvalin_client::service {
namespace {

using namespace executor_detail;

// The idle pause is taken in slices this long, so that stop() ends it promptly.
constexpr double kIdleSlice = 0.05;
void check_interval(double seconds, const char* what) {
  if (!std::isfinite(seconds) || seconds < 0) {
    throw ValueError(std::string(what) + " must be a finite number of seconds >= 0, not " +
                     std::to_string(seconds));
  }
}

}  // namespace

Executor::Executor(std::shared_ptr<Engine> engine, ExecutorOptions options)
    : engine_(std::move(engine)),
      options_(std::move(options)),
      lease_(engine_ ? engine_->storage_dir() : std::string()) {
  if (!engine_) throw ValueError("the executor needs an engine");
  if (options_.items_per_piece < 1) {
    throw ValueError("items_per_piece must be at least 1, not " +
                     std::to_string(options_.items_per_piece));
  }
  check_interval(options_.piece_interval, "piece_interval");
  check_interval(options_.poll_interval, "poll_interval");
  check_interval(options_.merge_delay, "merge_delay");
  for (const double pause : options_.write_retry_pauses)
    check_interval(pause, "write_retry_pauses");
  if (options_.max_active_runs < 1) {
    throw ValueError("max_active_runs must be at least 1, not " +
                     std::to_string(options_.max_active_runs));
  }
  try {
    owns_store();
  } catch (const std::exception& e) {  // tried again before each run
    env().print_error(std::string("[executor] ") + e.what());
  }
}

Executor::~Executor() {
  stop();
  std::lock_guard lock(work_mutex_);
  lease_.release();
}

bool Executor::owns_store() {
  std::lock_guard lock(work_mutex_);
  return own_store_locked();
}

bool Executor::own_store_locked() {
  if (!lease_.held()) {
    if (!lease_.try_acquire()) return false;
    recovered_ = false;  // whatever is "running" now was left by an owner that is gone
  }
  if (!recovered_) {
    for (const std::int64_t id : engine_->running_experiments(kMaxListItems)) {
      requeue(id, "the service restarted; the experiment was queued again and runs from item 0");
    }
    recovered_ = true;
    keep_space_reserve();
  }
  return true;
}

std::vector<std::int64_t> Executor::recover() {
  std::lock_guard lock(work_mutex_);
  if (!lease_.try_acquire()) return {};
  const std::vector<std::int64_t> ids = engine_->running_experiments(kMaxListItems);
  recovered_ = false;
  own_store_locked();
  return ids;
}

std::size_t Executor::unfinished_endings() const {
  std::lock_guard lock(work_mutex_);
  return endings_.size();
}

void Executor::requeue(std::int64_t id, const std::string& why) {
  // Pieces first: once queued, another worker may claim it and store new ones.
  write("removing the pieces of experiment " + std::to_string(id),
        [&] { engine_->remove_result_pieces(id); });
  write("recording why experiment " + std::to_string(id) + " runs again",
        [&] { engine_->append_experiment_message(id, "INFO", why); });
  write("queueing experiment " + std::to_string(id) + " again",
        [&] { engine_->set_experiment_status_if(id, kRunning, kQueued, progress(0, 0)); });
}

void Executor::write(const std::string& what, const std::function<void()>& step) {
  for (std::size_t attempt = 0;; ++attempt) {
    try {
      step();
      return;
    } catch (const ValueError&) {
      throw;
    } catch (const QuotaError&) {  // no room until an administrator makes some
      throw;
    } catch (const TypeError&) {
      throw;
    } catch (const KeyError&) {
      throw;
    } catch (const std::exception& e) {
      if (attempt >= options_.write_retry_pauses.size()) {
        throw RuntimeError(what + " failed after " + std::to_string(attempt + 1) +
                           (attempt == 0 ? " attempt: " : " attempts: ") + e.what());
      }
      env().print_error("[executor] " + what + " failed (" + e.what() + "); trying again in " +
                        shown(options_.write_retry_pauses[attempt]) + " s");
      env().sleep(options_.write_retry_pauses[attempt]);
    }
  }
}

bool Executor::carry_out(Ending& ending) {
  bool reserve_given_up = false;
  while (!ending.steps.empty()) {
    try {
      write(ending.steps.front().first, ending.steps.front().second);
    } catch (const std::exception& e) {
      // On a full disk, the space kept in reserve makes room for the end of the run.
      if (!reserve_given_up && release_space_reserve()) {
        reserve_given_up = true;
        env().print_error("[executor] experiment " + std::to_string(ending.id) + ": " + e.what() +
                          "; released the space kept in reserve and trying again");
        continue;
      }
      env().print_error("[executor] experiment " + std::to_string(ending.id) + ": " + e.what() +
                        "; tried again before the next run");
      return false;
    }
    ending.steps.pop_front();
  }
  return true;
}

std::string Executor::space_reserve_path() const {
  return engine_->storage_dir() + "/" + kSpaceReserveName;
}

int Executor::keep_space_reserve() {
  const std::string path = space_reserve_path();
  if (options_.space_reserve_bytes <= 0 || utils::path_exists(path)) return 0;
  if (const int injected = injected_write_error(path)) return injected;
  const std::string temp = path + ".new";
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return errno;
  int error = ::posix_fallocate(fd, 0, options_.space_reserve_bytes);
  ::close(fd);
  if (error == 0 && ::rename(temp.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) ::unlink(temp.c_str());  // no room for it now: tried again before a later run
  return error;
}

bool Executor::release_space_reserve() {
  return options_.space_reserve_bytes > 0 && ::unlink(space_reserve_path().c_str()) == 0;
}

bool Executor::settle_endings() {
  while (!endings_.empty()) {
    if (!carry_out(endings_.front())) return false;
    endings_.erase(endings_.begin());
  }
  return true;
}

void Executor::pause(Run& r, const std::string& why) {
  // Nothing of the run is lost: the next executor measures from the next item on, with the
  // next piece id. (When these writes fail the run stays "running" and, once this executor
  // gives the lease up, the next owner's recovery starts it over.)
  const Value resume{{"item", r.next_item},
                     {"piece", r.pieces},
                     {"measured", r.measured},
                     {"restart_pending", r.restart_pending}};
  write("queueing experiment " + std::to_string(r.id) + " again", [&] {
    engine_->set_experiment_status_if(
        r.id, kRunning, kQueued,
        Value{{"done", r.measured}, {"total", r.total}, {"resume", resume}});
  });
  write("recording why experiment " + std::to_string(r.id) + " waits", [&] {
    engine_->append_experiment_message(
        r.id, "INFO",
        why + "; the experiment was queued again and resumes at item " +
            std::to_string(r.next_item));
  });
}

void Executor::finish(Run& r) {
  const std::int64_t id = r.id;
  Ending ending{id, {}};
  if (r.outcome == kError) {
    ending.steps.emplace_back("recording the failure", [this, id, error = r.error] {
      engine_->append_experiment_message(id, "ERROR", error);
    });
  }
  // The final status moves on from "running" only (a cancellation stays), then the closing
  // message tells how the run ended.
  ending.steps.emplace_back("setting the final status", [this, id, outcome = r.outcome,
                                                         total = r.total, measured = r.measured,
                                                         pieces = r.pieces] {
    std::string final_status = outcome;
    if (outcome == kComplete || outcome == kError) {
      const Value done = progress(outcome == kComplete ? total : measured, total);
      if (!engine_->set_experiment_status_if(id, kRunning, outcome, done)) {
        final_status =
            status::normalize_sub_process_status(engine_->get_sub_process_detail(id).at("status"));
      }
    }
    std::string closing;
    if (final_status == kComplete) {
      closing =
          "complete: " + std::to_string(total) + " items in " + std::to_string(pieces) + " pieces";
    } else if (final_status == kError) {
      closing = "ended with an error after " + std::to_string(measured) +
                " items; the items measured were kept";
    } else {
      closing = final_status + " after " + std::to_string(measured) + " items";
    }
    engine_->append_experiment_message(id, "INFO", closing);
  });
  const auto merge_step =
      std::make_pair(std::string("merging the result"),
                     std::function<void()>([this, id, legacy = r.legacy_layout, detail = r.detail] {
                       merge(id, legacy, detail);
                     }));
  const auto try_merge = [&] {
    try {
      write(merge_step.first, merge_step.second);
    } catch (const std::exception& e) {
      // Kept for later: once writes succeed again, the pieces get their resource.
      env().print_error("[executor] experiment " + std::to_string(id) + ": " + e.what());
      ending.steps.push_back(merge_step);
    }
  };
  if (r.merge_delay > 0) {
    const bool ended = carry_out(ending);
    env().sleep(r.merge_delay);
    try_merge();
    if (!ended || !carry_out(ending)) endings_.push_back(std::move(ending));
  } else {
    try_merge();
    if (!carry_out(ending)) endings_.push_back(std::move(ending));
  }
}

void Executor::start() {
  std::lock_guard lock(thread_mutex_);
  if (thread_.joinable()) return;
  stop_requested_ = false;
  running_ = true;
  thread_ = std::thread([this] { loop(); });
}

void Executor::stop() {
  std::lock_guard lock(thread_mutex_);
  if (!thread_.joinable()) return;
  stop_requested_ = true;
  thread_.join();
  running_ = false;
  stop_requested_ = false;
  // Another executor may take the store over now.
  std::lock_guard work(work_mutex_);
  lease_.release();
}

void Executor::loop() {
  env().worker_begins();
  struct Ends {
    ~Ends() { env().worker_ends(); }
  } ends;
  while (!stop_requested_) {
    bool ran = false;
    try {
      ran = run_once();
    } catch (const Interrupted&) {
      env().print_error("[executor] interrupted; the worker ends");
      return;
    } catch (const std::exception& e) {
      env().print_error(std::string("[executor] ") + e.what());
    } catch (...) {
      env().print_error("[executor] unknown error");
    }
    if (ran) continue;
    // Idle, waiting for the lease, or waiting for writes to succeed again.
    try {
      for (double left = options_.poll_interval; left > 0 && !stop_requested_; left -= kIdleSlice) {
        env().sleep(std::min(left, kIdleSlice));
      }
    } catch (...) {  // an interrupted pause ends the worker
      env().print_error("[executor] interrupted; the worker ends");
      return;
    }
  }
}

}  // namespace korvalin_client::service
