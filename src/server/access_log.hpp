// The server's log: one line per request (start time in UTC, method, path, status, duration,
// user) and lines about failures, to standard error or a sink of the caller's. Never a token,
// never a query string; control characters are shown escaped, so no request can forge a line.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

namespace korvalin_client::server {

class AccessLog {
 public:
  explicit AccessLog(std::function<void(const std::string&)> sink);

  // `user` is "-" until the request's token named one.
  void request(std::chrono::system_clock::time_point start, std::string_view method,
               std::string_view path, int status, std::chrono::steady_clock::duration took,
               std::string_view user);
  void line(const std::string& text);

 private:
  std::function<void(const std::string&)> sink_;
  std::mutex mutex_;
  std::string pending_;
  bool writing_ = false;
};

// `text` with control characters escaped ("\x0a").
std::string loggable(std::string_view text);

}  // namespace korvalin_client::server
