// CloudGroup: result retrieval. pull_result and the steps under it: metadata and detail
// polling with retries, the live loop with its chunk book, and terminal-state resolution. The
// downloads it drives are in cloud_group_result_downloads.cpp.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <map>

#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/com/oss.hpp"
#include "korvalin_client/com/sub_process.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/task_status.hpp"
#include "result_records.hpp"

namespace korvalin_client::group {

using experiment::Result;
namespace status = utils::task_status;
using namespace result_records;

namespace {

// The chunk records the live loop knows (its chunk list), indexed so that each poll costs in
// proportion to what it brings: the piece ids known, and the records whose piece is not merged
// yet, by piece id (records of one piece in the order they were added). The pending batch,
// ordered by piece id, is read from that index, so the list itself never needs re-sorting.
class ChunkBook {
 public:
  explicit ChunkBook(const Value& chunk_list) {
    for (const Value& r : chunk_list) add(r);
  }
  // Adds a record, also one of a piece already known.
  void add(const Value& record) {
    const std::int64_t id = piece_id_of(record);
    ids_.insert(id);
    unmerged_[id].push_back(record);
    ++size_;
  }
  // Adds a record of a piece not known yet; a record re-sent by the service is ignored.
  void add_new(const Value& record) {
    if (!ids_.contains(piece_id_of(record))) add(record);
  }
  // The records whose piece is not merged, ordered by piece id.
  Value pending() const {
    Value pending = Value::array();
    for (const auto& [id, records] : unmerged_) {
      for (const Value& r : records) pending.push_back(r);
    }
    return pending;
  }
  void merged(const Value& processed_results) {
    for (const Value& r : processed_results) unmerged_.erase(piece_id_of(r));
  }
  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }

 private:
  std::set<std::int64_t> ids_;
  std::map<std::int64_t, std::vector<Value>> unmerged_;
  std::size_t size_ = 0;
};


}  // namespace

// ---- metadata and detail polling ----------------------------------------------------------

Value CloudGroup::_get_results_with_retry(std::int64_t exp_id, std::int64_t last_chunk_id,
                                          std::int64_t max_retry) {
  while (max_retry > 0) {
    try {
      Value results =
          com::sub_process::get_sub_process_result(exp_id, last_chunk_id + 1, kLastPiece);
      if (results.is_array() || results.is_null()) return results;
      throw TypeError(std::string("the result metadata must be a list, not ") + kind_name(results));
    } catch (const std::exception& e) {
      env().print(std::string("Get results failed:") + " " + e.what());
      --max_retry;
      if (max_retry == 0) {
        std::throw_with_nested(RuntimeError(std::string("Get results failed: ") + e.what()));
      }
      env().sleep(0.5);
    }
  }
  return Value::array();
}

Value CloudGroup::_get_experiment_detail_with_retry(std::int64_t exp_id, std::int64_t max_retry,
                                                    bool allow_empty) {
  Value detail;
  while (max_retry > 0) {
    try {
      detail = std::get<1>(get_experiment_detail(exp_id, false));
      break;
    } catch (const std::exception& e) {
      env().print(std::string("Get experiment detail failed:") + " " + e.what());
      --max_retry;
      if (max_retry == 0) {
        if (allow_empty) {
          detail = Value::object();
        } else {
          // Nothing is retried after this, whatever the message's last word says.
          std::throw_with_nested(RuntimeError(std::string("Get experiment detail failed: ") +
                                              e.what() + "\nRetrying..."));
        }
      } else {
        env().sleep(0.5);
      }
    }
  }
  if (detail.is_object() && !detail.empty()) return detail;
  return Value::object();
}

std::tuple<bool, bool, bool, Value> CloudGroup::_check_result_status(const Value& results,
                                                                     const Value& exp_detail) {
  if (!results.is_array()) {
    throw TypeError(std::string("results must be a list, not ") + kind_name(results));
  }
  if (!exp_detail.is_object()) {
    throw TypeError(std::string("exp_detail must be a mapping, not ") + kind_name(exp_detail));
  }
  const std::string normalized =
      status::normalize_sub_process_status(get_key(exp_detail, "status", ""));
  const bool is_terminal = normalized == status::COMPLETE || normalized == status::ERROR ||
                           normalized == status::CANCELED || normalized == status::TIMEOUT;

  Value resource_ids = Value::array();
  bool has_none_resource_id = false;
  std::set<Value> distinct;
  for (const Value& record : results) {
    const Value& rid = require_key(record, "resource_id");
    if (rid.is_null()) {
      has_none_resource_id = true;
    } else {
      resource_ids.push_back(rid);
      distinct.insert(rid);
    }
  }
  return {is_terminal, distinct.size() < 2, has_none_resource_id, std::move(resource_ids)};
}

