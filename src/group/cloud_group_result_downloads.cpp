// CloudGroup: the downloads of result retrieval: chunks from the service's cache,
// incremental joining, merged and legacy results, waiting for the server's merge, incomplete
// results and the clean-up of chunk files.
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

// ---- chunk download -----------------------------------------------------------------------

Result CloudGroup::_download_chunk(std::int64_t exp_id, std::int64_t piece_id) {
  Bytes payload = to_bytes(com::sub_process::download_result_chunk_from_cache(exp_id, piece_id),
                           "the result chunk");
  // Decoded straight from memory: the chunk never touches the disk, so no temporary file can
  // be left behind.
  return Result::from_bytes(payload, "result chunk " + std::to_string(piece_id) +
                                         " of experiment " + std::to_string(exp_id));
}

std::optional<Result> CloudGroup::_download_chunk_from_cache_with_retry(std::int64_t exp_id,
                                                                        std::int64_t piece_id,
                                                                        std::int64_t max_retry,
                                                                        double sleep_s) {
  std::int64_t remaining = max_retry;
  std::int64_t attempts = 0;
  while (remaining > 0) {
    try {
      return _download_chunk(exp_id, piece_id);
    } catch (const std::exception& e) {
      ++attempts;
      if (attempts == 1) {
        env().print("Failed to download chunk " + std::to_string(piece_id) +
                    " (exp_id=" + std::to_string(exp_id) + "): " + e.what() +
                    ". Will retry up to " + std::to_string(max_retry - 1) + " more times.");
      }
      --remaining;
      if (remaining == 0) {
        env().print("Give up downloading chunk " + std::to_string(piece_id) +
                    " (exp_id=" + std::to_string(exp_id) + ") after " + std::to_string(max_retry) +
                    " attempts: " + e.what());
        std::throw_with_nested(RuntimeError("Failed to download chunk " + std::to_string(piece_id) +
                                            ": " + e.what() + "\nRetrying..."));
      }
      env().sleep(sleep_s);
    }
  }
  return std::nullopt;
}

// ---- incremental joining ------------------------------------------------------------------

Result CloudGroup::_maybe_reset_result_on_new_chunk_batch(
    std::int64_t exp_id, const Value& chunk_list, Result result_obj,
    std::set<std::int64_t>& /*processed_piece_ids_global*/) {
  if (!chunk_list.is_array() || chunk_list.empty()) return result_obj;
  const Result first_chunk_res = _download_chunk(exp_id, piece_id_of(chunk_list[0]));
  if (first_chunk_res.item_id_start() == 0 && result_obj.item_id_end() >= 0 &&
      !result_obj.keys().empty()) {
    env().print(
        "Warning: result_obj has data (item_id_end=" + std::to_string(result_obj.item_id_end()) +
        "), but new chunks start from 0. Resetting result_obj.");
    return Result();
  }
  return result_obj;
}

std::tuple<Result, Value, std::int64_t> CloudGroup::_consume_chunk_list_incremental(
    std::int64_t exp_id, const Value& chunk_list, Result result_obj,
    std::set<std::int64_t>& processed_piece_ids_global) {
  if (!chunk_list.is_array()) {
    throw TypeError(std::string("chunk_list must be a list, not ") + kind_name(chunk_list));
  }
  Value processed_results = Value::array();
  std::int64_t last_chunk_id = -1;
  for (const Value& chunk : chunk_list) {
    const std::int64_t piece_id = piece_id_of(chunk);
    if (processed_piece_ids_global.contains(piece_id)) continue;
    Result chunk_result = *_download_chunk_from_cache_with_retry(exp_id, piece_id);
    const std::int64_t expected_item_id_start = result_obj.item_id_end() + 1;
    const std::int64_t chunk_item_id_start = chunk_result.item_id_start();
    if (chunk_item_id_start != expected_item_id_start) {
      env().print("Warning: Chunk " + std::to_string(piece_id) +
                  " item_id not continuous: start=" + std::to_string(chunk_item_id_start) +
                  ", expected=" + std::to_string(expected_item_id_start) + ". Skipping...");
      continue;
    }
    try {
      result_obj.concatenate(std::move(chunk_result));
    } catch (const std::exception& e) {
      const std::string message = e.what();
      if (message.find("exp_res_order_wrong") != std::string::npos ||
          message.find("下一步应开始于") != std::string::npos ||
          message.find("当前结果对象结束于") != std::string::npos) {
        env().print("Warning: Chunk " + std::to_string(piece_id) +
                    " concatenate failed (item_id not continuous). Skipping...");
      } else {
        env().print("Warning: Chunk " + std::to_string(piece_id) +
                    " concatenate failed: " + message + ". Skipping...");
      }
      continue;
    }
    processed_results.push_back(chunk);
    processed_piece_ids_global.insert(piece_id);
    last_chunk_id = std::max(last_chunk_id, piece_id);
  }
  // -1 when nothing was joined: the next metadata request starts from the beginning again.
  return {std::move(result_obj), std::move(processed_results), last_chunk_id};
}

