// SpaceCache against a plain SQLite table holding the same rows.
//
// BM_UpdateCache writes 100,000 parameters into a fresh cache; BM_PlainSqliteInsert is its
// baseline: the same keys, values and types inserted into "key TEXT PRIMARY KEY, value, type"
// in a fresh WAL database, one transaction, one prepared statement. BM_ReadAll and
// BM_FuzzyQuery read a cache of 100,000 parameters.
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "korvalin_client/utils/space_cache.hpp"

namespace {

using korvalin_client::Value;
using korvalin_client::utils::SpaceCache;

constexpr std::int64_t kRows = 100'000;

struct Rows {
  std::vector<std::string> keys;
  std::vector<Value> values;
  std::vector<std::string> types;
  std::vector<Value> descriptions;
  std::vector<Value> units;
};

// Keys like "/q12/drive/freq_3": 100 qubits x 5 blocks x 200 parameters.
const Rows& rows() {
  static const Rows r = [] {
    Rows r;
    const char* blocks[] = {"drive", "readout", "flux", "coupler", "meas"};
    for (std::int64_t i = 0; i < kRows; ++i) {
      r.keys.push_back("/q" + std::to_string(i % 100) + "/" + blocks[(i / 100) % 5] + "/freq_" +
                       std::to_string(i / 500));
      r.values.emplace_back(std::to_string(4.0e9 + static_cast<double>(i) * 1234.5));
      r.types.emplace_back("float");
      r.descriptions.emplace_back(nullptr);
      r.units.emplace_back("Hz");
    }
    return r;
  }();
  return r;
}

// A fresh temporary directory, installed as the cache root, removed on scope exit.
class TempDir {
 public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "space-cache-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
    ::setenv("KORVALIN_CACHE_DIR", path_.c_str(), 1);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void check(sqlite3* db, int rc, int want = SQLITE_OK) {
  if (rc != want) throw std::runtime_error(sqlite3_errmsg(db));
}

void BM_UpdateCache(benchmark::State& state) {
  const Rows& r = rows();
  for (auto _ : state) {
    state.PauseTiming();
    {
      TempDir dir;
      SpaceCache cache("bench", 1);
      state.ResumeTiming();
      cache.update_cache(r.keys, r.values, r.types, r.descriptions, r.units, 1);
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_PlainSqliteInsert(benchmark::State& state) {
  const Rows& r = rows();
  for (auto _ : state) {
    state.PauseTiming();
    {
      TempDir dir;
      sqlite3* db = nullptr;
      check(db, sqlite3_open((dir.path() + "/plain.sqlite3").c_str(), &db));
      check(db, sqlite3_exec(db,
                             "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
                             "CREATE TABLE t (key TEXT PRIMARY KEY, value, type)",
                             nullptr, nullptr, nullptr));
      state.ResumeTiming();
      check(db, sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr));
      sqlite3_stmt* st = nullptr;
      check(db, sqlite3_prepare_v2(db, "INSERT INTO t VALUES (?, ?, ?)", -1, &st, nullptr));
      for (std::int64_t i = 0; i < kRows; ++i) {
        const std::string& value = r.values[i].get_ref<const std::string&>();
        sqlite3_bind_text(st, 1, r.keys[i].data(), static_cast<int>(r.keys[i].size()),
                          SQLITE_STATIC);
        sqlite3_bind_text(st, 2, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
        sqlite3_bind_text(st, 3, r.types[i].data(), static_cast<int>(r.types[i].size()),
                          SQLITE_STATIC);
        check(db, sqlite3_step(st), SQLITE_DONE);
        sqlite3_reset(st);
      }
      sqlite3_finalize(st);
      check(db, sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr));
      state.PauseTiming();
      sqlite3_close(db);
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

// A cache of kRows parameters for the read benchmarks.
class FilledCache {
 public:
  FilledCache() : cache_("bench", 1) {
    const Rows& r = rows();
    cache_.update_cache(r.keys, r.values, r.types, r.descriptions, r.units, 1);
  }
  SpaceCache& get() { return cache_; }

 private:
  TempDir dir_;
  SpaceCache cache_;
};

void BM_ReadAll(benchmark::State& state) {
  FilledCache filled;
  for (auto _ : state) {
    auto contents = filled.get().read_all();
    benchmark::DoNotOptimize(contents.records().data());
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_FuzzyQuery(benchmark::State& state) {
  FilledCache filled;
  for (auto _ : state) {
    auto keys = filled.get().fuzzy_query("DRIVE/freq_1");
    benchmark::DoNotOptimize(keys.data());
  }
  state.SetItemsProcessed(state.iterations() * kRows);  // keys scanned
}

BENCHMARK(BM_UpdateCache)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainSqliteInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadAll)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FuzzyQuery)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
