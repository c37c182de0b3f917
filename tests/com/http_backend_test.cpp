// HttpBackend against a real HTTP/1.1 peer on a loopback socket, which answers each request
// with a canned response and counts the connections it accepted, and against a TLS peer
// (`openssl s_server`) presenting a certificate of a CA made for the test.
#include "korvalin_client/com/http_backend.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <span>
#include <sstream>
#include <thread>

#include "korvalin_client/com/device.hpp"
#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/com/space.hpp"
#include "korvalin_client/com/sub_process.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "support/child_process.hpp"
#include "support/test_certificate.hpp"
#include "support/testing.hpp"

namespace {

using kc::Bytes;
using kc::com::HttpBackend;
using ::testing::Not;

struct Seen {
  std::string method, target, authorization, content_type, body;
};

// Serves one connection at a time; `reply` gives the raw response to a request, or "" to close
// the connection without answering.
class Peer {
 public:
  explicit Peer(std::function<std::string(const Seen&)> reply) : reply_(std::move(reply)) {
    listen_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(listen_, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(listen(listen_, 8), 0);
    getsockname(listen_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  // The clients (declared after the peer) have closed their connections by now.
  ~Peer() {
    shutdown(listen_, SHUT_RDWR);  // ends a blocked accept()
    thread_.join();
    close(listen_);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  int connections() const { return connections_; }
  std::vector<Seen> requests() const {
    std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  void serve() {
    for (int fd; (fd = accept(listen_, nullptr, nullptr)) >= 0; close(fd)) {
      ++connections_;
      std::string buffer;
      while (const std::optional<Seen> request = read_request(fd, buffer)) {
        std::unique_lock lock(mutex_);
        seen_.push_back(*request);
        lock.unlock();
        const std::string response = reply_(*request);
        if (response.empty() || send(fd, response.data(), response.size(), MSG_NOSIGNAL) < 0) break;
      }
    }
  }

  static bool fill(int fd, std::string& buffer, std::size_t size) {
    char chunk[65536];
    while (buffer.size() < size) {
      const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) return false;
      buffer.append(chunk, static_cast<std::size_t>(n));
    }
    return true;
  }

  static std::optional<Seen> read_request(int fd, std::string& buffer) {
    std::size_t end;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
      if (!fill(fd, buffer, buffer.size() + 1)) return std::nullopt;
    }
    Seen seen;
    std::istringstream head(buffer.substr(0, end));
    std::getline(head >> seen.method >> seen.target, seen.body);  // the rest of the line
    std::size_t length = 0;
    for (std::string line; std::getline(head, line);) {
      if (line.ends_with('\r')) line.pop_back();
      const std::string value = line.substr(line.find(": ") + 2);
      if (line.starts_with("Authorization:")) seen.authorization = value;
      if (line.starts_with("Content-Type:")) seen.content_type = value;
      if (line.starts_with("Content-Length:")) length = std::stoul(value);
    }
    if (!fill(fd, buffer, end + 4 + length)) return std::nullopt;
    seen.body = buffer.substr(end + 4, length);
    buffer.erase(0, end + 4 + length);
    return seen;
  }

  std::function<std::string(const Seen&)> reply_;
  int listen_ = -1;
  int port_ = 0;
  std::thread thread_;
  std::atomic<int> connections_ = 0;
  mutable std::mutex mutex_;
  std::vector<Seen> seen_;
};

std::string answer(int status, const std::string& type, const std::string& body) {
  return "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
std::string msgpack(const Value& v) {
  const Bytes b = kc::utils::msgpack_dumps(v);
  return std::string(b.begin(), b.end());
}
std::string error_record(const std::string& kind, const std::string& message) {
  return Value{{"error", {{"kind", kind}, {"message", message}}}}.dump();
}

using Installed = kc::testing::ScopedBackend<HttpBackend>;

using kc::testing::ScopedEnvironment;

TEST(HttpBackend, ErrorAnswersRaiseTheirKindAndMessageOverOneKeptAliveConnection) {
  const std::string token = "kvt_0123456789abcdef";
  const std::vector<std::string> answers = {
      answer(403, "application/json",
             error_record("PermissionError", "user \"ana\" lacks WRITE on device group \"lab\"")),
      answer(400, "application/msgpack",
             msgpack(Value::parse(error_record("TypeError", "space_id must be an integer")))),
      answer(401, "application/json", error_record("AuthenticationError", "unknown token")),
      answer(400, "application/json", error_record("KeyError", "missing key \"keys\"")),
      answer(422, "application/json; charset=utf-8",
             error_record("RuntimeError", "unknown space 7")),
      answer(502, "text/html", "<html>Bad Gateway; you sent Bearer " + token + "</html>"),
      answer(200, "application/msgpack", msgpack({{"device_group_id", 7}, {"ratio", 0.1}}))};
  std::atomic<std::size_t> next = 0;
  Peer peer([&](const Seen&) {
    const std::size_t i = next++;
    return i < answers.size() ? answers[i] : std::string();
  });
  Installed backend(std::make_shared<HttpBackend>(peer.url(), token));
  const auto detail = [] { return kc::com::device::get_group_detail("lab"); };

  EXPECT_EQ(error_of<kc::PermissionError>(detail),
            "user \"ana\" lacks WRITE on device group \"lab\"");
  EXPECT_EQ(error_of<kc::TypeError>(detail), "space_id must be an integer");
  EXPECT_EQ(error_of<kc::AuthenticationError>(detail), "unknown token");
  EXPECT_EQ(error_of<kc::KeyError>(detail), "missing key \"keys\"");
  EXPECT_EQ(error_of<kc::RuntimeError>(detail), "unknown space 7");
  const std::string unreadable = error_of<kc::RuntimeError>(detail);
  EXPECT_THAT(unreadable, HasSubstr("502"));
  EXPECT_THAT(unreadable, HasSubstr("POST /api/v1/device/get_group_detail"));
  EXPECT_THAT(unreadable, Not(HasSubstr(token)));
  // Reals keep every bit: MessagePack float64 both ways.
  EXPECT_EQ(detail(), Value({{"device_group_id", 7}, {"ratio", 0.1}}));

  EXPECT_EQ(peer.connections(), 1);
  const Seen first = peer.requests().at(0);
  EXPECT_EQ(first.target, "/api/v1/device/get_group_detail");
  EXPECT_EQ(first.authorization, "Bearer " + token);
  EXPECT_EQ(first.content_type, "application/msgpack");
  EXPECT_EQ(kc::utils::msgpack_loads(std::span(
                reinterpret_cast<const std::uint8_t*>(first.body.data()), first.body.size())),
            Value({{"device_group_name", "lab"}}));
}

TEST(HttpBackend, AReadIsTriedAgainAfterADroppedConnectionAWriteIsNot) {
  kc::testing::ScopedFakeEnv env;
  std::atomic<int> drops = 1;
  Peer peer([&](const Seen&) {
    return drops-- > 0 ? std::string() : answer(200, "application/msgpack", msgpack({1, 2}));
  });
  Installed backend(std::make_shared<HttpBackend>(peer.url(), "token"));
  const auto read = [] { return kc::com::space::get_parameter(5, nullptr); };
  const auto write = [] {
    return kc::com::space::add_parameter(5, Value{"/a"}, Value{"1"}, Value{"int"});
  };

  // First, on a new connection: libcurl itself sends a request again, once, when a connection
  // it reused from an earlier call closes before a byte of answer (the server closed it idle).
  EXPECT_THAT(error_of<kc::RuntimeError>(write), HasSubstr("may or may not have been applied"));
  EXPECT_EQ(peer.requests().size(), 1u);
  EXPECT_TRUE(env.sleeps.empty());

  drops = 2;
  EXPECT_EQ(read(), Value({1, 2}));
  EXPECT_EQ(env.sleeps, (std::vector<double>{0.5, 1}));

  drops = 1 << 20;
  EXPECT_THAT(error_of<kc::RuntimeError>(read), HasSubstr("5 tries"));
  EXPECT_EQ(env.sleeps, (std::vector<double>{0.5, 1, 0.5, 1, 2, 4}));

  // A user's interruption during a pause ends the call; no retry loop holds it back.
  env.on_sleep([](double) { throw kc::Interrupted{}; });
  EXPECT_THROW(read(), kc::Interrupted);
}

TEST(HttpBackend, ResultChunksAndObjectsTravelAsRawBytes) {
  Bytes chunk(300000);
  for (std::size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<std::uint8_t>(i * 7);
  const Value locator = {{"bucket", "org-3"}, {"object", "ab/c d.kvexp"}};
  Peer peer([&](const Seen& s) {
    if (s.target == "/api/v1/service") {
      return answer(200, "application/json", R"({"service_identity": "store-1"})");
    }
    if (s.target == "/api/v1/sub_process/download_result_chunk_from_cache") {
      return answer(200, "application/octet-stream", std::string(chunk.begin(), chunk.end()));
    }
    if (s.method == "PUT") return answer(200, "application/json", locator.dump());
    if (s.target == "/api/v1/objects/org-3/ab/c%20d.kvexp") {
      return answer(200, "application/octet-stream", "stored");
    }
    // Announces 3 GiB: refused from the head, before anything is allocated.
    return std::string(
        "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
        "Content-Length: 3221225472\r\n\r\n");
  });
  kc::testing::ScopedFakeBackend before;
  EXPECT_EQ(kc::com::connection_manager::connect(peer.url(), "token"), before.backend);
  EXPECT_EQ(kc::com::connection_manager::get_connection_type(), "http");
  const auto backend = kc::com::connection_manager::get_backend();

  EXPECT_EQ(backend->service_identity(), "store-1");
  EXPECT_EQ(backend->service_identity(), "store-1");  // asked once, then kept
  const Value piece = kc::com::sub_process::download_result_chunk_from_cache(9, 2);
  ASSERT_TRUE(piece.is_binary());
  EXPECT_TRUE(static_cast<const Bytes&>(piece.get_binary()) == chunk);

  const auto store = kc::com::minio::get_minio_client(3);
  EXPECT_EQ(store->upload("a b/c", Bytes{1, 0, 2}, "exp", "kvexp"), locator);
  const Seen put = peer.requests().at(2);
  EXPECT_EQ(put.target, "/api/v1/objects?name=a%20b%2Fc&category=exp&format=kvexp");
  EXPECT_EQ(put.body, std::string("\1\0\2", 3));
  EXPECT_EQ(store->download(Value{{"uri", locator.dump()}}), Bytes({'s', 't', 'o', 'r', 'e', 'd'}));

  EXPECT_THAT(error_of<kc::RuntimeError>([&] {
                store->download(Value{{"bucket", "org-3"}, {"object", "big"}});
              }),
              HasSubstr("too large"));
  EXPECT_THAT(error_of<kc::ValueError>([&] {
                store->download(Value{{"bucket", "org-3"}, {"object", "a/../../x"}});
              }),
              HasSubstr("names no object"));
  EXPECT_EQ(peer.requests().size(), 5u);
}

TEST(HttpBackend, PlainHttpIsForThisMachineUnlessTheUserAllowsIt) {
  ScopedEnvironment environment({{"KORVALIN_ALLOW_INSECURE", std::nullopt},
                                 {"KORVALIN_CA_FILE", std::nullopt},
                                 {"no_proxy", std::nullopt},
                                 {"NO_PROXY", std::nullopt}});
  const auto make = [](const std::string& url, kc::com::HttpOptions options = {}) {
    return std::make_shared<HttpBackend>(url, "kvt_secret", options);
  };
  // The host is the one libcurl connects to: not a user name before "@", not a name that
  // begins like a loopback address.
  for (const auto& [url, shown] : std::vector<std::pair<std::string, std::string>>{
           {"http://10.255.255.1:9", "http://10.255.255.1:9"},
           {"http://127.0.0.1.example.com", "http://127.0.0.1.example.com"},
           {"http://localhost@10.0.0.1/api", "http://10.0.0.1/api"},
           {"http://[::2]:9", "http://[::2]:9"}}) {
    const std::string refused = error_of<kc::ValueError>([&] { make(url); });
    EXPECT_THAT(refused, HasSubstr("service at " + shown + " is not on this machine"));
    EXPECT_THAT(refused, HasSubstr("use https://, or set KORVALIN_ALLOW_INSECURE=1"));
  }
  for (const char* url :
       {"http://127.0.0.2:9", "http://LocalHost:9/prefix", "http://[::1]:9", "https://10.0.0.1"}) {
    EXPECT_NO_THROW(make(url)) << url;
  }
  EXPECT_NO_THROW(make("http://10.255.255.1:9", {.allow_insecure = true}));
  environment.set("KORVALIN_ALLOW_INSECURE", "1");
  EXPECT_NO_THROW(make("http://10.255.255.1:9"));

  // A proxy named in the environment would carry a loopback server's token off the machine.
  kc::testing::ScopedFakeEnv env;
  environment.set("http_proxy", "http://127.0.0.1:1");
  Peer peer([](const Seen&) {
    return answer(200, "application/json", R"({"service_identity": "store-1"})");
  });
  EXPECT_EQ(make(peer.url())->service_identity(), "store-1");
}

TEST(HttpBackend, AnHttpsServerMustShowACertificateOfATrustedCaForItsAddress) {
  kc::testing::TempCacheRoot dir;
  const kc::testing::TestCertificate tls = kc::testing::make_test_certificate(dir.path());
  if (!tls.error.empty()) GTEST_SKIP() << tls.error;
  const std::string &ca = tls.ca, &cert = tls.cert, &key = tls.key;
  kc::testing::ScopedFakeEnv env;  // a read's retries pause in no time
  ScopedEnvironment environment({{"KORVALIN_CA_FILE", std::nullopt}});
  kc::testing::ChildProcess server(
      {kc::testing::on_path("openssl"), "s_server", "-accept", "127.0.0.1:0", "-cert", cert, "-key", key, "-www"},
      dir.path() + "/s_server.log");
  std::string port;
  ASSERT_TRUE(kc::testing::wait_until(
      [&] {
        const std::string log = server.output(), accepting = "ACCEPT 127.0.0.1:";
        const std::size_t at = log.find(accepting);
        const std::size_t end = at == std::string::npos ? at : log.find('\n', at);
        if (end == std::string::npos) return false;
        port = log.substr(at + accepting.size(), end - at - accepting.size());
        return true;
      },
      std::chrono::seconds(60)))
      << server.output();
  const std::string token = "kvt_0123456789abcdef";
  const auto ask = [&](const std::string& host) {
    HttpBackend("https://" + host + ":" + port, token).service_identity();
  };

  const std::string untrusted = error_of<kc::RuntimeError>([&] { ask("127.0.0.1"); });
  EXPECT_THAT(untrusted, HasSubstr("the certificate of the service at https://127.0.0.1:" + port +
                                   " could not be verified against the system's CAs"));
  EXPECT_THAT(untrusted, HasSubstr("set KORVALIN_CA_FILE"));
  EXPECT_THAT(untrusted, Not(HasSubstr(token)));

  environment.set("KORVALIN_CA_FILE", dir.path() + "/missing.pem");
  EXPECT_THAT(error_of<kc::RuntimeError>([&] { HttpBackend("https://127.0.0.1:" + port, token); }),
              HasSubstr("cannot read the CA file \"" + dir.path() + "/missing.pem\""));

  // Trusted, the handshake goes through; s_server then answers with a page of HTML.
  environment.set("KORVALIN_CA_FILE", ca);
  EXPECT_THAT(error_of<kc::RuntimeError>([&] { ask("127.0.0.1"); }), Not(HasSubstr("certificate")));
  // The certificate is for 127.0.0.1 alone.
  EXPECT_THAT(error_of<kc::RuntimeError>([&] { ask("localhost"); }),
              HasSubstr("could not be verified against the CA file \"" + ca + "\""));
}

}  // namespace
