#include "access_log.hpp"

#include <cstdio>
#include <ctime>
#include <iostream>

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
  std::lock_guard lock(mutex_);
  if (sink_) {
    sink_(text);
  } else {
    std::string out = text + '\n';
    std::fwrite(out.data(), 1, out.size(), stderr);
  }
}

}  // namespace korvalin_client::server