// ---- incomplete results and chunk files ---------------------------------------------------

void CloudGroup::_remove_chunk_files(const std::string& dir) {
  // The files matching dir + "/chunk_*.kvres", in that one directory.
  std::vector<std::string> files;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (const dirent* entry = ::readdir(d)) {
      const std::string_view name = entry->d_name;
      if (name.size() >= 12 && name.starts_with("chunk_") && name.ends_with(".kvres")) {
        files.push_back(dir + "/" + std::string(name));
      }
    }
    ::closedir(d);
  }
  std::sort(files.begin(), files.end());
  _remove_chunk_files(files);
}

void CloudGroup::_remove_chunk_files(const std::vector<std::string>& files) {
  constexpr int kRetries = 3;
  for (const std::string& file : files) {
    for (int attempt = 0; attempt < kRetries; ++attempt) {
      if (::unlink(file.c_str()) == 0) break;
      const std::string reason = std::strerror(errno);
      if (attempt < kRetries - 1) {
        env().sleep(0.1);
      } else {
        env().print("Warning: Failed to remove chunk file " + file + " after " +
                    std::to_string(kRetries) + " retries: " + reason);
      }
    }
  }
}

Result CloudGroup::_return_incomplete_result(std::int64_t exp_id, Result result_obj,
                                             const Value& results,
                                             const UpdateCallback& update_callback,
                                             bool waiting_for_finished,
                                             const std::optional<std::string>& complete_filename,
                                             const std::optional<std::string>& cache_dir) {
  const Value exp_detail = _get_experiment_detail_with_retry(exp_id, 20, true);
  const Value finished =
      truthy(results) ? require_key(results.back(), "final_piece") : Value(false);

  if (update_callback && !exp_detail.empty())
    update_callback(result_obj, truthy(finished), exp_detail);

  if (!exp_detail.empty() && equals(get_key(exp_detail, "status"), status::ERROR)) {
    // A caller that does not wait gets the empty result of an experiment that failed before
    // delivering anything.
    if (!waiting_for_finished && result_obj.keys().empty()) return result_obj;
    throw RuntimeError("Experiment runtime error: " + experiment_messages(exp_detail));
  }

  if (!exp_detail.empty()) {
    const bool is_terminal = std::get<0>(_check_result_status(results, exp_detail));
    const Value status_value = get_key(exp_detail, "status", "");
    const bool save_condition = equals(status_value, status::CANCELED) ||
                                equals(status_value, status::ERROR) ||
                                equals(status_value, status::TIMEOUT) ||
                                (equals(status_value, status::COMPLETE) && truthy(finished));
    const std::string path = complete_filename.value_or("");
    if (is_terminal && save_condition && !result_obj.keys().empty() && !utils::path_exists(path)) {
      try {
        result_obj.save_to_file(path);
        if (cache_dir && !cache_dir->empty()) _remove_chunk_files(*cache_dir);
        env().print("Defensive fallback: Saved result to " + path + " for exp_id " +
                    std::to_string(exp_id) + " (status=" + text_of(status_value) +
                    ", finished=" + text_of(finished) + ")");
      } catch (const std::exception& e) {
        env().print("Warning: Failed to save result to " + path + " for exp_id " +
                    std::to_string(exp_id) + ": " + e.what());
      }
    }
  }
  return result_obj;
}

// ---- merged and legacy downloads ----------------------------------------------------------

Result CloudGroup::_download_merged_result(std::int64_t exp_id, const Value& merged_resource_id,
                                           const std::string& complete_filename,
                                           const std::string& cache_dir,
                                           const UpdateCallback& update_callback) {
  const Value resource_info = com::oss::get_resource_info(Value::array({merged_resource_id}));
  if (require_key(resource_info, "total") == 0) {
    throw RuntimeError("Resource " + text_of(merged_resource_id) + " not found");
  }
  const Value& files = require_key(resource_info, "list");
  if (!files.is_array() || files.empty()) {
    throw KeyError("the resource information of " + text_of(merged_resource_id) + " lists no file");
  }
  const Value locator = decode_uri(require_key(files[0], "uri"));

  if (!utils::path_exists(complete_filename)) {
    if (!minio) minio = com::minio::get_minio_client(organization_id());
    utils::write_file_atomic(complete_filename, minio->download(locator));
  }
  _remove_chunk_files(cache_dir);
  Result result = Result::load_from_file(complete_filename);
  if (update_callback) {
    const Value detail =
        with_sub_process_id(std::get<1>(get_experiment_detail(exp_id, false)), exp_id);
    update_callback(result, true, detail);
  }
  return result;
}

