#include "korvalin_client/service/executor.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <utility>
#include <vector>

#include "korvalin_client/experiment/experiment.hpp"
#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/group/group.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/space_cache.hpp"
#include "korvalin_client/utils/task_status.hpp"

namespace korvalin_client::service {
namespace {

namespace status = utils::task_status;
using experiment::Column;
using experiment::Experiment;
using experiment::Result;

constexpr std::int64_t kNoEnd = std::numeric_limits<std::int64_t>::max();
// The idle pause is taken in slices this long, so that stop() ends it promptly.
constexpr double kIdleSlice = 0.05;
// How many queued experiments one look at the queue considers.
constexpr std::int64_t kQueueWindow = 16;
// Bounds of the per-experiment options.
constexpr double kMaxMergeDelay = 24 * 3600.0;

const std::string kRunning(status::RUNNING);
const std::string kQueued(status::QUEUED);
const std::string kComplete(status::COMPLETE);
const std::string kError(status::ERROR);

// Thrown inside a run when the executor is asked to stop; the experiment is queued again.
struct StopRequested {};

Value progress(std::int64_t done, std::int64_t total) {
  return Value{{"done", done}, {"total", total}};
}

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

std::string shown(const Value& v) {
  std::string text = v.dump();
  if (text.size() > 80) text = text.substr(0, 80) + "...";
  return text;
}

void check_interval(double seconds, const char* what) {
  if (!std::isfinite(seconds) || seconds < 0) {
    throw ValueError(std::string(what) + " must be a finite number of seconds >= 0, not " +
                     std::to_string(seconds));
  }
}

std::optional<std::int64_t> item_option(const Value& options, const char* key,
                                        std::optional<std::int64_t> fallback) {
  const auto it = options.find(key);
  if (it == options.end() || it->is_null()) return fallback;
  if (!it->is_number_integer() || it->get<std::int64_t>() < 0) {
    throw ValueError(std::string("option \"") + key + "\" must be an item count >= 0, not " +
                     shown(*it));
  }
  return it->get<std::int64_t>();
}

// A measured value as a complex number; `is_complex` tells whether it was [re, im].
std::complex<double> measured(const Value& v, bool& is_complex, const std::string& quantity,
                              std::int64_t item_id) {
  if (v.is_number()) return {v.get<double>(), 0.0};
  if (v.is_array() && v.size() == 2 && v[0].is_number() && v[1].is_number()) {
    is_complex = true;
    return {v[0].get<double>(), v[1].get<double>()};
  }
  throw TypeError("the device model answered " + shown(v) + " for quantity \"" + quantity +
                  "\" at item " + std::to_string(item_id) + "; expected a number or [re, im]");
}

// Loads an experiment's definition: resource -> locator -> bytes -> MessagePack -> Experiment.
Experiment load_definition(Engine& engine, const Value& detail) {
  const Value& resource_id = detail.at("resource_id");
  if (resource_id.is_null()) throw ValueError("the experiment has no definition (no resource)");
  const Value info = engine.get_resource_info(resource_id);
  if (info.at("list").empty()) {
    throw RuntimeError("the definition's resource " + shown(resource_id) + " does not exist");
  }
  const Value& uri = info.at("list")[0].at("uri");
  Value locator = uri;
  if (uri.is_string()) {
    locator = Value::parse(uri.get<std::string>(), nullptr, false);
    if (locator.is_discarded()) throw ValueError("the definition's location is not JSON");
  }
  const Bytes data = engine.get_minio_client(detail.at("organization_id"))->download(locator);
  Experiment exp = Experiment::deserialize(utils::msgpack_loads(data), nullptr);
  exp.valid();
  return exp;
}

// Appends `key` -> `value` to a mapping without the search for an equal key that
// ordered_json's insertion makes (linear per key): callers pass keys known to be new.
void append_unique(Value& mapping, std::string key, Value value) {
  auto& items = static_cast<std::vector<std::pair<const std::string, Value>>&>(
      mapping.get_ref<Value::object_t&>());
  items.emplace_back(std::move(key), std::move(value));
}

void lay_over(Value& mapping, const std::string& key, Value value) {
  const auto it = mapping.find(key);
  if (it != mapping.end()) {
    *it = std::move(value);
  } else {
    append_unique(mapping, key, std::move(value));
  }
}

}  // namespace

struct Executor::Run {
  std::int64_t id = 0;
  Value detail;
  Experiment exp;
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
  bool resumed = false;       // continues where a stopped executor left it
  std::string outcome;        // the final status
  std::string error;          // what went wrong, when the outcome is "error"
};

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
  for (const double pause : options_.write_retry_pauses) check_interval(pause, "write_retry_pauses");
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
  for (const std::int64_t id : ids) {
    requeue(id, "the service restarted; the experiment was queued again and runs from item 0");
  }
  recovered_ = true;
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
    } catch (const TypeError&) {
      throw;
    } catch (const KeyError&) {
      throw;
    } catch (const std::exception& e) {
      if (attempt >= options_.write_retry_pauses.size() || stop_requested_) {
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

void Executor::keep_space_reserve() {
  const std::string path = space_reserve_path();
  if (options_.space_reserve_bytes <= 0 || utils::path_exists(path)) return;
  const std::string temp = path + ".new";
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const bool made = ::posix_fallocate(fd, 0, options_.space_reserve_bytes) == 0;
  ::close(fd);
  // No room for it now: made again after a later run.
  if (!made || ::rename(temp.c_str(), path.c_str()) != 0) ::unlink(temp.c_str());
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

bool Executor::run_once() {
  std::lock_guard lock(work_mutex_);
  if (!own_store_locked() || !settle_endings()) return false;
  for (const std::int64_t id : engine_->queued_experiments(kQueueWindow)) {
    // Claimed only while still queued: a cancellation may come first. A run stopped at a
    // piece boundary keeps its resume point.
    const Value resume = resume_point(engine_->get_sub_process_detail(id));
    const Value claimed = resume.is_null() ? progress(0, 0)
                                           : Value{{"done", resume["measured"]}, {"resume", resume}};
    if (engine_->set_experiment_status_if(id, kQueued, kRunning, claimed)) {
      run(id, resume);
      if (endings_.empty()) keep_space_reserve();
      return true;
    }
  }
  return false;
}

void Executor::run(std::int64_t id, const Value& resume) {
  Run r;
  r.id = id;
  r.outcome = kComplete;
  if (!resume.is_null()) {
    r.resumed = true;
    r.next_item = resume["item"].get<std::int64_t>();
    r.pieces = resume["piece"].get<std::int64_t>();
    r.measured = resume["measured"].get<std::int64_t>();
    r.restart_pending = resume.value("restart_pending", false);
  }
  try {
    write("recording the start", [&] {
      engine_->append_experiment_message(
          id, "INFO",
          r.resumed ? "resuming at item " + std::to_string(r.next_item) + " on the simulated device"
                    : std::string("running on the simulated device"));
    });
    r.detail = engine_->get_sub_process_detail(id);
    try {
      r.exp = load_definition(*engine_, r.detail);
    } catch (const std::exception& e) {
      throw ValueError(std::string("cannot load the experiment definition: ") + e.what());
    }
    const Value& o = r.exp.options;
    if (!o.is_object()) throw TypeError("the experiment's options must be a mapping");
    r.legacy_layout = options_.legacy_layout;
    if (const auto it = o.find("legacy_layout"); it != o.end() && !it->is_null()) {
      if (!it->is_boolean()) throw TypeError("option \"legacy_layout\" must be true or false");
      r.legacy_layout = it->get<bool>();
    }
    r.merge_delay = options_.merge_delay;
    if (const auto it = o.find("merge_delay"); it != o.end() && !it->is_null()) {
      if (!it->is_number() || !(it->get<double>() >= 0 && it->get<double>() <= kMaxMergeDelay)) {
        throw ValueError("option \"merge_delay\" must be seconds in [0, 86400], not " + shown(*it));
      }
      r.merge_delay = it->get<double>();
    }
    r.fail_at_item = item_option(o, "fail_at_item", options_.fail_at_item);
    r.fail_message = options_.fail_message;
    if (const auto it = o.find("fail_message"); it != o.end() && !it->is_null()) {
      if (!it->is_string()) throw TypeError("option \"fail_message\" must be text");
      r.fail_message = it->get<std::string>();
    }
    r.restart_at_item = item_option(o, "restart_at_item", options_.restart_at_item);
    measure_all(r);
  } catch (const StopRequested&) {
    pause(r, "the executor stopped");
    return;
  } catch (const std::exception& e) {
    r.outcome = kError;
    r.error = e.what();
  } catch (...) {
    // An interruption: leave the experiment queued for the next executor, then pass it on.
    try {
      pause(r, "the executor was interrupted");
    } catch (...) {
    }
    throw;
  }
  finish(r);
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
    engine_->set_experiment_status_if(r.id, kRunning, kQueued,
                                      Value{{"done", r.measured}, {"total", r.total}, {"resume", resume}});
  });
  write("recording why experiment " + std::to_string(r.id) + " waits", [&] {
    engine_->append_experiment_message(r.id, "INFO",
                                       why + "; the experiment was queued again and resumes at item " +
                                           std::to_string(r.next_item));
  });
}

void Executor::measure_all(Run& r) {
  const Experiment& exp = r.exp;
  r.total = exp.item_count();
  const std::shared_ptr<DeviceModel> model =
      options_.device_model ? options_.device_model : active_device_model();

  // The device's parameters: the space as of the experiment's time (keys arrive unique and
  // ordered), then the experiment's own, then one slot per swept key.
  Value parameters = Value::object();
  const Value& ts = r.detail.at("space_timestamp");
  for (Parameter& p : engine_->space_parameters_as_of(
           r.detail.at("space_id").get<std::int64_t>(),
           ts.is_number_integer() ? std::optional(ts.get<std::int64_t>()) : std::nullopt)) {
    Value value;
    try {
      value = group::Group::deserialize_single_parameter(p.value, p.type);
    } catch (const std::exception&) {
      value = std::move(p.value);  // a type this library does not know: as stored
    }
    append_unique(parameters, std::move(p.key), std::move(value));
  }
  for (const auto& [key, value] : exp.parameters.items()) {
    lay_over(parameters, utils::normalize_key(key), value);
  }
  for (const auto& sweep : exp.sweeps) {
    const std::string key = utils::normalize_key(sweep.key);
    if (!parameters.contains(key)) append_unique(parameters, key, nullptr);
  }
  std::vector<Value*> slots;  // taken after the last insertion, so they stay valid
  for (const auto& sweep : exp.sweeps)
    slots.push_back(&parameters[utils::normalize_key(sweep.key)]);
  std::int64_t grid = 1;
  for (const auto& sweep : exp.sweeps) grid *= static_cast<std::int64_t>(sweep.values.size());

  const std::size_t nq = exp.measure.size();
  bool& restart_pending = r.restart_pending;
  std::int64_t& item = r.next_item;
  if (!r.resumed) restart_pending = r.restart_at_item.has_value() && *r.restart_at_item > 0;
  const auto record_progress = [&](std::int64_t done) {
    write("recording the progress",
          [&] { engine_->set_experiment_status_if(r.id, kRunning, kRunning, progress(done, r.total)); });
  };
  record_progress(item);
  while (item < r.total) {
    if (restart_pending && item == *r.restart_at_item) {
      restart_pending = false;
      item = 0;
      write("recording the restart", [&] {
        engine_->append_experiment_message(r.id, "INFO",
                                           "the device restarted the output at item 0 after " +
                                               std::to_string(*r.restart_at_item) + " items");
      });
    }
    if (r.fail_at_item && item == *r.fail_at_item) {
      throw RuntimeError(r.fail_message + " (after " + std::to_string(item) + " items)");
    }
    if (r.pieces > 0) env().sleep(options_.piece_interval);
    if (stop_requested_) throw StopRequested{};
    const std::string now =
        status::normalize_sub_process_status(engine_->get_sub_process_detail(r.id).at("status"));
    if (now != kRunning) {  // canceled (or finished by someone else): stop here
      r.outcome = now;
      return;
    }

    std::int64_t end = std::min(item + options_.items_per_piece, r.total);
    if (restart_pending && *r.restart_at_item > item) end = std::min(end, *r.restart_at_item);
    if (r.fail_at_item && *r.fail_at_item > item) end = std::min(end, *r.fail_at_item);

    std::vector<std::vector<std::complex<double>>> values(nq);
    std::vector<bool> complex(nq, false);
    for (auto& v : values) v.reserve(static_cast<std::size_t>(end - item));
    for (std::int64_t id = item; id < end; ++id) {
      std::int64_t g = id % grid;  // repetition-major; the last sweep varies fastest
      for (std::size_t s = slots.size(); s-- > 0;) {
        const auto& sweep_values = exp.sweeps[s].values;
        const auto n = static_cast<std::int64_t>(sweep_values.size());
        *slots[s] = sweep_values[static_cast<std::size_t>(g % n)];
        g /= n;
      }
      for (std::size_t q = 0; q < nq; ++q) {
        const std::string& name = exp.measure[q];
        bool is_complex = false;
        values[q].push_back(
            measured(model->measure(parameters, name, id, noise_seed(r.id, id, name)), is_complex,
                     name, id));
        if (is_complex) complex[q] = true;
      }
    }
    std::vector<std::pair<std::string, Column>> columns;
    for (std::size_t q = 0; q < nq; ++q) {
      if (complex[q]) {
        columns.emplace_back(exp.measure[q], Column(std::move(values[q])));
      } else {
        std::vector<double> real;
        real.reserve(values[q].size());
        for (const auto& c : values[q]) real.push_back(c.real());
        columns.emplace_back(exp.measure[q], Column(std::move(real)));
      }
    }
    const Bytes data = Result::from_columns(item, std::move(columns)).to_bytes();
    write("storing result piece " + std::to_string(r.pieces), [&] {
      engine_->store_result_piece(r.id, r.pieces, data, item, end - 1, end == r.total);
    });
    ++r.pieces;
    r.measured += end - item;
    item = end;
    record_progress(item);
  }
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
      closing = "complete: " + std::to_string(total) + " items in " + std::to_string(pieces) +
                " pieces";
    } else if (final_status == kError) {
      closing = "ended with an error after " + std::to_string(measured) +
                " items; the items measured were kept";
    } else {
      closing = final_status + " after " + std::to_string(measured) + " items";
    }
    engine_->append_experiment_message(id, "INFO", closing);
  });
  const auto merge_step = std::make_pair(
      std::string("merging the result"),
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

void Executor::merge(std::int64_t id, bool legacy_layout, const Value& detail) {
  Value pieces = engine_->get_sub_process_result(id, 0, nullptr);
  if (pieces.empty()) return;
  // Only the last pass counts: a piece whose items do not follow its predecessor's starts
  // the output over.
  std::size_t first = 0;
  for (std::size_t k = 1; k < pieces.size(); ++k) {
    if (pieces[k].at("item_id_start").get<std::int64_t>() <=
        pieces[k - 1].at("item_id_end").get<std::int64_t>()) {
      first = k;
    }
  }
  const Value group_id = detail.at("device_group_id");
  const auto register_pieces = [&] {
    if (first > 0) {  // joined slice by slice, earlier passes would break the order
      engine_->remove_result_pieces(id, 0, pieces[first].at("piece_id").get<std::int64_t>() - 1);
    }
    for (std::size_t k = first; k < pieces.size(); ++k) {
      const Value& piece = pieces[k];
      const std::int64_t piece_id = piece.at("piece_id").get<std::int64_t>();
      const Value locator{{"bucket", piece.at("bucket")}, {"object", piece.at("object")}};
      const Value resource =
          engine_->add_resource(std::to_string(id) + "_" + std::to_string(piece_id) + ".kvres",
                                "kvres", locator.dump(), "result", "service", group_id);
      engine_->set_piece_resource(id, piece_id, resource.at("resource_id").get<std::int64_t>());
    }
  };
  if (legacy_layout) {
    register_pieces();
    return;
  }
  Result all(false, false);
  try {
    for (std::size_t k = first; k < pieces.size(); ++k) {
      const Value data = engine_->download_result_chunk_from_cache(id, pieces[k].at("piece_id"));
      all.concatenate(
          Result::from_bytes(data.get_binary(), "result piece " + shown(pieces[k].at("piece_id"))));
    }
  } catch (const std::exception& e) {
    // Pieces that cannot be joined: without a resource on every piece a client would wait
    // for the merge, so each piece gets its own instead.
    engine_->append_experiment_message(id, "WARNING",
                                       std::string("merging the result failed (") + e.what() +
                                           "); the pieces are kept as separate resources");
    register_pieces();
    return;
  }
  // A failure to write the merged result is not a reason to give up the merge: it is
  // retried by the caller.
  const std::string name = std::to_string(id) + "_result.kvres";
  const Value locator = engine_->get_minio_client(detail.at("organization_id"))
                            ->upload(name, all.to_bytes(), "result", "kvres");
  const Value resource =
      engine_->add_resource(name, "kvres", locator.dump(), "result", "service", group_id);
  engine_->set_result_resource(id, resource.at("resource_id").get<std::int64_t>());
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
