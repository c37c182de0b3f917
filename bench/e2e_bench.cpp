// End to end on the embedded service: submit a 1,000-item experiment through CloudGroup, run it
// on the simulated device and pull its complete result, against the raw baseline of measuring
// the same 1,000 items with the device model directly and saving them as a result file.
//
//   e2e/submit_run_pull   submit_exp + Executor::run_once + pull_result (merged download)
//   e2e/raw_measure_save  the device model for 1,000 items x 2 quantities + save_to_file
//
// A FakeEnv removes every pause (the device's piece interval, the client's polls).
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/service/device_model.hpp"
#include "korvalin_client/service/embedded_backend.hpp"
#include "korvalin_client/service/executor.hpp"
#include "support/fakes.hpp"
#include "support/temp_dir.hpp"

namespace {

namespace kc = korvalin_client;
using kc::Value;
using kc::experiment::Column;
using kc::experiment::Result;

constexpr int kItems = 1000;

std::vector<Value> amplitudes() {
  std::vector<Value> amps;
  for (int i = 0; i < kItems; ++i) amps.emplace_back(i * 1.0 / kItems);
  return amps;
}

void submit_run_pull(benchmark::State& state) {
  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv env;
  auto engine = std::make_shared<kc::service::Engine>();
  auto previous =
      kc::com::connection_manager::set_backend(std::make_shared<kc::service::EmbeddedBackend>(engine));
  kc::service::Executor executor(engine);
  kc::group::CloudGroup::create_group("bench", "", 1);
  kc::group::CloudGroup group("bench", "origin");
  const std::vector<Value> amps = amplitudes();
  for (auto _ : state) {
    auto exp = group.create_exp("rabi", "");
    exp.sweep("/q0/drive/amp", amps).measure_quantity("I").measure_quantity("Q");
    const std::int64_t exp_id = group.submit_exp(exp).get<std::int64_t>();
    executor.run_once();
    const Result r = group.pull_result(exp_id);
    if (r.size() != kItems) state.SkipWithError("incomplete result");
  }
  state.SetItemsProcessed(state.iterations() * kItems);
  kc::com::connection_manager::set_backend(previous);
}

void raw_measure_save(benchmark::State& state) {
  kc::testing::TempCacheRoot root;
  kc::service::BuiltinDeviceModel model;
  const std::vector<Value> amps = amplitudes();
  int round = 0;
  for (auto _ : state) {
    std::vector<double> i_values, q_values;
    Value params = Value::object({{"/q0/drive/amp", 0.0}});
    for (int i = 0; i < kItems; ++i) {
      params["/q0/drive/amp"] = amps[i];
      i_values.push_back(model.measure(params, "I", i, kc::service::noise_seed(1, i, "I")));
      q_values.push_back(model.measure(params, "Q", i, kc::service::noise_seed(1, i, "Q")));
    }
    std::vector<std::pair<std::string, Column>> columns;
    columns.emplace_back("I", std::move(i_values));
    columns.emplace_back("Q", std::move(q_values));
    Result::from_columns(0, std::move(columns))
        .save_to_file(root.path() + "/raw_" + std::to_string(round++) + ".kvres");
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}

BENCHMARK(submit_run_pull)->Name("e2e/submit_run_pull")->Unit(benchmark::kMillisecond);
BENCHMARK(raw_measure_save)->Name("e2e/raw_measure_save")->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
