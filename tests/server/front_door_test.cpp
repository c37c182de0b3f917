// `korvalin serve` against clients that are slow, tokenless, greedy or that stop half way, each a
// raw socket doing what a hostile one would: the server answers from the headers, cuts off
// what is too slow, shares large bodies fairly, never carries out a request that did not
// arrive whole, and keeps serving everyone else. Also HTTPS with a certificate the test makes.
#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "korvalin_client/com/device.hpp"
#include "korvalin_client/com/http_backend.hpp"
#include "support/raw_http.hpp"
#include "support/server_process.hpp"
#include "support/test_certificate.hpp"
#include "support/testing.hpp"

namespace {

using kc::testing::RawAnswer;
using kc::testing::RawConnection;
using kc::testing::ServerProcess;
using kc::testing::wait_until;
using namespace std::chrono_literals;

// Resident memory of a process, in KiB.
long rss_kib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

// Every file under `dir` that is not a directory.
std::set<std::string> files_under(const std::string& dir) {
  std::set<std::string> out;
  if (!std::filesystem::exists(dir)) return out;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir)) {
    if (!e.is_directory()) out.insert(e.path());
  }
  return out;
}

class FrontDoor : public ::testing::Test {
 protected:
  kc::testing::TempCacheRoot root;
  std::string storage = root.path() + "/served";

  // A server with `args`, and users "ana" and "bob" of two organisations.
  void serve(std::vector<std::string> args) {
    server = std::make_unique<ServerProcess>(
        kc::testing::ServerOptions{.storage_dir = storage, .extra_args = std::move(args)});
    ana = kc::testing::user_with_token(storage, "ana");
    bob = kc::testing::user_with_token(storage, "bob", "elsewhere");
  }
  RawAnswer call(const std::string& operation, const Value& args, const std::string& token) {
    RawConnection http(server->port());
    return http.request("POST", "/api/v1/" + operation, args.dump(), token);
  }
  bool logged(const std::string& text) {
    return wait_until([&] { return server->log().find(text) != std::string::npos; }, 10s);
  }

  std::unique_ptr<ServerProcess> server;
  std::string ana, bob;
};

TEST_F(FrontDoor, RequestsWithoutARouteOrATokenAreAnsweredFromTheHeadersAlone) {
  serve({});
  long before = 0;
  struct Case {
    std::string method, path, token;
    int status;
  };
  const Case cases[] = {{"POST", "/nope", "", 404},
                        {"PATCH", "/api/v1/device/get_group_detail", ana, 404},
                        {"POST", "/api/v1/devise/get_group_detail", ana, 404},
                        {"POST", "/api/v1/device/get_group_detail", "", 401},
                        {"PUT", "/api/v1/objects?name=x", "kvt_" + std::string(64, '0'), 401}};
  // Rounds of 512 MiB bodies announced in parallel: each is answered before a byte of it is
  // sent, and the connection is closed however much the client then pushes. The memory is
  // measured after a first round, which brings the server's threads and buffers to life.
  for (int round = 0; round < 4; ++round) {
    if (round == 1) before = rss_kib(server->pid());
    std::vector<std::thread> clients;
    for (const Case& c : cases) {
      clients.emplace_back([&] {
        RawConnection http(server->port());
        http.send(RawConnection::head(c.method, c.path, c.token, "application/json", 512 << 20));
        const RawAnswer a = http.read_answer(10s);
        EXPECT_EQ(a.status, c.status) << c.method << " " << c.path << ": " << a.body;
        const std::string mib(1 << 20, 'x');
        for (int i = 0; i < 64 && http.send(mib); ++i) {
        }
        EXPECT_TRUE(http.closed_within(10s)) << c.path;
      });
    }
    for (std::thread& t : clients) t.join();
  }
  // (A server that read the bodies would hold hundreds of MiB.)
  EXPECT_LT(rss_kib(server->pid()) - before, 16 * 1024) << "KiB more than after the first round";
  const Value list = {{"page", 1}, {"per_page", 10}, {"org_id", nullptr}, {"show_hidden", nullptr}};
  EXPECT_EQ(call("device/get_group_list", list, ana).status, 200);
}