// ---- terminal-state resolution ------------------------------------------------------------

std::optional<Result> CloudGroup::_try_resolve_terminal_from_results(
    std::int64_t exp_id, const Value& results, const Value& status_detail,
    const std::string& complete_filename, const std::string& cache_dir,
    const UpdateCallback& update_callback, TerminalOptions options) {
  auto [is_terminal, all_same_resource, has_none_resource_id, resource_ids] =
      _check_result_status(results, status_detail);
  if (!is_terminal) return std::nullopt;

  if (all_same_resource && !has_none_resource_id) {
    if (!resource_ids.empty()) {
      return _download_merged_result(exp_id, resource_ids[0], complete_filename, cache_dir,
                                     update_callback);
    }
    // Merged, but nothing stored: no records at all.
    if (options.empty_resource_return_incomplete) {
      Result held = options.result_obj_for_incomplete
                        ? std::move(*options.result_obj_for_incomplete)
                        : Result();
      // Only a caller that waits for the end asks for this.
      return _return_incomplete_result(exp_id, std::move(held), results,
                                       options.update_callback_for_incomplete, true,
                                       complete_filename, cache_dir);
    }
    Result empty(true, true);
    if (update_callback) {
      Value detail = options.fresh_detail_for_empty_terminal_callback
                         ? _get_experiment_detail_with_retry(exp_id, 20, true)
                         : status_detail;
      update_callback(empty, true, with_sub_process_id(std::move(detail), exp_id));
    }
    return empty;
  }

  if (!all_same_resource && !has_none_resource_id) {
    return _download_old_result_chunks(exp_id, results, complete_filename, cache_dir,
                                       update_callback);
  }
  // Some piece has no resource yet: the server is still merging.
  return _wait_for_server_merge(exp_id, complete_filename, cache_dir,
                                options.wait_merge_detail.value_or(status_detail), update_callback,
                                options.merge_max_wait, options.merge_interval);
}

// ---- the live loop ------------------------------------------------------------------------

