// RawConnection: one HTTP/1.1 connection to a loopback server, written and read as raw bytes,
// so that a test can send what a hostile or broken client would (half a header, a body cut
// short, a byte a second) and see exactly what the server answers.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::testing {

struct RawAnswer {
  int status = 0;  // 0: no answer (the connection closed or stayed silent)
  std::string type;
  std::string body;
  Value json() const {
    if (type != "application/msgpack") return Value::parse(body);
    return utils::msgpack_loads(
        std::span(reinterpret_cast<const std::uint8_t*>(body.data()), body.size()));
  }
  std::string kind() const { return json()["error"]["kind"].get<std::string>(); }
  std::string message() const { return json()["error"]["message"].get<std::string>(); }
};

class RawConnection {
 public:
  // Connects to 127.0.0.1:`port`, from `source` (any 127.x.y.z) when given.
  explicit RawConnection(int port, const std::string& source = "") {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (!source.empty()) {
      sockaddr_in from{};
      from.sin_family = AF_INET;
      ::inet_pton(AF_INET, source.c_str(), &from.sin_addr);
      ::bind(fd_, reinterpret_cast<sockaddr*>(&from), sizeof from);
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~RawConnection() { ::close(fd_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool connected() const { return connected_; }

  // A request's head (with Content-Length when `body` is given or the method is not GET).
  static std::string head(const std::string& method, const std::string& path,
                          const std::string& token = "",
                          const std::string& type = "application/json", std::int64_t length = -1) {
    std::string h = method + " " + path + " HTTP/1.1\r\nHost: test\r\n";
    if (!token.empty()) h += "Authorization: Bearer " + token + "\r\n";
    if (length >= 0)
      h += "Content-Type: " + type + "\r\nContent-Length: " + std::to_string(length) + "\r\n";
    return h + "\r\n";
  }

  RawAnswer request(const std::string& method, const std::string& path,
                    const std::string& body = "", const std::string& token = "",
                    const std::string& type = "application/json") {
    const bool sized = !body.empty() || method != "GET";
    send(head(method, path, token, type, sized ? static_cast<std::int64_t>(body.size()) : -1) +
         body);
    return read_answer();
  }
  // Sends all of `bytes`; false when the connection refused them.
  bool send(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
      const ssize_t n = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
      if (n <= 0) return false;
      at += static_cast<std::size_t>(n);
    }
    return true;
  }
  // The next answer, waiting at most `deadline` for each piece of it.
  RawAnswer read_answer(std::chrono::milliseconds deadline = std::chrono::seconds(30)) {
    std::size_t end;
    while ((end = buffer_.find("\r\n\r\n")) == std::string::npos && fill(deadline)) {
    }
    RawAnswer a;
    if (end == std::string::npos) return a;
    const std::string head = buffer_.substr(0, end);
    buffer_.erase(0, end + 4);
    a.status = std::stoi(head.substr(9, 3));
    const auto header = [&](const std::string& name) {
      const auto at = head.find("\r\n" + name + ": ");
      return at == std::string::npos ? std::string()
                                     : head.substr(at + name.size() + 4, head.find("\r\n", at + 2) -
                                                                             at - name.size() - 4);
    };
    a.type = header("Content-Type");
    const std::size_t length = std::stoull("0" + header("Content-Length"));
    while (buffer_.size() < length && fill(deadline)) {
    }
    a.body = buffer_.substr(0, length);
    buffer_.erase(0, length);
    return a;
  }
  // Whether the server closed the connection (it reads and drops whatever arrives meanwhile),
  // waiting at most `deadline`.
  bool closed_within(std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 50) == 1) {
        char chunk[4096];
        const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) return true;
        buffer_.append(chunk, static_cast<std::size_t>(n));
      }
    }
    return false;
  }

 private:
  bool fill(std::chrono::milliseconds deadline) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(deadline.count())) != 1) return false;
    char chunk[65536];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<std::size_t>(n));
    return true;
  }
  int fd_ = -1;
  bool connected_ = false;
  std::string buffer_;
};

}  // namespace korvalin_client::testing