TEST_F(FrontDoor, AThousandSlowConnectionsNeitherStopOthersNorHoldOffAStop) {
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  serve({"--max-connections-per-address", "100"});
  // 1,000 connections from ten addresses, each with half a header sent.
  std::vector<std::unique_ptr<RawConnection>> slow;
  for (int i = 0; i < 1000; ++i) {
    slow.push_back(
        std::make_unique<RawConnection>(server->port(), "127.0.0." + std::to_string(10 + i / 100)));
    ASSERT_TRUE(slow.back()->connected()) << i;
    slow.back()->send("GET /health HTTP/1.1\r\nHost: x\r\n");
  }
  // One more from a full address is refused at once; everyone else is served.
  RawConnection over(server->port(), "127.0.0.10");
  EXPECT_EQ(over.read_answer(10s).status, 503);
  RawConnection http(server->port());
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(http.request("GET", "/api/v1/service", "", ana).status, 200) << i;
  }

  // SIGTERM while an upload is half way: it is still answered, and the server ends in time
  // however many connections stay open.
  std::atomic<bool> half_way{false};
  RawAnswer uploaded;
  std::thread upload([&] {
    RawConnection put(server->port());
    put.send(RawConnection::head("PUT", "/api/v1/objects?name=late", ana,
                                 "application/octet-stream", 1 << 20));
    const std::string piece(64 << 10, 'u');
    for (int i = 0; i < 16; ++i) {
      put.send(piece);
      if (i == 3) half_way = true;
      // A client sending at its own pace: the server measures rates in real time, in
      // another process, so no fake clock can stand in for it.
      std::this_thread::sleep_for(50ms);
    }
    uploaded = put.read_answer(10s);
  });
  ASSERT_TRUE(wait_until([&] { return half_way.load(); }, 30s));
  const auto stop = std::chrono::steady_clock::now();
  server->kill(SIGTERM);
  upload.join();
  EXPECT_EQ(uploaded.status, 200) << uploaded.body;
  EXPECT_EQ(server->wait(5s), 0) << server->log();
  EXPECT_LT(std::chrono::steady_clock::now() - stop, 6s);
}

TEST_F(FrontDoor, LargeBodiesAreSharedFairlyAndTooSlowASenderLosesItsSlot) {
  serve({"--object-slots", "2", "--body-timeout", "1", "--min-body-rate", "2000"});
  // Ana sends two large uploads at a steady pace: one holds a slot, the other waits, as it
  // would take her past her half of the slots.
  std::atomic<bool> stall{false};
  std::atomic<int> sent{0};
  RawAnswer anas[2];
  std::vector<std::thread> uploads;
  for (RawAnswer& answer : anas) {
    uploads.emplace_back([&] {
      RawConnection put(server->port());
      put.send(RawConnection::head("PUT", "/api/v1/objects?name=a", ana, "application/octet-stream",
                                   10 << 20));
      const std::string piece(4096, 'a');
      for (int i = 0; i < 2500 && !stall; ++i) {
        put.send(piece);
        ++sent;
        std::this_thread::sleep_for(20ms);  // 200 KB/s, well over the minimum
      }
      answer = put.read_answer(30s);  // then it stalls, and is cut off
    });
  }
  // Both of ana's uploads are under way before bob's.
  ASSERT_TRUE(wait_until([&] { return sent >= 20; }, 30s));
  // Bob, of another organisation, gets the other slot at once.
  RawConnection other(server->port());
  const RawAnswer bobs = other.request("PUT", "/api/v1/objects?name=b", std::string(200000, 'c'),
                                       bob, "application/octet-stream");
  EXPECT_EQ(bobs.status, 200) << bobs.body;
  // Ana's stalled uploads lose their slots (the waiting one once it had its turn); nothing of
  // them is kept, and her next upload goes through.
  stall = true;
  for (std::thread& t : uploads) t.join();
  for (const RawAnswer& a : anas) EXPECT_EQ(a.status, 408) << a.body;
  RawConnection next(server->port());
  EXPECT_EQ(next.request("PUT", "/api/v1/objects?name=n", std::string(200000, 'n'), ana,
                         "application/octet-stream")
                .status,
            200);

  // A chunked body announced with a length is refused, not let past the slots.
  RawConnection chunked(server->port());
  chunked.send(
      "PUT /api/v1/objects?name=c HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + bob +
      "\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n");
  EXPECT_EQ(chunked.read_answer(10s).status, 400);
}

