// How long a small experiment of one device group waits while another group's huge one runs:
// a 1,000,000-item experiment runs in group "a" on the executor's worker thread, and once its
// first pieces are stored, a 10-item experiment is submitted in group "b"; the figure is the
// time from that submission until "b"'s experiment is complete, and how far "a" got meanwhile.
//
//   build/bench/executor_fairness_bench [ITEMS [PER_PIECE]]   (default 1,000,000 and 50)
//
// Served one run at a time (max_active_runs = 1: the queue in order of submission, as a single
// line would serve it), then fairly (the default), in the same process on fresh stores, after
// an unprinted warm-up run (a process's first run pays for its fresh memory). The device runs
// as fast as the machine: no pause between pieces.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "korvalin_client/experiment/experiment.hpp"
#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/service/executor.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/task_status.hpp"
#include "support/temp_dir.hpp"

namespace {

namespace kc = korvalin_client;
using kc::Value;

std::int64_t submit(kc::service::Engine& engine, const std::string& group, std::int64_t items) {
  kc::experiment::Experiment exp("scan", "");
  std::vector<Value> amps;
  for (std::int64_t i = 0; i < 1000 && i < items; ++i) amps.emplace_back(static_cast<double>(i));
  exp.sweep("/q0/amp", amps).measure_quantity("I");
  exp.repetitions = items / static_cast<std::int64_t>(amps.size());
  const Value loc = engine.get_minio_client(1)->upload(
      "exp", kc::utils::msgpack_dumps(exp.serialize()), "exp", "kvexp");
  const Value res = engine.add_resource("", "kvexp", loc.dump(), "exp", "SDK", nullptr);
  const Value space = engine.list_space(group, 1, 1, false)["list"][0]["space_id"];
  return engine
      .create_sub_process(nullptr, group, space, "scan", "", res["resource_id"], nullptr, nullptr,
                          nullptr, nullptr, nullptr)["sub_process_id"]
      .get<std::int64_t>();
}

Value detail(kc::service::Engine& engine, std::int64_t id) {
  return engine.get_sub_process_detail(id);
}

bool complete(const Value& d) { return d["status"] == kc::utils::task_status::COMPLETE; }

std::int64_t done(const Value& d) {
  return Value::parse(d["progress"].get<std::string>()).value("done", std::int64_t{0});
}

void measure(const char* name, std::int64_t max_active_runs, std::int64_t items,
             std::int64_t per_piece) {
  kc::testing::TempCacheRoot root;
  auto engine = std::make_shared<kc::service::Engine>();
  for (const char* group : {"a", "b"}) {
    engine->create_group(group, "", 1);
    engine->create_space(group, "origin", "");
  }
  kc::service::ExecutorOptions options;
  options.items_per_piece = per_piece;
  options.piece_interval = 0;
  options.poll_interval = 0.01;
  options.max_active_runs = max_active_runs;
  kc::service::Executor executor(engine, options);
  kc::Env& env = kc::env();

  const std::int64_t big = submit(*engine, "a", items);
  const double big_submitted = env.now();
  const std::clock_t cpu_start = std::clock();
  executor.start();
  while (done(detail(*engine, big)) < 5000) env.sleep(0.001);
  const std::int64_t small = submit(*engine, "b", 10);
  const double submitted = env.now();
  while (!complete(detail(*engine, small))) env.sleep(0.005);
  const double waited = env.now() - submitted;
  const std::int64_t big_done = done(detail(*engine, big));
  while (!complete(detail(*engine, big))) env.sleep(0.01);
  const double big_took = env.now() - big_submitted;
  const double cpu = static_cast<double>(std::clock() - cpu_start) / CLOCKS_PER_SEC;
  executor.stop();
  if (name == nullptr) return;
  std::printf("%-10s small one: submit to complete %8.3f s (the big one at item %lld); "
              "big one: %.1f s (CPU %.1f s)\n",
              name, waited, static_cast<long long>(big_done), big_took, cpu);
}

}  // namespace

int main(int argc, char** argv) {
  const std::int64_t items = argc > 1 ? std::atoll(argv[1]) : 1'000'000;
  const std::int64_t per_piece = argc > 2 ? std::atoll(argv[2]) : 50;
  const std::int64_t fair = kc::service::ExecutorOptions{}.max_active_runs;
  measure(nullptr, fair, items, per_piece);  // warm-up: the process's first run is slower
  measure("one line", 1, items, per_piece);
  measure("fair", fair, items, per_piece);
  return 0;
}
