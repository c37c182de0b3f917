// Executor: runs the embedded service's queued experiments on the simulated device.
//
// The queue is served fairly between device groups: one run per group at a time (within a
// group, the highest priority first, then the oldest), and the runs of different groups
// interleaved piece by piece, so that a small experiment of one group starts and ends promptly
// while another group's huge one runs. Each run keeps its own pace (piece_interval between its
// own pieces), as separate devices would; a turn goes to the run whose piece has waited longest.
// At most max_active_runs run together; further groups wait for one of them to end, the group
// whose next experiment is oldest first. run_once() serves the queue until no run is left in
// progress; start() does that in a background thread until stop(). A run:
//  1. marks the experiment "running" (only if it is still queued, so two executors never
//     run the same experiment) and loads its definition (resource -> object store ->
//     MessagePack -> Experiment), which must be valid();
//  2. measures every item in order: item ids are repetition-major, and within a repetition
//     the first sweep is the outermost loop (the last sweep varies fastest). At each item the
//     device's parameters are the space's as of the experiment's space_timestamp, with the
//     experiment's own parameters and the item's sweep values laid over them. Each measured
//     quantity becomes a column: float64, or complex128 when the model answers [re, im];
//  3. stores a result piece every `items_per_piece` items (the last one flagged final),
//     updates "progress" ({"done", "total"}), and before each piece checks the status: a
//     canceled experiment (terminate_sub_process) stops there;
//  4. at the end (complete, error or canceled) joins the pieces into one result, uploads it,
//     registers it as a resource (category "result") and gives every piece its id, so a
//     client never waits for a merge; then sets the final status with a closing message.
// A bad definition, a failing device model or any other error ends that experiment with
// status "error" and a message at level "ERROR" saying what was wrong; what was measured
// until then is still merged. Nothing a run does takes the worker down.
//
// Test options, per experiment in Experiment::options or for every run in ExecutorOptions
// (the experiment's own win): "legacy_layout" (bool: each piece its own resource),
// "merge_delay" (seconds the pieces keep no resource after the final status is set),
// "fail_at_item" (fail after that many items, with "fail_message"), "restart_at_item"
// (once, after that many items, the output starts over at item 0; piece ids keep counting
// and the merged result is the last pass).
//
// One owner per store: only the executor holding the store's ExecutorLease (an exclusive lock
// on a file in the storage directory, see executor_lease.hpp) runs experiments. The others
// wait: run_once() answers false, and the worker thread tries for the lease at every idle
// pause, so it takes over within poll_interval once the owner exits or dies.
//
// Recovery: whenever an executor takes the lease, every experiment still "running" was left
// by an owner that is gone (no other executor can be running it): it is queued again, its
// pieces removed, with a message saying the service restarted it, and runs from item 0. A
// run this executor stops at a piece boundary (stop(), an interruption) is queued with its
// resume point instead (kept in its progress), and the next run of it goes on from there.
//
// Faults: every write of a run (its start, pieces, progress, messages, merged result and final
// status) is retried with growing pauses (write_retry_pauses); when a piece or the progress
// still cannot be written, the run ends with status "error" and a message saying what failed;
// when even marking it "running" fails, it ends as "error" from "queued", with that message.
// When even the end of a run cannot be written (a full disk refuses every write), the
// executor keeps it and tries again before it takes any new work, so no run stays "running"
// with no one working on it, and new work proceeds once writes succeed again. Against a
// full disk the owner keeps some space in reserve ("space.reserve", space_reserve_bytes) and
// gives it up when the end of a run cannot be written, so the run ends as "error" even when
// the measurements filled the disk; the reserve is made again once there is room. A run starts
// only with the reserve in place: when it is gone and there is no room to make it again, the
// disk is full, and the run ends at once as "error" saying so.
//
// Every pause goes through korvalin_client::env(): a FakeEnv runs a whole experiment in no
// time and counts the pauses.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "korvalin_client/service/device_model.hpp"
#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/service/executor_lease.hpp"

namespace korvalin_client::service {

struct ExecutorOptions {
  // Items per stored result piece (>= 1).
  std::int64_t items_per_piece = 50;
  // Seconds between pieces, and between looks at the queue when it is empty.
  double piece_interval = 0.2;
  double poll_interval = 0.5;
  // Defaults of the test options (see above) for every run.
  bool legacy_layout = false;
  double merge_delay = 0.0;
  std::optional<std::int64_t> fail_at_item = std::nullopt;
  std::string fail_message = "simulated device failure";
  std::optional<std::int64_t> restart_at_item = std::nullopt;
  // The device; null: active_device_model() at each run (a plug-in, else the built-in).
  std::shared_ptr<DeviceModel> device_model = nullptr;
  // Pauses between the attempts of a write that fails (one attempt more than pauses).
  std::vector<double> write_retry_pauses = {0.1, 0.3, 1.0, 3.0, 10.0};
  // Runs in progress together, each of another device group (>= 1).
  std::int64_t max_active_runs = 8;
  // Disk space the owner keeps in reserve (a file in the storage directory), given up when
  // the end of a run cannot be written, so that a full disk still lets the run end. 0: none.
  std::int64_t space_reserve_bytes = 1 << 20;
};

class Executor {
 public:
  static constexpr const char* kSpaceReserveName = "space.reserve";