Result CloudGroup::_pull_result_realtime(std::int64_t exp_id, const std::string& cache_dir,
                                         const std::string& complete_filename, Result result_obj,
                                         Value chunk_list, std::int64_t last_chunk_id,
                                         bool waiting_for_finished,
                                         const UpdateCallback& update_callback) {
  if (!chunk_list.is_array()) {
    throw TypeError(std::string("chunk_list must be a list, not ") + kind_name(chunk_list));
  }
  bool finished = false;
  std::set<std::int64_t> processed_piece_ids_global;
  std::int64_t status_check_counter = 0;
  Value exp_detail = Value::object();
  // When a "complete" status was first seen with no new metadata (valid while the flag is set).
  bool complete_empty_seen = false;
  double complete_empty_since = 0;
  const double complete_empty_grace_seconds = 2.0;
  std::int64_t empty_loop_counter = 0;
  const std::int64_t empty_loop_log_every = 10;

  ChunkBook chunks(chunk_list);
  auto consume = [&](const Value& pending) {
    auto [merged, processed_results, new_last] = _consume_chunk_list_incremental(
        exp_id, pending, std::move(result_obj), processed_piece_ids_global);
    result_obj = std::move(merged);
    last_chunk_id = new_last;
    chunks.merged(processed_results);
  };

  while (!finished) {
    const Value results = _get_results_with_retry(exp_id, last_chunk_id);

    if (truthy(results)) {
      // A fresh status on the first iteration with metadata and every fifth after it.
      Value exp_status;
      bool have_status = false;
      if (status_check_counter % 5 == 0) {
        try {
          exp_detail = std::get<1>(get_experiment_detail(exp_id, false));
          exp_status = get_key(exp_detail, "status", "");
          have_status = true;
        } catch (const std::exception&) {
        }
      }
      ++status_check_counter;
      if (!have_status || exp_status.is_null()) {
        const Value s = exp_detail.is_object() ? get_key(exp_detail, "status") : Value(nullptr);
        exp_status = truthy(s) ? s : Value("");
      }
      const Value status_for_check = Value::object({{"status", exp_status}});
      auto [is_terminal, all_same_resource, has_none_resource_id, resource_ids] =
          _check_result_status(results, status_for_check);

      // A short merge wait here: a slow server merge must not stall the live loop for long.
      TerminalOptions early_options{.merge_max_wait = 30,
                                    .merge_interval = 1,
                                    .fresh_detail_for_empty_terminal_callback = true};
      if (is_terminal && has_none_resource_id) {
        early_options.wait_merge_detail = _get_experiment_detail_with_retry(exp_id, 20, true);
      }
      if (auto early = _try_resolve_terminal_from_results(exp_id, results, status_for_check,
                                                          complete_filename, cache_dir,
                                                          update_callback, early_options)) {
        return std::move(*early);
      }

      // Keep the first arrival of every piece, then merge what is not merged yet.
      for (const Value* r : sorted_by_piece(results)) chunks.add_new(*r);
      const Value pending = chunks.pending();
      if (!pending.empty()) {
        result_obj = _maybe_reset_result_on_new_chunk_batch(exp_id, pending, std::move(result_obj),
                                                            processed_piece_ids_global);
        consume(pending);
      }

      if (!waiting_for_finished) {
        return _return_incomplete_result(exp_id, std::move(result_obj), results, update_callback,
                                         false, complete_filename, cache_dir);
      }

      finished = truthy(require_key(results.back(), "final_piece"));
      if (update_callback) {
        const Value exp_detail_cb = exp_detail.is_object() && !exp_detail.empty()
                                        ? exp_detail
                                        : _get_experiment_detail_with_retry(exp_id, 20, true);
        exp_detail = exp_detail_cb;
        update_callback(result_obj, finished, exp_detail_cb);
      }

      if (equals(get_key(exp_detail, "status"), status::ERROR)) {
        throw RuntimeError("Experiment runtime error: " + experiment_messages(exp_detail));
      }

      TerminalOptions late_options{.wait_merge_detail = exp_detail,
                                   .empty_resource_return_incomplete = true,
                                   .result_obj_for_incomplete = &result_obj,
                                   .update_callback_for_incomplete = update_callback};
      if (auto late = _try_resolve_terminal_from_results(exp_id, results, status_for_check,
                                                         complete_filename, cache_dir,
                                                         update_callback, late_options)) {
        return std::move(*late);
      }
      if (!finished) env().sleep(2);
      continue;
    }

    // An iteration without new metadata.
    if (!chunks.empty()) {
      const Value pending = chunks.pending();
      if (!pending.empty()) consume(pending);
      if (!waiting_for_finished) {
        return _return_incomplete_result(exp_id, std::move(result_obj), results, update_callback,
                                         false, complete_filename, cache_dir);
      }
    }

    if (!waiting_for_finished) {
      // Nothing known yet: one more look from the beginning before giving up.
      if (last_chunk_id == -1 && result_obj.keys().empty()) {
        const Value results_retry = _get_results_with_retry(exp_id, -1);
        if (truthy(results_retry)) {
          for (const Value& r : results_retry) {
            if (!processed_piece_ids_global.contains(piece_id_of(r))) chunks.add(r);
          }
          continue;
        }
      }
      return _return_incomplete_result(exp_id, std::move(result_obj), results, update_callback,
                                       false, complete_filename, cache_dir);
    }

    ++empty_loop_counter;
    const bool refresh = !update_callback || empty_loop_counter == 1 || empty_loop_counter % 2 == 0;
    if (refresh) {
      try {
        exp_detail = _get_experiment_detail_with_retry(exp_id, 20, true);
        const std::string exp_detail_status =
            status::normalize_sub_process_status(get_key(exp_detail, "status"));

        // Ends the loop with what was merged; the complete file is written when it has data.
        auto finish = [&](const char* which) -> bool {
          exp_detail = with_sub_process_id(exp_detail, exp_id);
          if (!result_obj.keys().empty() && !utils::path_exists(complete_filename)) {
            try {
              result_obj.save_to_file(complete_filename);
            } catch (const std::exception& e) {
              env().print(std::string("Warning: Failed to save ") + which +
                          " partial result for exp_id " + std::to_string(exp_id) + ": " + e.what());
            }
          }
          if (update_callback) update_callback(result_obj, true, exp_detail);
          return true;
        };

        bool done = false;
        if (exp_detail_status == status::COMPLETE) {
          // "complete" must persist for the grace period with no new metadata.
          if (!complete_empty_seen) {
            complete_empty_seen = true;
            complete_empty_since = env().now();
          } else if (env().now() - complete_empty_since >= complete_empty_grace_seconds) {
            done = finish("complete");
          }
        } else {
          complete_empty_seen = false;
        }
        if (!done && (exp_detail_status == status::CANCELED || exp_detail_status == status::ERROR ||
                      exp_detail_status == status::TIMEOUT)) {
          done = finish("terminal");
        }
        if (done) return result_obj;
      } catch (const std::exception&) {
        // A failed refresh or callback only delays the next look.
      }
    }

    if (empty_loop_counter % empty_loop_log_every == 0) {
      const Value status_for_log =
          exp_detail.is_object() ? get_key(exp_detail, "status", "") : Value("");
      env().print("[pull_result_realtime] waiting for results: exp_id=" + std::to_string(exp_id) +
                  ", last_chunk_id=" + std::to_string(last_chunk_id) +
                  ", status=" + text_of(status_for_log) +
                  ", chunk_list_size=" + std::to_string(chunks.size()) +
                  ", idle_loops=" + std::to_string(empty_loop_counter));
    }
    env().sleep(0.5);
  }
  return result_obj;
}

