// CloudGroup: parallel download of an experiment's result chunks into chunk files.
#include <functional>
#include <system_error>
#include <thread>

#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/com/sub_process.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/files.hpp"

namespace korvalin_client::group {

namespace {

constexpr int kDownloadAttempts = 20;
constexpr double kDownloadPause = 1.0;

// The text a chunk id stands for in a chunk file's name: an integer in decimal, or text that
// keeps "chunk_<id>.kvres" a plain name inside the cache directory.
std::string chunk_id_text(const Value& chunk_id) {
  if (chunk_id.is_number_integer()) return chunk_id.dump();
  if (chunk_id.is_string()) {
    const std::string& id = chunk_id.get_ref<const std::string&>();
    utils::check_child_name("chunk_" + id + ".kvres", "chunk file");
    return id;
  }
  throw TypeError(std::string("\"chunk_id\" must be an integer or text, not ") +
                  kind_name(chunk_id));
}

Value fetch_from_store(const std::shared_ptr<com::minio::MinIOAPI>& minio,
                       const Value& descriptor) {
  if (!minio) throw RuntimeError("no object-storage client to download from");
  return Value::binary(minio->download(descriptor));
}

// Runs one download worker; whatever ends it is reported on standard error, never raised.
void run_download_thread(int n, utils::ThreadQueue<Value>& uri_queue,
                         utils::ThreadQueue<std::string>& filename_queue,
                         const std::shared_ptr<com::minio::MinIOAPI>& minio,
                         const std::string& cache_dir, std::int64_t exp_id) {
  std::string what;
  try {
    CloudGroup::download_to_file(uri_queue, filename_queue, minio, cache_dir, exp_id);
    return;
  } catch (const std::exception& e) {
    what = e.what();
  } catch (const Interrupted& e) {
    what = "Interrupted: " + e.reason;
  } catch (...) {
    what = "unknown error";
  }
  try {
    env().print_error("Exception in thread download-" + std::to_string(n) + ": " + what);
  } catch (...) {
    // Nowhere left to report to; the thread ends quietly.
  }
}

}  // namespace

void CloudGroup::download_to_file(utils::ThreadQueue<Value>& uri_queue,
                                  utils::ThreadQueue<std::string>& filename_queue,
                                  std::shared_ptr<com::minio::MinIOAPI> minio,
                                  const std::string& cache_dir,
                                  std::optional<std::int64_t> exp_id) {
  while (std::optional<Value> item = uri_queue.try_get()) {
    const Value& descriptor = *item;
    const Value& chunk_id = require_key(descriptor, "chunk_id");
    const std::string id_text = chunk_id_text(chunk_id);
    const std::string path = cache_dir + "/chunk_" + id_text + ".kvres";

    if (utils::path_exists(path)) {
      filename_queue.put(path);
      uri_queue.task_done();
      continue;
    }

    Value data;
    for (int left_retry_times = kDownloadAttempts; left_retry_times > 0;) {
      try {
        if (exp_id) {
          try {
            data = com::sub_process::download_result_chunk_from_cache(*exp_id, chunk_id);
          } catch (const std::exception& e) {
            env().print("Cache not available for chunk " + id_text +
                        ", falling back to MinIO: " + e.what());
            data = fetch_from_store(minio, descriptor);
          }
        } else {
          data = fetch_from_store(minio, descriptor);
        }
        break;
      } catch (const std::exception& e) {
        --left_retry_times;
        if (left_retry_times == 0) {
          throw RuntimeError(std::string("Download result file failed: ") + e.what());
        }
        env().print(std::string("Download result file failed: ") + e.what() +
                    "\nLeft retry times: " + std::to_string(left_retry_times) + ".");
        env().sleep(kDownloadPause);
      }
    }

    // Written under a temporary name and renamed, so a chunk file that exists is complete.
    if (data.is_null()) throw RuntimeError("Download result file failed.");
    utils::write_file_atomic(path, to_bytes(std::move(data), "the downloaded chunk " + id_text));
    filename_queue.put(path);
    uri_queue.task_done();
  }
}

std::vector<std::string> CloudGroup::download_result(std::int64_t exp_id, const Value& uri_list) {
  if (!uri_list.is_array()) {
    throw TypeError(std::string("uri_list must be a list, not ") + kind_name(uri_list));
  }
  for (const Value& item : uri_list) {
    if (!item.is_object() && !item.is_null()) {
      throw TypeError(std::string("uri_list items must be mappings, not ") + kind_name(item));
    }
  }
  check_depth(uri_list, "uri_list");

  if (!minio) minio = com::minio::get_minio_client(organization_id());
  const std::size_t thread_num = uri_list.size();

  utils::ThreadQueue<Value> uri_queue;
  utils::ThreadQueue<std::string> filename_queue;
  for (const Value& item : uri_list) uri_queue.put(item);

  const Value exp_detail = com::sub_process::get_sub_process_detail(exp_id);
  const std::string cache_dir =
      create_result_cache_dir(require_key(exp_detail, "create_time"), exp_id);

  std::vector<std::thread> threads;
  threads.reserve(thread_num);
  std::string start_failure;
  for (std::size_t i = 0; i < thread_num; ++i) {
    try {
      threads.emplace_back(run_download_thread, static_cast<int>(i + 1), std::ref(uri_queue),
                           std::ref(filename_queue), std::cref(minio), std::cref(cache_dir),
                           exp_id);
    } catch (const std::system_error& e) {
      start_failure = e.what();
      break;
    }
  }
  for (std::thread& t : threads) t.join();
  if (!start_failure.empty()) {
    throw RuntimeError("cannot start download thread " + std::to_string(threads.size() + 1) +
                       " of " + std::to_string(thread_num) + ": " + start_failure);
  }

  std::vector<std::string> filenames;
  while (std::optional<std::string> path = filename_queue.try_get()) {
    filenames.push_back(std::move(*path));
  }
  return filenames;
}

}  // namespace korvalin_client::group