Result CloudGroup::_download_old_result_chunks(std::int64_t exp_id, const Value& results,
                                               const std::string& complete_filename,
                                               const std::string& cache_dir,
                                               const UpdateCallback& update_callback) {
  if (!results.is_array()) {
    throw TypeError(std::string("results must be a list, not ") + kind_name(results));
  }
  const std::vector<const Value*> sorted = sorted_by_piece(results);
  Value resource_ids = Value::array();
  for (const Value* r : sorted) {
    const Value& rid = require_key(*r, "resource_id");
    if (!rid.is_null()) resource_ids.push_back(rid);
  }
  if (resource_ids.empty()) {
    throw RuntimeError("No valid resource_id found for experiment " + std::to_string(exp_id));
  }
  const Value resource_info = com::oss::get_resource_info(resource_ids);
  if (require_key(resource_info, "total") == 0) {
    throw RuntimeError("No resources found for experiment " + std::to_string(exp_id));
  }
  std::map<Value, Value> locators;
  for (const Value& entry : require_key(resource_info, "list")) {
    const Value& uri = require_key(entry, "uri");
    locators[require_key(entry, "resource_id")] = uri.is_string() ? decode_uri(uri) : uri;
  }
  if (!minio) minio = com::minio::get_minio_client(organization_id());

  std::vector<Bytes> payloads;
  for (const Value* r : sorted) {
    const Value rid = get_key(*r, "resource_id");
    if (rid.is_null()) continue;
    auto found = locators.find(rid);
    if (found == locators.end()) {
      env().print("Warning: Resource " + text_of(rid) + " not found, skipping chunk " +
                  text_of(require_key(*r, "piece_id")));
      continue;
    }
    try {
      payloads.push_back(minio->download(found->second));
    } catch (const std::exception& e) {
      env().print("Warning: Failed to download chunk " + text_of(require_key(*r, "piece_id")) +
                  " (resource_id=" + text_of(rid) + "): " + e.what());
    }
  }
  if (payloads.empty()) {
    throw RuntimeError("No chunks downloaded for experiment " + std::to_string(exp_id));
  }

  // Slices are joined in piece order, gaps and all: no continuity check here.
  Result result(false, false);
  for (Bytes& payload : payloads) {
    result.concatenate(
        Result::from_bytes(payload, "a result slice of experiment " + std::to_string(exp_id)));
    Bytes().swap(payload);
  }
  result.save_to_file(complete_filename);
  _remove_chunk_files(cache_dir);
  if (update_callback) {
    const Value detail =
        with_sub_process_id(std::get<1>(get_experiment_detail(exp_id, false)), exp_id);
    update_callback(result, true, detail);
  }
  return result;
}

Result CloudGroup::_wait_for_server_merge(std::int64_t exp_id, const std::string& complete_filename,
                                          const std::string& cache_dir, const Value& exp_detail,
                                          const UpdateCallback& update_callback,
                                          std::int64_t max_wait_time, std::int64_t wait_interval) {
  // Time is counted by adding the interval, not by reading the clock.
  std::int64_t elapsed = 0;
  while (elapsed < max_wait_time) {
    const Value results = _get_results_with_retry(exp_id, -1);
    if (!results.is_array()) {
      throw TypeError(std::string("the result metadata must be a list, not ") + kind_name(results));
    }
    if (!results.empty()) {
      auto [is_terminal, all_same_resource, has_none_resource_id, resource_ids] =
          _check_result_status(results, exp_detail);
      if (all_same_resource && !has_none_resource_id) {
        if (!resource_ids.empty()) {
          return _download_merged_result(exp_id, resource_ids[0], complete_filename, cache_dir,
                                         update_callback);
        }
        Result result(true, true);
        if (update_callback) update_callback(result, true, with_sub_process_id(exp_detail, exp_id));
        return result;
      }
      if (!all_same_resource && !has_none_resource_id) {
        return _download_old_result_chunks(exp_id, results, complete_filename, cache_dir,
                                           update_callback);
      }
    }
    env().sleep(static_cast<double>(wait_interval));
    elapsed += wait_interval;
  }
  throw RuntimeError("Experiment " + std::to_string(exp_id) +
                     " finished but server did not merge results within " +
                     std::to_string(max_wait_time) + " seconds");
}


}  // namespace korvalin_client::group
