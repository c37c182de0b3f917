#include "access_log.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace korvalin_client::server {

std::string loggable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", u);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

AccessLog::AccessLog(std::function<void(const std::string&)> sink) : sink_(std::move(sink)) {}

void AccessLog::request(std::chrono::system_clock::time_point start, std::string_view method,
                        std::string_view path, int status, std::chrono::steady_clock::duration took,
                        std::string_view user) {
  const std::time_t t = std::chrono::system_clock::to_time_t(start);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char head[40];
  std::strftime(head, sizeof head, "%Y-%m-%dT%H:%M:%SZ", &tm);
  char tail[48];
  std::snprintf(tail, sizeof tail, " %d %.1fms ", status,
                std::chrono::duration<double, std::milli>(took).count());
  std::string text = head;
  text += ' ';
  text += loggable(method);
  text += ' ';
  text += loggable(path.substr(0, path.find('?')));
  text += tail;
  text += loggable(user);
  line(text);
}

void AccessLog::line(const std::string& text) {
  std::unique_lock lock(mutex_);
  if (sink_) {
    sink_(text);
    return;
  }
  // Lines that arrive while one thread writes are written by it in one go after its write:
  // under load a write carries many lines, and nobody waits for the terminal or the file.
  pending_ += text;
  pending_ += '\n';
  if (writing_) return;
  writing_ = true;
  while (!pending_.empty()) {
    std::string out;
    out.swap(pending_);
    lock.unlock();
    for (std::size_t at = 0; at < out.size();) {
      const ssize_t n = ::write(STDERR_FILENO, out.data() + at, out.size() - at);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;  // standard error is gone: the lines are lost, the server goes on
      at += static_cast<std::size_t>(n);
    }
    lock.lock();
  }
  writing_ = false;
}

}  // namespace korvalin_client::server
