// Joining chunks into a Result and storing it, each against the raw operation it wraps:
//
//   concat/move/N, concat/copy/N  N chunks of 1 MiB of float64 joined (moved or copied in)
//                                 (a copied join shares the chunk's blocks: no byte moves)
//   concat/copy_small/N           the same bytes in 64 times as many chunks of 16 KiB, joined
//                                 by copy (small chunks are copied into large blocks)
//   concat/memcpy_baseline/N      the same chunks memcpy'd into one preallocated buffer
//                                 (pages already present)
//   concat/memcpy_fresh/N         the same chunks memcpy'd into a buffer malloc'd for the
//                                 purpose (pages faulted in while copying), as a join must
//   save, raw_write               a 1 GiB result saved, and the same bytes write()n
//   load, raw_read_*              that file loaded, and its bytes read() into a fresh buffer
//                                 (pages faulted in while reading) or into a reused one
//
// Chunks are prepared, and results and files freed, outside the timed regions. Files go to a
// temporary directory under $TMPDIR (or /tmp), removed at exit; loads read from the page cache.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "korvalin_client/experiment/result.hpp"

namespace {

using korvalin_client::Bytes;
using korvalin_client::experiment::Column;
using korvalin_client::experiment::Result;

constexpr std::size_t kChunkBytes = std::size_t{1} << 20;
constexpr std::size_t kChunkItems = kChunkBytes / sizeof(double);
constexpr int kLargeChunks = 1024;  // 1 GiB

Result make_chunk(int k) {
  std::vector<std::pair<std::string, Column>> columns;
  columns.emplace_back("v", std::vector<double>(kChunkItems, 0.5 * k));
  return Result::from_columns(static_cast<std::int64_t>(k) * kChunkItems, std::move(columns));
}

std::vector<Result> make_chunks(int n) {
  std::vector<Result> chunks;
  chunks.reserve(static_cast<std::size_t>(n));
  for (int k = 0; k < n; ++k) chunks.push_back(make_chunk(k));
  return chunks;
}

// Times `f` with the steady clock. Every benchmark here times itself (manual time), so that
// preparing chunks and freeing results or files stay out of the figures without PauseTiming,
// whose bookkeeping would outweigh joins that take well under a millisecond.
template <class F>
double seconds_of(F&& f) {
  const auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void concat_move(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    std::vector<Result> chunks = make_chunks(n);
    Result all;
    state.SetIterationTime(seconds_of([&] {
      for (Result& c : chunks) all.concatenate(std::move(c));
    }));
    benchmark::DoNotOptimize(all.size());
  }
  state.SetBytesProcessed(state.iterations() * n * static_cast<std::int64_t>(kChunkBytes));
}

void concat_copy(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<Result> chunks = make_chunks(n);
  for (auto _ : state) {
    Result all;
    state.SetIterationTime(seconds_of([&] {
      for (const Result& c : chunks) all.concatenate(c);
    }));
    benchmark::DoNotOptimize(all.size());
  }
  state.SetBytesProcessed(state.iterations() * n * static_cast<std::int64_t>(kChunkBytes));
}

void concat_copy_small(benchmark::State& state) {
  const std::size_t n = static_cast<std::size_t>(state.range(0)) * 64;
  const std::size_t items = kChunkItems / 64;
  std::vector<Result> chunks;
  chunks.reserve(n);
  for (std::size_t k = 0; k < n; ++k) {
    std::vector<std::pair<std::string, Column>> columns;
    columns.emplace_back("v", std::vector<double>(items, 0.5 * static_cast<double>(k)));
    chunks.push_back(Result::from_columns(static_cast<std::int64_t>(k * items), std::move(columns)));
  }
  for (auto _ : state) {
    Result all;
    state.SetIterationTime(seconds_of([&] {
      for (const Result& c : chunks) all.concatenate(c);
    }));
    benchmark::DoNotOptimize(all.size());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0) * static_cast<std::int64_t>(kChunkBytes));
}

void concat_memcpy_baseline(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<Result> chunks = make_chunks(n);
  const std::size_t total = static_cast<std::size_t>(n) * kChunkBytes;
  std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[total]);
  std::memset(buffer.get(), 0, total);  // preallocated: pages already present
  for (auto _ : state) {
    state.SetIterationTime(seconds_of([&] {
      std::uint8_t* p = buffer.get();
      for (const Result& c : chunks) {
        const auto block = c["v"].block<double>(0);
        std::memcpy(p, block.data(), block.size_bytes());
        p += block.size_bytes();
      }
      benchmark::DoNotOptimize(buffer.get());
      benchmark::ClobberMemory();
    }));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(total));
}

