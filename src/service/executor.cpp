#include "korvalin_client/service/executor.hpp"

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
  std::string outcome;        // the final status
  std::string error;          // what went wrong, when the outcome is "error"
};

Executor::Executor(std::shared_ptr<Engine> engine, ExecutorOptions options)
    : engine_(std::move(engine)), options_(std::move(options)) {
  if (!engine_) throw ValueError("the executor needs an engine");
  if (options_.items_per_piece < 1) {
    throw ValueError("items_per_piece must be at least 1, not " +
                     std::to_string(options_.items_per_piece));
  }
  check_interval(options_.piece_interval, "piece_interval");
  check_interval(options_.poll_interval, "poll_interval");
  check_interval(options_.merge_delay, "merge_delay");
  recover();
}

Executor::~Executor() { stop(); }

std::vector<std::int64_t> Executor::recover() {
  const std::vector<std::int64_t> ids = engine_->running_experiments(kMaxListItems);
  for (const std::int64_t id : ids) {
    requeue(id, "the service restarted; the experiment was queued again and runs from item 0");
  }
  return ids;
}

void Executor::requeue(std::int64_t id, const std::string& why) {
  // Pieces first: once queued, another worker may claim it and store new ones.
  engine_->remove_result_pieces(id);
  engine_->append_experiment_message(id, "INFO", why);
  engine_->set_experiment_status_if(id, kRunning, kQueued, progress(0, 0));
}

bool Executor::run_once() {
  for (const std::int64_t id : engine_->queued_experiments(kQueueWindow)) {
    // Claimed only while still queued: another worker or a cancellation may come first.
    if (engine_->set_experiment_status_if(id, kQueued, kRunning, progress(0, 0))) {
      run(id);
      return true;
    }
  }
  return false;
}

void Executor::run(std::int64_t id) {
  Run r;
  r.id = id;
  r.outcome = kComplete;
  try {
    engine_->append_experiment_message(id, "INFO", "running on the simulated device");
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
    requeue(id, "the executor stopped; the experiment was queued again and runs from item 0");
    return;
  } catch (const std::exception& e) {
    r.outcome = kError;
    r.error = e.what();
  } catch (...) {
    // An interruption: leave the experiment queued for the next executor, then pass it on.
    try {
      requeue(id, "the executor was interrupted; the experiment was queued again");
    } catch (...) {
    }
    throw;
  }
  finish(r);
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
  bool restart_pending = r.restart_at_item.has_value() && *r.restart_at_item > 0;
  std::int64_t item = 0;
  engine_->set_experiment_status_if(r.id, kRunning, kRunning, progress(0, r.total));
  while (item < r.total) {
    if (restart_pending && item == *r.restart_at_item) {
      restart_pending = false;
      item = 0;
      engine_->append_experiment_message(r.id, "INFO",
                                         "the device restarted the output at item 0 after " +
                                             std::to_string(*r.restart_at_item) + " items");
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
    engine_->store_result_piece(r.id, r.pieces, data, item, end - 1, end == r.total);
    ++r.pieces;
    r.measured += end - item;
    item = end;
    engine_->set_experiment_status_if(r.id, kRunning, kRunning, progress(item, r.total));
  }
}

void Executor::finish(Run& r) {
  const std::int64_t id = r.id;
  const auto guarded = [&](const char* what, const auto& step) {
    try {
      step();
    } catch (const std::exception& e) {
      try {
        engine_->append_experiment_message(id, "ERROR", std::string(what) + ": " + e.what());
      } catch (const std::exception&) {
      }
      env().print_error("[executor] experiment " + std::to_string(id) + ": " + what + ": " +
                        e.what());
    }
  };
  if (r.outcome == kError) {
    guarded("reporting the failure",
            [&] { engine_->append_experiment_message(id, "ERROR", r.error); });
  }
  // A status this run sets moves on from "running" only: a cancellation stays.
  const auto set_final = [&] {
    if (r.outcome != kComplete && r.outcome != kError) return;
    const Value done = progress(r.outcome == kComplete ? r.total : r.measured, r.total);
    if (!engine_->set_experiment_status_if(id, kRunning, r.outcome, done)) {
      r.outcome =
          status::normalize_sub_process_status(engine_->get_sub_process_detail(id).at("status"));
    }
  };
  if (r.merge_delay > 0) {
    guarded("setting the final status", set_final);
    env().sleep(r.merge_delay);
    guarded("merging the result", [&] { merge(r); });
  } else {
    guarded("merging the result", [&] { merge(r); });
    guarded("setting the final status", set_final);
  }
  std::string closing;
  if (r.outcome == kComplete) {
    closing = "complete: " + std::to_string(r.total) + " items in " + std::to_string(r.pieces) +
              " pieces";
  } else if (r.outcome == kError) {
    closing = "ended with an error after " + std::to_string(r.measured) +
              " items; the items measured were kept";
  } else {
    closing = r.outcome + " after " + std::to_string(r.measured) + " items";
  }
  guarded("closing", [&] { engine_->append_experiment_message(id, "INFO", closing); });
}

void Executor::merge(Run& r) {
  const std::int64_t id = r.id;
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
  const Value group_id = r.detail.at("device_group_id");
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
  if (r.legacy_layout) {
    register_pieces();
    return;
  }
  try {
    Result all(false, false);
    for (std::size_t k = first; k < pieces.size(); ++k) {
      const Value data = engine_->download_result_chunk_from_cache(id, pieces[k].at("piece_id"));
      all.concatenate(
          Result::from_bytes(data.get_binary(), "result piece " + shown(pieces[k].at("piece_id"))));
    }
    const std::string name = std::to_string(id) + "_result.kvres";
    const Value locator = engine_->get_minio_client(r.detail.at("organization_id"))
                              ->upload(name, all.to_bytes(), "result", "kvres");
    const Value resource =
        engine_->add_resource(name, "kvres", locator.dump(), "result", "service", group_id);
    engine_->set_result_resource(id, resource.at("resource_id").get<std::int64_t>());
  } catch (const std::exception& e) {
    // Without a resource on every piece a client would wait for the merge: give each piece
    // its own instead.
    engine_->append_experiment_message(id, "WARNING",
                                       std::string("merging the result failed (") + e.what() +
                                           "); the pieces are kept as separate resources");
    register_pieces();
  }
}

void Executor::start() {
  std::lock_guard lock(thread_mutex_);
  if (thread_.joinable()) return;
  stop_requested_ = false;
  thread_ = std::thread([this] { loop(); });
}

void Executor::stop() {
  std::lock_guard lock(thread_mutex_);
  if (!thread_.joinable()) return;
  stop_requested_ = true;
  thread_.join();
  stop_requested_ = false;
}

void Executor::loop() {
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