  // Takes the store's lease when it is free, and then queues again the experiments left
  // "running" (see above). A ValueError for options out of range (items_per_piece < 1, a
  // negative or non-finite interval or pause, max_active_runs < 1).
  explicit Executor(std::shared_ptr<Engine> engine, ExecutorOptions options = {});
  ~Executor();
  Executor(const Executor&) = delete;
  Executor& operator=(const Executor&) = delete;

  // Serves the queue (see above) until no run is in progress; false when none was queued, when
  // another executor owns the store, or when the end of an earlier run still cannot be written.
  bool run_once();

  // Runs run_once() in a background thread, pausing poll_interval while the queue is empty.
  // Errors are reported with env().print_error and the loop goes on. No-op when running.
  void start();
  // Asks the thread to end, joins it and gives the lease up. The runs in progress stop before
  // their next piece and their experiments are queued again, to resume at that piece. No-op
  // when not running.
  void stop();
  // Asks the thread to end at its next piece boundary (or idle pause) and returns at once,
  // e.g. from a signal's handling thread; stop() then waits for it.
  void request_stop() { stop_requested_ = true; }
  bool running() const { return running_; }

  // Whether this executor holds the store's lease; takes it when it is free (and recovers).
  bool owns_store();
  // Queues again the experiments left "running"; returns their ids. Only the lease holder
  // recovers: without the lease, nothing is touched and the answer is empty.
  std::vector<std::int64_t> recover();
  // How many ended runs still wait for their end to be written.
  std::size_t unfinished_endings() const;

 private:
  struct Run;
  // The writes that end a run, in order, each carried out with retries; what could not be
  // written yet stays here until a later try succeeds.
  struct Ending {
    std::int64_t id = 0;
    std::deque<std::pair<std::string, std::function<void()>>> steps;
  };
  using Runs = std::vector<std::unique_ptr<Run>>;
  bool own_store_locked();
  // The queue (executor_queue.cpp): claims the next queued experiment of each group without a
  // run in `active`, while there is room; ends as "error" one that cannot be started. Whether
  // it took any.
  bool admit(Runs& active);
  void refuse(std::int64_t sub_process_id, const std::string& why);
  // Gives the next turn to the run whose piece has waited longest; ends the runs that are done.
  void take_turn(Runs& active);
  // Queues every run in `active` again, each with where it resumes; never throws.
  void pause_all(Runs& active, const std::string& why) noexcept;
  // One run (executor_run.cpp): its definition and the device's parameters, then one piece
  // per advance(); an error ends the run (Run::ended, outcome "error").
  std::unique_ptr<Run> begin_run(std::int64_t sub_process_id, std::int64_t group_id,
                                 const Value& resume);
  void prepare(Run& run);
  void advance(Run& run);
  void measure_piece(Run& run);
  void record_progress(Run& run);
  // Queues a run stopped at a piece boundary again, with where it resumes.
  void pause(Run& run, const std::string& why);
  void finish(Run& run);
  void merge(std::int64_t id, bool legacy_layout, const Value& detail);
  void requeue(std::int64_t sub_process_id, const std::string& why);
  // Runs one write, retrying failures with the configured pauses; rethrows the last failure
  // as a RuntimeError saying `what` could not be done. Errors in the arguments are not retried.
  void write(const std::string& what, const std::function<void()>& step);
  bool carry_out(Ending& ending);
  std::string space_reserve_path() const;
  // Makes the reserve when it is missing; 0 when it is in place (or none is kept), else the
  // errno that stopped it (ENOSPC: no room).
  int keep_space_reserve();
  bool release_space_reserve();
  bool settle_endings();
  void loop();

  std::shared_ptr<Engine> engine_;
  ExecutorOptions options_;
  std::atomic<bool> stop_requested_{false};
  std::atomic<bool> running_{false};
  std::mutex thread_mutex_;
  std::thread thread_;
  // Guards the lease, the recovery flag and the unfinished endings; held through a run.
  mutable std::mutex work_mutex_;
  ExecutorLease lease_;
  bool recovered_ = false;
  std::vector<Ending> endings_;
};

}  // namespace korvalin_client::service