void concat_memcpy_fresh(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<Result> chunks = make_chunks(n);
  const std::size_t total = static_cast<std::size_t>(n) * kChunkBytes;
  for (auto _ : state) {
    std::uint8_t* buffer = nullptr;
    state.SetIterationTime(seconds_of([&] {
      buffer = static_cast<std::uint8_t*>(std::malloc(total));
      if (buffer == nullptr) throw std::bad_alloc();
      std::uint8_t* p = buffer;
      for (const Result& c : chunks) {
        const auto block = c["v"].block<double>(0);
        std::memcpy(p, block.data(), block.size_bytes());
        p += block.size_bytes();
      }
      benchmark::DoNotOptimize(buffer);
      benchmark::ClobberMemory();
    }));
    std::free(buffer);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(total));
}

BENCHMARK(concat_move)
    ->Name("concat/move")
    ->Arg(1000)
    ->Arg(2000)
    ->Iterations(10)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(concat_copy)
    ->Name("concat/copy")
    ->Arg(1000)
    ->Arg(2000)
    ->Iterations(50)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(concat_copy_small)
    ->Name("concat/copy_small")
    ->Arg(1000)
    ->Arg(2000)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(concat_memcpy_baseline)
    ->Name("concat/memcpy_baseline")
    ->Arg(1000)
    ->Arg(2000)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(concat_memcpy_fresh)
    ->Name("concat/memcpy_fresh")
    ->Arg(1000)
    ->Arg(2000)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// ---- files ----------------------------------------------------------------------------------

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

// A 1 GiB result (1024 joined chunks), its bytes, and a temporary directory for the files.
struct Files {
  Files() {
    const char* tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/korvalin-bench-XXXXXX";
    check(::mkdtemp(tmpl.data()) != nullptr, "mkdtemp");
    dir = tmpl;
    for (int k = 0; k < kLargeChunks; ++k) result.concatenate(make_chunk(k));
    bytes = result.to_bytes();
    saved = dir + "/saved.kvres";
    result.save_to_file(saved);
  }
  ~Files() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }

  std::string dir;
  Result result;
  Bytes bytes;
  std::string saved;
};

Files& files() {
  static Files f;
  return f;
}

void write_all(const std::string& path, const std::uint8_t* p, std::size_t n) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  check(fd >= 0, "open");
  while (n > 0) {
    const ssize_t w = ::write(fd, p, std::min(n, std::size_t{1} << 30));
    check(w > 0, "write");
    p += w;
    n -= static_cast<std::size_t>(w);
  }
  check(::close(fd) == 0, "close");
}

void read_all(const std::string& path, std::uint8_t* p, std::size_t n) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  check(fd >= 0, "open");
  while (n > 0) {
    const ssize_t r = ::read(fd, p, std::min(n, std::size_t{1} << 30));
    check(r > 0, "read");
    p += r;
    n -= static_cast<std::size_t>(r);
  }
  ::close(fd);
}

void save(benchmark::State& state) {
  Files& f = files();
  const std::string path = f.dir + "/out.kvres";
  for (auto _ : state) {
    state.SetIterationTime(seconds_of([&] { f.result.save_to_file(path); }));
    ::unlink(path.c_str());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(f.bytes.size()));
}

void raw_write(benchmark::State& state) {
  Files& f = files();
  const std::string path = f.dir + "/raw.bin";
  for (auto _ : state) {
    state.SetIterationTime(seconds_of([&] { write_all(path, f.bytes.data(), f.bytes.size()); }));
    ::unlink(path.c_str());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(f.bytes.size()));
}

void load(benchmark::State& state) {
  Files& f = files();
  for (auto _ : state) {
    Result r;
    state.SetIterationTime(seconds_of([&] { r = Result::load_from_file(f.saved); }));
    benchmark::DoNotOptimize(r.size());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(f.bytes.size()));
}

void raw_read_fresh_buffer(benchmark::State& state) {
  Files& f = files();
  for (auto _ : state) {
    std::unique_ptr<std::uint8_t[]> buffer;
    state.SetIterationTime(seconds_of([&] {
      buffer.reset(new std::uint8_t[f.bytes.size()]);
      read_all(f.saved, buffer.get(), f.bytes.size());
    }));
    benchmark::DoNotOptimize(buffer.get());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(f.bytes.size()));
}

void raw_read_reused_buffer(benchmark::State& state) {
  Files& f = files();
  Bytes buffer(f.bytes.size());
  for (auto _ : state) {
    state.SetIterationTime(seconds_of([&] { read_all(f.saved, buffer.data(), buffer.size()); }));
    benchmark::DoNotOptimize(buffer.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(f.bytes.size()));
}

BENCHMARK(save)->Iterations(6)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(raw_write)->Iterations(6)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(load)->Iterations(6)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(raw_read_fresh_buffer)->Iterations(6)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(raw_read_reused_buffer)->Iterations(6)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
