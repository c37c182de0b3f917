// The service an end-to-end scenario runs against, installed as the client's backend for the
// life of the object: the embedded one in this process, or a real `korvalin serve` process
// reached over HTTP as a user with a token.
#pragma once

#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "korvalin_client/com/http_backend.hpp"
#include "korvalin_client/service/embedded_backend.hpp"
#include "korvalin_client/service/executor.hpp"
#include "support/child_process.hpp"
#include "support/server_process.hpp"
#include "support/testing.hpp"

namespace korvalin_client::testing {

enum class Via { embedded, server };
inline std::string to_string(Via via) { return via == Via::embedded ? "embedded" : "server"; }

class ServiceUnderTest {
 public:
  static std::unique_ptr<ServiceUnderTest> make(Via via, const TempCacheRoot& root);
  virtual ~ServiceUnderTest() = default;

  // The service's identity, under which the client keeps its cache.
  virtual std::string identity() = 0;
  // Waits until `condition()` holds while the device works: false if it never did.
  virtual bool wait_for(const std::function<bool()>& condition) = 0;
  // Grants or revokes a right of the client's user on a group, as an administrator would.
  virtual void set_right(const std::string& group, const std::string& access, bool granted) = 0;
  // Lets the service's clock reach its next whole second (parameter versions are per second).
  virtual void let_a_second_pass() = 0;
};

// The embedded service, its device's worker and the test on one LockstepEnv clock.
class EmbeddedService final : public ServiceUnderTest {
 public:
  EmbeddedService() {
    executor_.start();
    EXPECT_TRUE(env_.await_worker());
  }
  ~EmbeddedService() override {
    env_.leave();  // the worker runs on alone until it stops
    executor_.stop();
  }
  std::string identity() override { return engine_->service_identity(); }
  bool wait_for(const std::function<bool()>& condition) override {
    for (int i = 0; i < 100000; ++i) {
      if (condition()) return true;
      env().sleep(0.05);  // the worker runs meanwhile
    }
    return false;
  }
  void set_right(const std::string& group, const std::string& access, bool granted) override {
    engine_->set_right(group, access, granted);
  }
  void let_a_second_pass() override { env_.advance(5); }

 private:
  ScopedLockstepEnv env_;
  std::shared_ptr<service::Engine> engine_ = std::make_shared<service::Engine>();
  service::Executor executor_{engine_, {.items_per_piece = 10, .piece_interval = 0.2}};
  ScopedBackend<service::EmbeddedBackend> backend_{
      std::make_shared<service::EmbeddedBackend>(engine_)};
};

// A `korvalin serve` process on a free loopback port, its own storage directory under the
// test's root, a user "tester" with a token, and an HttpBackend as that user.
class ServedService final : public ServiceUnderTest {
 public:
  explicit ServedService(const TempCacheRoot& root)
      : storage_(root.path() + "/served"),
        server_(ServerOptions{.storage_dir = storage_,
                              .extra_args = {"--items-per-piece", "10", "--piece-interval",
                                             "0.05"}}),
        backend_(std::make_shared<com::HttpBackend>(server_.url(),
                                                    user_with_token(storage_, "tester"))) {}

  std::string identity() override { return backend_->service_identity(); }
  bool wait_for(const std::function<bool()>& condition) override {
    return wait_until(condition, std::chrono::seconds(120));
  }
  void set_right(const std::string& group, const std::string& access, bool granted) override {
    admin({"right", granted ? "grant" : "revoke", "tester", group, access});
  }
  void let_a_second_pass() override {
    const std::time_t now = std::time(nullptr);
    EXPECT_TRUE(wait_until([&] { return std::time(nullptr) > now; }, std::chrono::seconds(5)));
  }

  ServerProcess& server() { return server_; }

 private:
  void admin(std::vector<std::string> args) { korvalin_admin(storage_, std::move(args)); }

  std::string storage_;
  ServerProcess server_;
  ScopedBackend<com::HttpBackend> backend_;
};

inline std::unique_ptr<ServiceUnderTest> ServiceUnderTest::make(Via via,
                                                                const TempCacheRoot& root) {
  if (via == Via::embedded) return std::make_unique<EmbeddedService>();
  return std::make_unique<ServedService>(root);
}

}  // namespace korvalin_client::testing
