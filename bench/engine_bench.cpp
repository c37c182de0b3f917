// The embedded service's full parameter read (get_parameter "now" of a 100,000-parameter
// space) against a raw SQLite select of the same rows from the same database file.
//
//   build/bench/engine_bench --benchmark_min_time=2
//
// Quote the ratio of the two items_per_second figures: the cost of the engine over SQLite
// (argument checks, the freshness check, building the Value records the client reads).
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

#include "korvalin_client/service/engine.hpp"
#include "support/temp_dir.hpp"

namespace kc = korvalin_client;
using kc::Value;

namespace {

constexpr std::int64_t kParameters = 100'000;

struct Fixture {
  kc::testing::TempCacheRoot root;
  kc::service::Engine engine;
  std::int64_t space = 0;

  Fixture() {
    engine.create_group("bench", "", 1);
    space = engine.create_space("bench", "origin", "")["space_id"].get<std::int64_t>();
    Value keys = Value::array();
    Value values = Value::array();
    Value types = Value::array();
    for (std::int64_t i = 0; i < kParameters; ++i) {
      keys.push_back("/q" + std::to_string(i / 100) + "/p" + std::to_string(i % 100));
      values.push_back(std::to_string(i * 0.001));
      types.push_back("float");
    }
    engine.add_parameter(space, keys, values, types, nullptr, nullptr, nullptr);
  }
};

Fixture& fixture() {
  static auto* f = new Fixture();  // kept for the whole run
  return *f;
}

void BM_EngineGetParameter(benchmark::State& state) {
  Fixture& f = fixture();
  for (auto _ : state) {
    Value records = f.engine.get_parameter(f.space, nullptr, nullptr);
    if (records.size() != static_cast<std::size_t>(kParameters)) state.SkipWithError("short");
    benchmark::DoNotOptimize(records);
  }
  state.SetItemsProcessed(state.iterations() * kParameters);
}
BENCHMARK(BM_EngineGetParameter)->Unit(benchmark::kMillisecond);

// The baseline: the same rows in the same order, straight from SQLite, each column read.
void BM_RawSqliteSelect(benchmark::State& state) {
  Fixture& f = fixture();
  sqlite3* db = nullptr;
  sqlite3_open_v2(f.engine.store().path().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "SELECT key, value, type FROM parameters WHERE space_id = ?1 ORDER BY key",
                     -1, &st, nullptr);
  for (auto _ : state) {
    sqlite3_bind_int64(st, 1, f.space);
    std::int64_t rows = 0;
    std::size_t bytes = 0;
    while (sqlite3_step(st) == SQLITE_ROW) {
      for (int c = 0; c < 3; ++c) {
        benchmark::DoNotOptimize(sqlite3_column_text(st, c));
        bytes += static_cast<std::size_t>(sqlite3_column_bytes(st, c));
      }
      ++rows;
    }
    sqlite3_reset(st);
    if (rows != kParameters) state.SkipWithError("short");
    benchmark::DoNotOptimize(bytes);
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * kParameters);
}
BENCHMARK(BM_RawSqliteSelect)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
