// The C++ side of bench/python_pull_bench.sh: one finished experiment with a large merged
// result in an embedded store, and its pull_result timed.
//   pull_store_bench make STORAGE_DIR MIB
//       creates group "bench", space "origin" and one complete experiment whose merged result
//       is one float64 column "v" of about MIB MiB, left as the executor leaves a finished run
//       (pieces stored, merged into one result resource, status complete); prints its id.
//   pull_store_bench pull EXP_ID
//       on the store at $KORVALIN_STORAGE_DIR, with the cache at $KORVALIN_CACHE_DIR, times
//       CloudGroup("bench", "origin").pull_result(EXP_ID); prints
//       "cpp_pull_seconds <s> items <n>".
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/service/embedded_backend.hpp"
#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/task_status.hpp"

namespace {

namespace kc = korvalin_client;
using kc::Value;
using kc::experiment::Column;
using kc::experiment::Result;
namespace status = kc::utils::task_status;

// Items per stored piece: 16 MiB of float64.
constexpr std::int64_t kPieceItems = std::int64_t{16} << 17;

Value progress(std::int64_t done, std::int64_t total) {
  return Value{{"done", done}, {"total", total}};
}

// The service's steps for one run of `total` items, as the executor takes them: claim, a
// piece at a time with its progress, the merge into one result resource, then the final
// status and closing message.
std::int64_t make(const std::string& storage_dir, std::int64_t mib) {
  kc::service::Engine engine(storage_dir);
  const Value group = engine.create_group("bench", "pull_result benchmark", nullptr);
  const Value space = engine.create_space("bench", "origin", "");
  const Value detail =
      engine.create_sub_process(nullptr, "bench", space.at("space_id"), "pull 1 column", "",
                                nullptr, "SDK", nullptr, nullptr, nullptr, nullptr);
  const std::int64_t id = detail.at("sub_process_id").get<std::int64_t>();
  const std::string running(status::RUNNING), queued(status::QUEUED);
  const std::int64_t total = mib * ((std::int64_t{1} << 20) / 8);

  if (!engine.set_experiment_status_if(id, queued, running, progress(0, 0))) {
    throw kc::RuntimeError("the new experiment was claimed by another executor");
  }
  engine.append_experiment_message(id, "INFO", "running on the simulated device");
  std::int64_t pieces = 0;
  for (std::int64_t start = 0; start < total; start += kPieceItems, ++pieces) {
    const std::int64_t end = std::min(start + kPieceItems, total);
    std::vector<double> v(static_cast<std::size_t>(end - start));
    for (std::size_t k = 0; k < v.size(); ++k) v[k] = static_cast<double>(start + k) * 0.5;
    std::vector<std::pair<std::string, Column>> columns;
    columns.emplace_back("v", Column(std::move(v)));
    const kc::Bytes data = Result::from_columns(start, std::move(columns)).to_bytes();
    engine.store_result_piece(id, pieces, data, start, end - 1, end == total);
    engine.set_experiment_status_if(id, running, running, progress(end, total));
  }

  // The merge: every piece read back from the object store, joined, stored as one object
  // and registered as the experiment's result.
  const Value stored = engine.get_sub_process_result(id, 0, nullptr);
  Result all(false, false);
  for (const Value& piece : stored) {
    const Value data = engine.download_result_chunk_from_cache(id, piece.at("piece_id"));
    all.concatenate(Result::from_bytes(data.get_binary(), "result piece"));
  }
  kc::Bytes merged = all.to_bytes();
  all = Result();
  const std::string name = std::to_string(id) + "_result.kvres";
  const Value locator = engine.get_minio_client(detail.at("organization_id"))
                            ->upload(name, merged, "result", "kvres");
  merged = kc::Bytes();
  const Value resource = engine.add_resource(name, "kvres", locator.dump(), "result", "service",
                                             group.at("device_group_id"));
  engine.set_result_resource(id, resource.at("resource_id").get<std::int64_t>());

  if (!engine.set_experiment_status_if(id, running, std::string(status::COMPLETE),
                                       progress(total, total))) {
    throw kc::RuntimeError("the experiment left \"running\" while it was being made");
  }
  engine.append_experiment_message(id, "INFO",
                                   "complete: " + std::to_string(total) + " items in " +
                                       std::to_string(pieces) + " pieces");
  return id;
}

int pull(std::int64_t exp_id) {
  const char* storage = std::getenv("KORVALIN_STORAGE_DIR");
  const char* cache = std::getenv("KORVALIN_CACHE_DIR");
  if (!storage || !*storage || !cache || !*cache) {
    std::fprintf(stderr, "pull needs $KORVALIN_STORAGE_DIR and $KORVALIN_CACHE_DIR\n");
    return 2;
  }
  kc::com::connection_manager::set_backend(
      std::make_shared<kc::service::EmbeddedBackend>(storage));
  kc::group::CloudGroup group("bench", "origin");
  const auto start = std::chrono::steady_clock::now();
  const Result result = group.pull_result(exp_id);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  std::printf("cpp_pull_seconds %.4f items %zu\n", seconds.count(), result.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "make" && argc == 4) {
      const std::int64_t mib = std::stoll(argv[3]);
      if (mib < 1) throw kc::ValueError("MIB must be at least 1");
      std::printf("%lld\n", static_cast<long long>(make(argv[2], mib)));
      return 0;
    }
    if (mode == "pull" && argc == 3) return pull(std::stoll(argv[2]));
    std::fprintf(stderr,
                 "usage: pull_store_bench make STORAGE_DIR MIB\n"
                 "       pull_store_bench pull EXP_ID\n");
    return 2;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "pull_store_bench: %s\n", e.what());
    return 1;
  }
}
