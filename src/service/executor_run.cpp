// One run of an experiment: its definition and options, the measurement of one piece at a time
// (the queue interleaves the pieces of runs of different groups), and the merge of its pieces
// into one result.
#include "executor_run.hpp"
#include "korvalin_client/service/quota.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <utility>
#include <vector>

#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/parameter_codec.hpp"
#include "korvalin_client/utils/space_cache.hpp"

namespace korvalin_client::service {
namespace {

using namespace executor_detail;
using experiment::Column;
using experiment::Experiment;
using experiment::Result;

// Bounds of the per-experiment options.
constexpr double kMaxMergeDelay = 24 * 3600.0;

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

// The values one sweep took over a piece's items, as a column of the narrowest type that holds
// them all: int64 when every value is an integer, float64 when every one is a real number,
// complex128 when some are [re, im] pairs, and text (the value as JSON, a string as itself)
// otherwise. `index[i]` is the position of item i's value in `values`.
Column sweep_column(const std::vector<Value>& values, const std::vector<std::uint32_t>& index) {
  bool integers = true, reals = true, complex = true;
  for (const Value& v : values) {
    const bool pair = v.is_array() && v.size() == 2 && v[0].is_number() && v[1].is_number();
    integers = integers && v.is_number_integer();
    reals = reals && v.is_number();
    complex = complex && (v.is_number() || pair);
  }
  const auto gather = [&](auto convert) {
    std::vector<decltype(convert(values.front()))> out;
    out.reserve(index.size());
    for (const std::uint32_t k : index) out.push_back(convert(values[k]));
    return Column(std::move(out));
  };
  if (integers) return gather([](const Value& v) { return v.get<std::int64_t>(); });
  if (reals) return gather([](const Value& v) { return v.get<double>(); });
  if (complex) {
    return gather([](const Value& v) {
      return v.is_number() ? std::complex<double>(v.get<double>(), 0.0)
                           : std::complex<double>(v[0].get<double>(), v[1].get<double>());
    });
  }
  return gather([](const Value& v) { return v.is_string() ? v.get<std::string>() : v.dump(); });
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

std::unique_ptr<Executor::Run> Executor::begin_run(std::int64_t id, std::int64_t group_id,
                                                   const Value& resume) {
  auto run = std::make_unique<Run>();
  Run& r = *run;
  r.id = id;
  r.group_id = group_id;
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
    prepare(r);
  } catch (const std::exception& e) {
    r.outcome = kError;
    r.error = e.what();
    r.ended = true;
  } catch (...) {
    // An interruption: leave the experiment queued for the next executor, then pass it on.
    try {
      pause(r, "the executor was interrupted");
    } catch (...) {
    }
    throw;
  }
  return run;
}

void Executor::prepare(Run& r) {
  const Experiment& exp = r.exp;
  r.total = exp.item_count();
  r.model = options_.device_model ? options_.device_model : active_device_model();

  // The device's parameters: the space as of the experiment's time (keys arrive unique and
  // ordered), then the experiment's own, then one slot per swept key.
  Value& parameters = r.parameters;
  parameters = Value::object();
  const Value& ts = r.detail.at("space_timestamp");
  for (Parameter& p : engine_->space_parameters_as_of(
           r.detail.at("space_id").get<std::int64_t>(),
           ts.is_number_integer() ? std::optional(ts.get<std::int64_t>()) : std::nullopt)) {
    Value value;
    try {
      value = utils::decode_parameter(p.value, p.type);
    } catch (const std::exception&) {
      value = std::move(p.value);  // stored before values were checked on write: as it is
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
  for (const auto& sweep : exp.sweeps)  // taken after the last insertion, so they stay valid
    r.slots.push_back(&parameters[utils::normalize_key(sweep.key)]);
  for (const auto& sweep : exp.sweeps) r.grid *= static_cast<std::int64_t>(sweep.values.size());
  // Each swept key also becomes a column of the result (before the measured ones), so that a
  // result is plottable on its own; a measured quantity of the same name keeps the name.
  r.has_column.assign(exp.sweeps.size(), false);
  for (std::size_t s = 0; s < exp.sweeps.size(); ++s) {
    const std::string key = utils::normalize_key(exp.sweeps[s].key);
    bool taken = std::find(exp.measure.begin(), exp.measure.end(), key) != exp.measure.end();
    for (const std::size_t t : r.coordinates)
      taken = taken || utils::normalize_key(exp.sweeps[t].key) == key;
    if (!taken && !exp.sweeps[s].values.empty()) {
      r.coordinates.push_back(s);
      r.has_column[s] = true;
    }
  }
  if (!r.resumed) r.restart_pending = r.restart_at_item.has_value() && *r.restart_at_item > 0;
  record_progress(r);
  r.ended = r.next_item >= r.total;
}

void Executor::record_progress(Run& r) {
  write("recording the progress", [&] {
    engine_->set_experiment_status_if(r.id, kRunning, kRunning, progress(r.next_item, r.total));
  });
}

void Executor::advance(Run& r) {
  try {
    measure_piece(r);
  } catch (const std::exception& e) {
    r.outcome = kError;
    r.error = e.what();
    r.ended = true;
  }
}

void Executor::measure_piece(Run& r) {
  const Experiment& exp = r.exp;
  std::int64_t& item = r.next_item;
  if (item >= r.total) {
    r.ended = true;
    return;
  }
  if (r.restart_pending && item == *r.restart_at_item) {
    r.restart_pending = false;
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
  const std::string now =
      status::normalize_sub_process_status(engine_->get_sub_process_detail(r.id).at("status"));
  if (now != kRunning) {  // canceled (or finished by someone else): stop here
    r.outcome = now;
    r.ended = true;
    return;
  }

  std::int64_t end = std::min(item + options_.items_per_piece, r.total);
  if (r.restart_pending && *r.restart_at_item > item) end = std::min(end, *r.restart_at_item);
  if (r.fail_at_item && *r.fail_at_item > item) end = std::min(end, *r.fail_at_item);

  const std::size_t nq = exp.measure.size();
  std::vector<std::vector<std::complex<double>>> values(nq);
  std::vector<bool> complex(nq, false);
  for (auto& v : values) v.reserve(static_cast<std::size_t>(end - item));
  std::vector<std::vector<std::uint32_t>> swept(exp.sweeps.size());  // value index per item
  for (const std::size_t s : r.coordinates) swept[s].reserve(static_cast<std::size_t>(end - item));
  for (std::int64_t id = item; id < end; ++id) {
    std::int64_t g = id % r.grid;  // repetition-major; the last sweep varies fastest
    for (std::size_t s = r.slots.size(); s-- > 0;) {
      const auto& sweep_values = exp.sweeps[s].values;
      const auto n = static_cast<std::int64_t>(sweep_values.size());
      const auto k = static_cast<std::size_t>(g % n);
      *r.slots[s] = sweep_values[k];
      if (r.has_column[s]) swept[s].push_back(static_cast<std::uint32_t>(k));
      g /= n;
    }
    for (std::size_t q = 0; q < nq; ++q) {
      const std::string& name = exp.measure[q];
      bool is_complex = false;
      values[q].push_back(measured(
          r.model->measure(r.parameters, name, id, noise_seed(r.id, id, name)), is_complex, name,
          id));
      if (is_complex) complex[q] = true;
    }
  }
  std::vector<std::pair<std::string, Column>> columns;
  for (const std::size_t s : r.coordinates) {
    columns.emplace_back(utils::normalize_key(exp.sweeps[s].key),
                         sweep_column(exp.sweeps[s].values, swept[s]));
  }
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
  record_progress(r);
  r.last_piece_time = env().now();
  r.ended = item >= r.total;
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
  Value locator;
  try {
    locator = engine_->get_minio_client(detail.at("organization_id"))
                  ->upload(name, all.to_bytes(), "result", "kvres");
  } catch (const QuotaError& e) {
    // No room for a second copy: the pieces, already stored, stand for the result.
    engine_->append_experiment_message(
        id, "WARNING", std::string(e.what()) + "; the pieces are kept as separate resources");
    register_pieces();
    return;
  }
  const Value resource =
      engine_->add_resource(name, "kvres", locator.dump(), "result", "service", group_id);
  engine_->set_result_resource(id, resource.at("resource_id").get<std::int64_t>());
}

}  // namespace korvalin_client::service
