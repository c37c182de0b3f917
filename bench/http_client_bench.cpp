// The client's side of bench/http_bench.sh, against a running `korvalin serve`:
//   http_client_bench download URL TOKEN BUCKET OBJECT
//       pulls one object through HttpBackend's object client; prints seconds and peak RSS.
//   http_client_bench follow URL TOKEN GROUP CLIENTS ITEMS
//       submits an ITEMS-item scan to GROUP's "origin" space, then CLIENTS processes each
//       follow it live with pull_result; prints when each finished, after the run's end.
//   http_client_bench slow PORT CONNECTIONS SECONDS
//       keeps CONNECTIONS connections to 127.0.0.1:PORT open for SECONDS, from addresses
//       127.0.0.2 and up (100 each), each sending a request header one byte a second and
//       reconnecting when the server cuts it off; prints how many it had open and reopened.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/http_backend.hpp"
#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/group/cloud_group.hpp"

namespace {

namespace kc = korvalin_client;
using Clock = std::chrono::steady_clock;

double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

long peak_rss_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

int download(const std::string& url, const std::string& token, const std::string& bucket,
             const std::string& object) {
  kc::com::HttpBackend backend(url, token);
  const auto objects = backend.get_minio_client(nullptr);
  const auto start = Clock::now();
  const kc::Bytes data = objects->download(kc::Value{{"bucket", bucket}, {"object", object}});
  const double seconds = since(start);
  std::printf("%.2f s, %ld KiB (%.0f MiB/s, %zu bytes)\n", seconds, peak_rss_kib(),
              static_cast<double>(data.size()) / (1 << 20) / seconds, data.size());
  return 0;
}

int follow(const std::string& url, const std::string& token, const std::string& group_name,
           int clients, int items) {
  kc::com::connection_manager::connect(url, token);
  kc::group::CloudGroup group(group_name, "origin");
  auto exp = group.create_exp("follow", "http_client_bench");
  std::vector<kc::Value> amps;
  for (int i = 0; i < items; ++i) amps.emplace_back(i * 1.0 / items);
  exp.sweep("/q0/drive/amp", amps).measure_quantity("I").measure_quantity("Q");
  const std::int64_t exp_id = group.submit_exp(exp).get<std::int64_t>();
  const auto start = Clock::now();
  const std::string cache = std::getenv("KORVALIN_CACHE_DIR") ? std::getenv("KORVALIN_CACHE_DIR") : "/tmp";

  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return 1;
  for (int c = 0; c < clients; ++c) {
    if (fork() == 0) {
      close(pipe_fds[0]);
      setenv("KORVALIN_CACHE_DIR", (cache + "/client" + std::to_string(c)).c_str(), 1);
      kc::com::connection_manager::connect(url, token);
      kc::group::CloudGroup mine(group_name, "origin");
      const auto result = mine.pull_result(exp_id, true);
      const double done = since(start);
      char line[64];
      const int n = std::snprintf(line, sizeof line, "%zu %.3f\n", result.size(), done);
      if (write(pipe_fds[1], line, static_cast<std::size_t>(n)) != n) _exit(1);
      _exit(0);
    }
  }
  close(pipe_fds[1]);
  // The run's end as the server records it: the first moment its status is no longer running.
  std::string status;
  while ((status = kc::to_text(kc::group::CloudGroup::get_experiment(exp_id)["status"])) ==
             "queued" ||
         status == "running") {
    usleep(20000);
  }
  const double ended = since(start);
  std::vector<double> finished;
  std::size_t wrong = 0;
  FILE* in = fdopen(pipe_fds[0], "r");
  std::size_t size = 0;
  double t = 0;
  while (std::fscanf(in, "%zu %lf", &size, &t) == 2) {
    finished.push_back(t);
    if (size != static_cast<std::size_t>(items)) ++wrong;
  }
  while (wait(nullptr) > 0) {}
  std::sort(finished.begin(), finished.end());
  if (finished.empty()) return 1;
  std::printf(
      "  run ended after %.2f s; %zu clients finished %.2f / %.2f / %.2f s after it (first / "
      "median / last), %zu with a wrong size\n",
      ended, finished.size(), finished.front() - ended, finished[finished.size() / 2] - ended,
      finished.back() - ended, wrong);
  return wrong == 0 && finished.size() == static_cast<std::size_t>(clients) ? 0 : 1;
}

// A connection from 127.0.0.(2 + i / 100) to the port, with the start of a header sent; -1
// when it cannot connect.
int open_slow(int port, int i) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in from{};
  from.sin_family = AF_INET;
  from.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 2 + static_cast<unsigned>(i / 100));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<std::uint16_t>(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const char start[] = "GET /health HTTP/1.1\r\nHost: slow\r\nX-Slow: ";
  if (::bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
      ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 ||
      ::send(fd, start, sizeof start - 1, MSG_NOSIGNAL) <= 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

int slow(int port, int connections, double seconds) {
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  std::vector<int> fds(static_cast<std::size_t>(connections), -1);
  long reopened = 0;
  const auto start = Clock::now();
  while (since(start) < seconds) {
    for (int i = 0; i < connections; ++i) {
      int& fd = fds[static_cast<std::size_t>(i)];
      if (fd >= 0) {
        // Closed by the server (it answered, or said nothing): open another.
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 0) == 1 || ::send(fd, "a", 1, MSG_NOSIGNAL) <= 0) {
          ::close(fd);
          fd = -1;
          ++reopened;
        }
      }
      if (fd < 0) fd = open_slow(port, i);
    }
    ::usleep(1000000);
  }
  const long open = std::count_if(fds.begin(), fds.end(), [](int fd) { return fd >= 0; });
  std::printf("%ld connections open at the end, %ld reopened\n", open, reopened);
  for (const int fd : fds) ::close(fd);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> a(argv + 1, argv + argc);
  try {
    if (a.size() == 5 && a[0] == "download") return download(a[1], a[2], a[3], a[4]);
    if (a.size() == 6 && a[0] == "follow") {
      return follow(a[1], a[2], a[3], std::stoi(a[4]), std::stoi(a[5]));
    }
    if (a.size() == 4 && a[0] == "slow") return slow(std::stoi(a[1]), std::stoi(a[2]), std::stod(a[3]));
  } catch (const std::exception& e) {
    std::cerr << "http_client_bench: " << e.what() << "\n";
    return 1;
  }
  std::cerr << "usage: http_client_bench download URL TOKEN BUCKET OBJECT\n"
               "       http_client_bench follow URL TOKEN GROUP CLIENTS ITEMS\n"
               "       http_client_bench slow PORT CONNECTIONS SECONDS\n";
  return 2;
}
