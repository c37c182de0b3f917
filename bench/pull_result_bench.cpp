// A live pull_result of N chunks of 1 MiB (float64) through the tests' fake service and a fake
// Env (no real pauses), against the raw baseline of reading the same chunk bytes from files.
//
//   build/bench/pull_result_bench [N ...]     (default: 1000 2000)
//
// Each run forks a child, so its peak resident memory is its own. The fake service makes one
// new piece appear per metadata poll and generates each chunk when it is asked for; the time
// spent inside the fake (generating and copying chunks included) is measured and subtracted,
// which leaves the client's own time. Printed per run: client time, client time per MiB
// against the baseline's, and peak resident memory against the result's size.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "korvalin_client/experiment/experiment.hpp"
#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/fakes.hpp"
#include "support/temp_dir.hpp"

namespace {

namespace kc = korvalin_client;
using kc::Value;
using kc::experiment::Column;
using kc::experiment::Result;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t kItems = (1 << 20) / sizeof(double);  // 1 MiB of float64 per chunk
constexpr std::int64_t kExp = 1;
constexpr std::int64_t kCreated = 1700000000;

double seconds_since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

double peak_rss_mib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024.0;  // KiB on Linux
}

kc::Bytes chunk_bytes(std::int64_t piece) {
  std::vector<std::pair<std::string, Column>> columns;
  columns.emplace_back("v", std::vector<double>(kItems, static_cast<double>(piece)));
  return Result::from_columns(piece * kItems, std::move(columns)).to_bytes();
}

// Reads every chunk file into memory, one after another, as the raw baseline.
double baseline_seconds_per_mib(int n) {
  kc::testing::TempCacheRoot root;
  std::vector<std::string> files;
  const kc::Bytes bytes = chunk_bytes(0);
  for (int i = 0; i < n; ++i) {
    files.push_back(root.path() + "/chunk_" + std::to_string(i) + ".kvres");
    kc::utils::write_file_atomic(files.back(), bytes);
  }
  const auto t = Clock::now();
  std::size_t total = 0;
  for (const auto& f : files) total += kc::utils::read_file(f).size();
  const double s = seconds_since(t);
  return s / (static_cast<double>(total) / (1 << 20));
}

void run(int n) {
  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv env;
  kc::testing::ScopedFakeBackend service;
  service->answer("get_group_detail", Value::object({{"device_group_id", 1},
                                                     {"organization_id", 1},
                                                     {"organization_name", "bench"}}));
  service->answer("list_space", Value::object({{"list", Value::array()}}));
  service->answer("get_space_detail", Value::object({{"space_name", "origin"}}));
  kc::group::CloudGroup group("lab");

  kc::experiment::Experiment exp("bench", "", &group);
  exp.measure_quantity("v");
  const std::string dir = group.create_exp_cache_dir(kCreated, kExp);
  kc::utils::write_file_atomic(dir + "/" + std::to_string(kExp) + ".kvexp",
                               kc::utils::msgpack_dumps(exp.serialize()));

  double service_seconds = 0;
  int metadata_calls = 0;
  service->on("get_sub_process_detail", [&](const Value&) {
    return Value::object({{"create_time", kCreated}, {"space_id", 1}, {"status", "running"}});
  });
  // Piece k appears at the (k + 2)-th metadata poll; the last one is final.
  service->on("get_sub_process_result", [&](const Value& args) {
    const auto t = Clock::now();
    ++metadata_calls;
    Value list = Value::array();
    const std::int64_t from = args["start_piece_id"];
    for (std::int64_t k = from; k < n && k + 2 <= metadata_calls; ++k) {
      list.push_back(Value::object(
          {{"piece_id", k}, {"resource_id", nullptr}, {"final_piece", k == n - 1}}));
    }
    service_seconds += seconds_since(t);
    return list;
  });
  service->on("download_result_chunk_from_cache", [&](const Value& args) {
    const auto t = Clock::now();
    Value v = Value::binary(chunk_bytes(args["chunk_id"].get<std::int64_t>()));
    service_seconds += seconds_since(t);
    return v;
  });

  const double rss_before = peak_rss_mib();
  const auto t = Clock::now();
  const Result result = group.pull_result(kExp);
  const double total = seconds_since(t);
  const double rss_peak = peak_rss_mib();

  const double mib = static_cast<double>(result.size()) * sizeof(double) / (1 << 20);
  const double client = total - service_seconds;
  const double baseline = baseline_seconds_per_mib(n);
  std::printf(
      "%5d chunks  %7.0f MiB  total %7.2f s  service %6.2f s  client %6.3f s  "
      "client %.3f ms/MiB  baseline read %.3f ms/MiB  ratio %.2f  "
      "peak RSS %.0f MiB (%.0f before)  limit 1.2 x result + 64 = %.0f MiB\n",
      n, mib, total, service_seconds, client, 1e3 * client / mib, 1e3 * baseline,
      (client / mib) / baseline, rss_peak, rss_before, 1.2 * mib + 64 + rss_before);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> sizes;
  for (int i = 1; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
  if (sizes.empty()) sizes = {1000, 2000};
  for (int n : sizes) {
    const pid_t pid = fork();
    if (pid == 0) {
      run(n);
      std::_Exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::fprintf(stderr, "run of %d chunks failed\n", n);
      return 1;
    }
  }
  return 0;
}
