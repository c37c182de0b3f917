// Parallel result download against the same work done one chunk after another:
//
//   download_result/parallel   CloudGroup::download_result of 64 chunks of 4 MiB; the service's
//                              result cache refuses every chunk, so each worker falls back to
//                              an object store whose download() takes 50 ms
//   download_result/sequential the same 64 fetches from the same store and the same atomic
//                              file writes, one after another
//   download_result/writes     the 64 atomic file writes alone: the goal for parallel is about
//                              one fetch (50 ms) plus this
//
// Chunk files are removed between iterations, outside the timed region. Files go to a
// temporary cache root under $TMPDIR (or /tmp), removed at exit.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "korvalin_client/com/backend.hpp"
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/files.hpp"

namespace {

namespace kc = korvalin_client;
using kc::Bytes;
using kc::Value;

constexpr int kChunks = 64;
constexpr std::size_t kChunkBytes = std::size_t{4} << 20;
constexpr auto kFetchLatency = std::chrono::milliseconds(50);
constexpr std::int64_t kExpId = 501;

// An object store far away: every download takes kFetchLatency.
class SlowStore : public kc::com::minio::MinIOAPI {
 public:
  Value upload(const std::string&, const Bytes&, const std::string&, const std::string&) override {
    throw kc::RuntimeError("SlowStore: upload is not used");
  }
  Bytes download(const Value&) override {
    std::this_thread::sleep_for(kFetchLatency);
    return payload_;
  }

 private:
  const Bytes payload_ = Bytes(kChunkBytes, 0x5a);
};

// Answers only what selecting a group and downloading results ask for.
class BenchBackend : public kc::com::Backend {
 public:
  explicit BenchBackend(std::shared_ptr<SlowStore> store) : store_(std::move(store)) {}

  std::string connection_type() const override { return "bench"; }
  std::string service_identity() const override { return ""; }

  Value call(kc::com::Operation op, const kc::com::Args&) override {
    using kc::com::Operation;
    switch (op) {
      case Operation::get_group_detail:
        return Value::object(
            {{"device_group_id", 7}, {"organization_id", 3}, {"organization_name", "bench"}});
      case Operation::list_space:
        return Value::object({{"list", Value::array()}});
      case Operation::get_sub_process_detail:
        return Value::object({{"create_time", 1741176000}});
      case Operation::download_result_chunk_from_cache:
        throw kc::RuntimeError("result cache unavailable");
      default:
        throw kc::RuntimeError("BenchBackend: not used by this benchmark");
    }
  }
  std::shared_ptr<kc::com::minio::MinIOAPI> get_minio_client(const Value&) override {
    return store_;
  }

 private:
  std::shared_ptr<SlowStore> store_;
};

// The real clock, and no output: one "Cache not available" line per chunk would flood.
class QuietEnv : public kc::Env {
 public:
  double now() override { return kc::Env::Default().now(); }
  void sleep(double seconds) override { kc::Env::Default().sleep(seconds); }
  void print(const std::string&) override {}
  void print_error(const std::string&) override {}
};

// The cache root, backend, Env and group shared by both benchmarks.
struct Setup {
  Setup() {
    const char* tmp = std::getenv("TMPDIR");
    root = std::filesystem::path(tmp && *tmp ? tmp : "/tmp") /
           ("korvalin-download-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(root);
    ::setenv("KORVALIN_CACHE_DIR", root.c_str(), 1);
    kc::set_env(&env);
    kc::com::connection_manager::set_backend(std::make_shared<BenchBackend>(store));
    group = std::make_unique<kc::group::CloudGroup>("bench");
    for (int i = 0; i < kChunks; ++i) {
      uri_list.push_back(
          Value::object({{"chunk_id", i}, {"object", "chunk/" + std::to_string(i)}}));
    }
    dir = group->create_result_cache_dir(1741176000, kExpId);
  }
  ~Setup() {
    group.reset();
    kc::com::connection_manager::set_backend(nullptr);
    kc::set_env(nullptr);
    std::filesystem::remove_all(root);
  }

  void remove_chunk_files() const {
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      std::filesystem::remove(entry.path());
    }
  }

  std::filesystem::path root;
  QuietEnv env;
  std::shared_ptr<SlowStore> store = std::make_shared<SlowStore>();
  std::unique_ptr<kc::group::CloudGroup> group;
  Value uri_list = Value::array();
  std::string dir;
};

Setup& setup() {
  static Setup s;
  return s;
}

template <class F>
double seconds_of(F&& f) {
  const auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void BM_parallel(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) {
    s.remove_chunk_files();
    std::vector<std::string> files;
    state.SetIterationTime(
        seconds_of([&] { files = s.group->download_result(kExpId, s.uri_list); }));
    if (files.size() != kChunks) state.SkipWithError("not every chunk was downloaded");
  }
  state.SetBytesProcessed(state.iterations() * kChunks * static_cast<std::int64_t>(kChunkBytes));
}

void BM_sequential(benchmark::State& state) {
  Setup& s = setup();
  for (auto _ : state) {
    s.remove_chunk_files();
    state.SetIterationTime(seconds_of([&] {
      for (int i = 0; i < kChunks; ++i) {
        const Bytes data = s.store->download(s.uri_list[static_cast<std::size_t>(i)]);
        kc::utils::write_file_atomic(s.dir + "/chunk_" + std::to_string(i) + ".kvres", data);
      }
    }));
  }
  state.SetBytesProcessed(state.iterations() * kChunks * static_cast<std::int64_t>(kChunkBytes));
}

void BM_writes(benchmark::State& state) {
  Setup& s = setup();
  const Bytes data(kChunkBytes, 0x5a);
  for (auto _ : state) {
    s.remove_chunk_files();
    state.SetIterationTime(seconds_of([&] {
      for (int i = 0; i < kChunks; ++i) {
        kc::utils::write_file_atomic(s.dir + "/chunk_" + std::to_string(i) + ".kvres", data);
      }
    }));
  }
  state.SetBytesProcessed(state.iterations() * kChunks * static_cast<std::int64_t>(kChunkBytes));
}

BENCHMARK(BM_parallel)->Name("download_result/parallel")->UseManualTime()->Iterations(5)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_sequential)->Name("download_result/sequential")->UseManualTime()->Iterations(2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_writes)->Name("download_result/writes")->UseManualTime()->Iterations(5)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
