// ServerProcess: a real `korvalin serve` process on a free loopback port, for tests that talk
// to it over HTTP. Needs KORVALIN_PROGRAM (the tests of the labels that run the program).
#pragma once

#include <signal.h>

#include <stdexcept>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/child_process.hpp"

namespace korvalin_client::testing {

struct ServerOptions {
  std::string storage_dir;
  std::vector<std::string> extra_args = {};
};

class ServerProcess {
 public:
  // Starts the server on a port the system picks and waits until it listens.
  explicit ServerProcess(ServerOptions options) : options_(std::move(options)) { start("0"); }
  ~ServerProcess() { stop(); }

  const std::string& url() const { return url_; }
  int port() const { return port_; }
  pid_t pid() const { return process_ ? process_->pid() : -1; }
  // What the server has logged since it last started.
  std::string log() const { return process_ ? process_->output() : ""; }

  void kill(int signal) { process_->kill(signal); }
  // Waits for the process to end (after kill()); its exit code, or -1 past the deadline.
  int wait(std::chrono::seconds deadline = std::chrono::seconds(60)) {
    return process_->wait(deadline);
  }
  // Starts it again on the same port, once the old process is gone (killed if it still runs).
  void restart() {
    if (process_) {
      process_->kill(SIGKILL);
      process_->wait();
    }
    start(std::to_string(port_));
  }
  // SIGTERM, and the exit code once it stopped.
  int stop() {
    if (!process_) return -1;
    process_->kill(SIGTERM);
    const int code = process_->wait(std::chrono::seconds(60));
    process_.reset();
    return code;
  }

 private:
  void start(const std::string& port) {
    std::vector<std::string> argv = {KORVALIN_PROGRAM, "serve", "--listen", "127.0.0.1:" + port,
                                     "--storage", options_.storage_dir};
    argv.insert(argv.end(), options_.extra_args.begin(), options_.extra_args.end());
    process_ = std::make_unique<ChildProcess>(argv, options_.storage_dir + ".serve.log");
    constexpr std::string_view kListening = "listening on ";
    constexpr std::string_view kHost = "://127.0.0.1:";
    std::string::size_type at = std::string::npos;
    const bool up = wait_until(
        [&] {
          at = process_->output().find(kListening);
          return at != std::string::npos && process_->output().find(" (", at) != std::string::npos;
        },
        std::chrono::seconds(60));
    if (!up) throw std::runtime_error("korvalin serve did not start: " + process_->output());
    const std::string out = process_->output();
    const std::string::size_type host = out.find(kHost, at);
    port_ = std::stoi(out.substr(host + kHost.size()));
    url_ = out.substr(at + kListening.size(), host - at - kListening.size()) + "://127.0.0.1:" +
           std::to_string(port_);
  }

  ServerOptions options_;
  std::unique_ptr<ChildProcess> process_;
  int port_ = 0;
  std::string url_;
};

// Runs `korvalin admin ARGS --storage DIR` and returns what it printed; a test failure when it
// does not succeed.
inline std::string korvalin_admin(const std::string& storage, std::vector<std::string> args) {
  args.insert(args.begin(), {KORVALIN_PROGRAM, "admin"});
  args.insert(args.end(), {"--storage", storage});
  ChildProcess p(args, storage + ".admin.out");
  const int code = p.wait(std::chrono::seconds(60));
  if (code != 0) throw std::runtime_error("korvalin admin failed: " + p.output());
  return p.output();
}

// Adds the user `name` (in organisation `org`, when given) and returns a new token of theirs.
inline std::string user_with_token(const std::string& storage, const std::string& name,
                                   const std::string& org = "") {
  std::vector<std::string> add = {"user", "add", name};
  if (!org.empty()) add.insert(add.end(), {"--org", org});
  korvalin_admin(storage, add);
  std::string out = korvalin_admin(storage, {"token", "create", name});
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out.substr(out.rfind('\n') + 1);
}

}  // namespace korvalin_client::testing
