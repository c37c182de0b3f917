// Synchronising a space of 100,000 parameters through CloudGroup, against raw baselines:
//
//   full_download          set_space on a fresh cache: the whole space fetched, cached, loaded
//   plain_sqlite_insert    baseline: the same rows inserted into a plain SQLite table
//   incremental_sync/100   download_space_parameter applying a change log of 100 keys
//   fuzzy_query            SpaceCache::fuzzy_query over the 100,000 keys
//   cached_snapshot        get_history_space_parameter of a moment already fetched
//
// The service is the tests' FakeBackend (answers are moved out of its script, so the fake
// adds no copy of the space), the Env a FakeEnv (no real pauses).
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <string>

#include "korvalin_client/group/cloud_group.hpp"
#include "support/fakes.hpp"
#include "support/temp_dir.hpp"

namespace {

namespace kc = korvalin_client;
using kc::Value;
using kc::group::CloudGroup;

constexpr int kKeys = 100'000;

std::string key_of(int i) {
  return "/q" + std::to_string(i / 1000) + "/drive/freq_" + std::to_string(i % 1000);
}

Value space_records() {
  Value records = Value::array();
  for (int i = 0; i < kKeys; ++i) {
    records.push_back(Value::object(
        {{"key", key_of(i)}, {"value", std::to_string(4.5 + i * 1e-6)}, {"type", "float"}}));
  }
  return records;
}

// A fake service for one group "lab" with one space "origin".
struct Service {
  Service() : records(space_records()) {
    backend->answer("get_group_detail", Value::object({{"device_group_id", 1},
                                                       {"organization_id", 1},
                                                       {"organization_name", "bench"}}));
    backend->answer("list_space", Value::object({{"list", Value::array({Value::object(
                                                              {{"space_id", 1},
                                                               {"space_name", "origin"}})})}}));
  }
  kc::testing::ScopedFakeEnv env;
  kc::testing::ScopedFakeBackend backend;
  Value records;
};

// The previous iteration's group and files are dropped while the timer is paused.
void full_download(benchmark::State& state) {
  Service service;
  std::unique_ptr<CloudGroup> group;
  std::unique_ptr<kc::testing::TempCacheRoot> root;
  for (auto _ : state) {
    state.PauseTiming();
    group.reset();
    root.reset();
    root = std::make_unique<kc::testing::TempCacheRoot>();
    group = std::make_unique<CloudGroup>("lab");
    service.backend->script("get_parameter", {service.records});
    state.ResumeTiming();
    group->set_space("origin");
    benchmark::DoNotOptimize(group->space_parameters.size());
  }
  state.SetItemsProcessed(state.iterations() * kKeys);
}

void plain_sqlite_insert(benchmark::State& state) {
  const Value records = space_records();
  std::unique_ptr<kc::testing::TempCacheRoot> root;
  sqlite3* db = nullptr;
  for (auto _ : state) {
    state.PauseTiming();
    sqlite3_close(db);
    root.reset();
    root = std::make_unique<kc::testing::TempCacheRoot>();
    std::filesystem::create_directories(root->cache_root());
    const std::string path = root->cache_root() + "/plain.sqlite3";
    // Creating the database is timed, as set_space creates the cache's.
    state.ResumeTiming();
    sqlite3_open(path.c_str(), &db);
    sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                     "CREATE TABLE p (key TEXT PRIMARY KEY, value, type TEXT)",
                 nullptr, nullptr, nullptr);
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO p VALUES (?1, ?2, ?3)", -1, &insert, nullptr);
    for (const Value& r : records) {
      const auto& k = r["key"].get_ref<const std::string&>();
      const auto& v = r["value"].get_ref<const std::string&>();
      const auto& t = r["type"].get_ref<const std::string&>();
      sqlite3_bind_text(insert, 1, k.data(), static_cast<int>(k.size()), SQLITE_STATIC);
      sqlite3_bind_text(insert, 2, v.data(), static_cast<int>(v.size()), SQLITE_STATIC);
      sqlite3_bind_text(insert, 3, t.data(), static_cast<int>(t.size()), SQLITE_STATIC);
      sqlite3_step(insert);
      sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * kKeys);
}

// A space already synchronised once, for the benchmarks that follow the first download.
struct SyncedGroup {
  SyncedGroup() {
    service.backend->script("get_parameter", {service.records});
    group = std::make_unique<CloudGroup>("lab", "origin");
  }
  kc::testing::TempCacheRoot root;
  Service service;
  std::unique_ptr<CloudGroup> group;
};

void incremental_sync(benchmark::State& state) {
  SyncedGroup synced;
  const int changed = static_cast<int>(state.range(0));
  int round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    ++round;
    Value log = Value::array();
    for (int i = 0; i < changed; ++i) {
      log.push_back(Value::object({{"k_full", key_of((round * 7919 + i * 997) % kKeys)},
                                   {"v", std::to_string(round + i * 0.5)},
                                   {"t", "float"},
                                   {"deleted_flag", false}}));
    }
    synced.service.backend->script("get_parameter_log", {std::move(log)});
    synced.service.env.advance(1);
    state.ResumeTiming();
    benchmark::DoNotOptimize(synced.group->download_space_parameter());
  }
  state.SetItemsProcessed(state.iterations() * changed);
}

void fuzzy_query(benchmark::State& state) {
  SyncedGroup synced;
  for (auto _ : state) {
    benchmark::DoNotOptimize(synced.group->space().fuzzy_query("FREQ_99"));
  }
  state.SetItemsProcessed(state.iterations() * kKeys);
}

void cached_snapshot(benchmark::State& state) {
  SyncedGroup synced;
  synced.service.backend->script("get_parameter", {synced.service.records});
  auto first = synced.group->get_history_space_parameter(1600000000);
  const int calls_before = synced.service.backend->count("get_parameter");
  bool same = true;
  for (auto _ : state) {
    auto snap = synced.group->get_history_space_parameter(1600000000000);
    same = same && snap == first;
    benchmark::DoNotOptimize(snap);
  }
  state.counters["service_calls"] = synced.service.backend->count("get_parameter") - calls_before;
  state.counters["same_object"] = same ? 1 : 0;
}

BENCHMARK(full_download)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(plain_sqlite_insert)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(incremental_sync)->Arg(100)->Unit(benchmark::kMillisecond)->Iterations(50);
BENCHMARK(fuzzy_query)->Unit(benchmark::kMillisecond);
BENCHMARK(cached_snapshot)->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();