TEST_F(FrontDoor, ABodyThatDidNotArriveWholeIsNeverCarriedOut) {
  serve({"--header-timeout", "1", "--body-timeout", "1", "--min-body-rate", "2000"});
  const Value lab = {
      {"device_group_name", "lab"}, {"description", ""}, {"organization_id", nullptr}};
  ASSERT_EQ(call("device/create_group", lab, ana).status, 200);
  const std::set<std::string> stored = files_under(storage + "/objects");
  std::vector<RawAnswer> refusals;

  {  // 50,000 of 100,000 bytes, then the client is gone
    RawConnection put(server->port());
    put.send(RawConnection::head("PUT", "/api/v1/objects?name=cut", ana, "application/octet-stream",
                                 100000) +
             std::string(50000, 'x'));
  }
  ASSERT_TRUE(logged("PUT /api/v1/objects 400"));
  {  // 50,000 of 100,000 bytes, then silence
    RawConnection put(server->port());
    put.send(RawConnection::head("PUT", "/api/v1/objects?name=stall", ana,
                                 "application/octet-stream", 100000) +
             std::string(50000, 'x'));
    refusals.push_back(put.read_answer(10s));
    EXPECT_EQ(refusals.back().status, 408) << refusals.back().body;
    EXPECT_TRUE(put.closed_within(10s));
  }
  {  // create_space with a longer Content-Length than its body
    const std::string body =
        Value{{"group_name", "lab"}, {"space_name", "half"}, {"description", ""}}.dump();
    RawConnection post(server->port());
    post.send(RawConnection::head("POST", "/api/v1/space/create_space", ana, "application/json",
                                  static_cast<std::int64_t>(body.size()) + 100000) +
              body);
    refusals.push_back(post.read_answer(10s));
    EXPECT_EQ(refusals.back().status, 408) << refusals.back().body;
  }
  {  // broken chunking
    RawConnection put(server->port());
    put.send("PUT /api/v1/objects?name=chunks HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + ana +
             "\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nzz\r\nxx\r\n");
    refusals.push_back(put.read_answer(10s));
    EXPECT_EQ(refusals.back().status, 400) << refusals.back().body;
  }
  {  // a header sent a byte at a time
    RawConnection slow(server->port());
    const std::string head = RawConnection::head("GET", "/api/v1/service", ana);
    RawAnswer a;
    for (std::size_t i = 0; i < head.size() && a.status == 0; ++i) {
      slow.send(head.substr(i, 1));
      a = slow.read_answer(100ms);  // a client at its own pace
    }
    EXPECT_EQ(a.status, 408) << a.body;
    refusals.push_back(a);
  }
  const Value spaces = call("space/list_space", {{"group_name", "lab"}}, ana).json();
  for (const Value& s : spaces["list"]) EXPECT_NE(s["space_name"], "half");
  EXPECT_EQ(files_under(storage + "/objects"), stored);

  // A directory is no object; a malformed request after ana's is logged as nobody's; no
  // answer shows where the store lies.
  RawConnection http(server->port());
  const std::string object =
      http.request("PUT", "/api/v1/objects?name=x", "data", ana, "application/octet-stream")
          .json()["object"];
  refusals.push_back(http.request("GET", "/api/v1/objects/org-1/" + object.substr(0, 2), "", ana));
  EXPECT_EQ(refusals.back().status, 404);
  refusals.push_back(http.request("GET", "/api/v1/objects/org-1/" + object + ".gone", "", ana));
  EXPECT_EQ(refusals.back().status, 404);
  http.send("BROKEN\r\n\r\n");
  EXPECT_EQ(http.read_answer(10s).status, 400);
  EXPECT_TRUE(logged("Z - - 400 ")) << server->log();
  for (const RawAnswer& r : refusals) {
    EXPECT_EQ(r.body.find(storage), std::string::npos) << r.body;
  }
}

TEST_F(FrontDoor, HttpsServesAClientThatTrustsItsCertificate) {
  const kc::testing::TestCertificate tls = kc::testing::make_test_certificate(root.path());
  if (!tls.error.empty()) GTEST_SKIP() << tls.error;
  serve({"--tls-cert", tls.cert, "--tls-key", tls.key});
  ASSERT_EQ(server->url().rfind("https://", 0), 0u) << server->url();
  kc::testing::ScopedEnvironment environment({{"KORVALIN_CA_FILE", tls.ca}});
  const auto backend = std::make_shared<kc::com::HttpBackend>(server->url(), ana);
  kc::testing::ScopedBackend<kc::com::HttpBackend> installed(backend);
  kc::com::device::create_group("lab", "over TLS", nullptr);
  EXPECT_EQ(kc::com::device::get_group_detail("lab")["description"], "over TLS");
  // Plain HTTP to the TLS port is no request.
  RawConnection plain(server->port());
  EXPECT_EQ(plain.request("GET", "/health").status, 0);
}

}  // namespace