// ---- entry --------------------------------------------------------------------------------

std::optional<Result> CloudGroup::_pull_result_dispatch_initial(
    std::int64_t exp_id, const Value& exp_detail, const Value& results,
    const std::string& complete_filename, const std::string& cache_dir,
    const UpdateCallback& update_callback, Value& chunk_list, Result& result_obj,
    bool waiting_for_finished) {
  const bool is_terminal_status = std::get<0>(_check_result_status(results, exp_detail));
  if (results.empty() && !is_terminal_status) return std::nullopt;
  if (is_terminal_status) {
    return _try_resolve_terminal_from_results(exp_id, results, exp_detail, complete_filename,
                                              cache_dir, update_callback);
  }
  for (const Value& record : results) {
    if (!record.is_object() && !record.is_null()) {
      throw TypeError(std::string("a result-metadata record must be a mapping, not ") +
                      kind_name(record));
    }
    chunk_list.push_back(record);
  }
  // The high-water mark is the last record as received, not the largest piece id.
  const std::int64_t last_chunk_id = chunk_list.empty() ? -1 : piece_id_of(chunk_list.back());
  return _pull_result_realtime(exp_id, cache_dir, complete_filename, std::move(result_obj),
                               chunk_list, last_chunk_id, waiting_for_finished, update_callback);
}

Result CloudGroup::pull_result(std::int64_t exp_id, bool waiting_for_finished,
                               const UpdateCallback& update_callback) {
  const Value exp_detail = com::sub_process::get_sub_process_detail(exp_id);
  const std::string cache_dir =
      create_result_cache_dir(require_key(exp_detail, "create_time"), exp_id);
  const std::string complete_filename =
      cache_dir + "/complete_" + std::to_string(exp_id) + ".kvres";

  if (utils::path_exists(complete_filename)) {
    Result result = Result::load_from_file(complete_filename);
    if (update_callback) {
      const Value detail = std::get<1>(get_experiment_detail(exp_id, false));
      update_callback(result, true, detail);
    }
    return result;
  }

  Value chunk_list = Value::array();
  Result result_obj;
  const Value results = _get_results_with_retry(exp_id, -1);
  if (auto dispatched = _pull_result_dispatch_initial(
          exp_id, exp_detail, results, complete_filename, cache_dir, update_callback, chunk_list,
          result_obj, waiting_for_finished)) {
    return std::move(*dispatched);
  }
  return _pull_result_realtime(exp_id, cache_dir, complete_filename, std::move(result_obj),
                               std::move(chunk_list), -1, waiting_for_finished, update_callback);
}

}  // namespace korvalin_client::group
