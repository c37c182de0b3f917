// Several programs on one store, as real processes: each runs the korvalin demo (a client with
// the embedded service and its executor) on the same storage directory. Exactly one of them
// owns the store and runs experiments; when it dies, another takes over.
#include <signal.h>

#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/service/executor_lease.hpp"
#include "support/child_process.hpp"
#include "support/testing.hpp"

using kc::testing::ChildProcess;
using std::chrono::seconds;

namespace {

class SharedStore : public ::testing::Test {
 protected:
  std::unique_ptr<ChildProcess> demo(int points, const std::string& name) {
    // It inherits the cache and storage roots of root_.
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{KORVALIN_PROGRAM, "demo", "--yes", "--points", std::to_string(points)},
        root_.path() + "/" + name + ".out");
  }

  // The store as a client sees it; opened once the first program made it.
  kc::service::Engine& engine() {
    if (!engine_) engine_ = std::make_unique<kc::service::Engine>(root_.storage_root());
    return *engine_;
  }
  std::string status(std::int64_t id) {
    return engine().get_sub_process_detail(id)["status"].get<std::string>();
  }
  std::int64_t done(std::int64_t id) {
    const Value progress =
        Value::parse(engine().get_sub_process_detail(id)["progress"].get<std::string>());
    return progress.value("done", std::int64_t{0});
  }
  int count_messages(std::int64_t id, const std::string& needle) {
    int n = 0;
    for (const Value& m : engine().get_sub_process_msg(id)) {
      if (m["message"].get<std::string>().find(needle) != std::string::npos) ++n;
    }
    return n;
  }
  // The merged result of a finished experiment.
  kc::experiment::Result merged(std::int64_t id) {
    const Value pieces = engine().get_sub_process_result(id, 0, nullptr);
    const Value info = engine().get_resource_info(pieces.at(0)["resource_id"]);
    return kc::experiment::Result::from_bytes(
        engine().get_minio_client(1)->download(info["list"][0]));
  }
  bool exists(std::int64_t id) {
    try {
      engine().get_sub_process_detail(id);
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }

  kc::testing::TempCacheRoot root_;
  std::unique_ptr<kc::service::Engine> engine_;
};

TEST_F(SharedStore, ProgramsStartedTogetherRunEveryExperimentOnceAndWhole) {
  std::vector<std::unique_ptr<ChildProcess>> programs;
  for (int k = 0; k < 4; ++k) programs.push_back(demo(300, "demo" + std::to_string(k)));
  for (auto& p : programs) {
    ASSERT_EQ(p->wait(seconds(180)), 0) << p->output();
    EXPECT_NE(p->output().find("Result: 300 items (ids 0 to 299)"), std::string::npos)
        << p->output();
  }
  for (std::int64_t id = 1; id <= 4; ++id) {
    EXPECT_EQ(status(id), "complete");
    EXPECT_EQ(count_messages(id, "running on the simulated device"), 1) << id;
    const auto r = merged(id);
    EXPECT_EQ(r.size(), 300u);
    EXPECT_EQ(r.item_id_start(), 0);
    EXPECT_EQ(r.item_id_end(), 299);
  }
}

TEST_F(SharedStore, AKilledOwnersRunIsTakenOverAndFinished) {
  auto owner = demo(1500, "owner");
  ASSERT_TRUE(kc::testing::wait_until([&] { return exists(1) && done(1) >= 100; }, seconds(120)))
      << owner->output();
  kc::service::ExecutorLease lease(root_.storage_root());
  EXPECT_EQ(lease.holder().rfind("pid " + std::to_string(owner->pid()) + " ", 0), 0u);

  // A second program is a client only: its experiment waits, the owner's run goes on.
  auto second = demo(50, "second");
  ASSERT_TRUE(kc::testing::wait_until([&] { return exists(2); }, seconds(120))) << second->output();
  const std::int64_t before = done(1);
  ASSERT_TRUE(kc::testing::wait_until([&] { return done(1) > before; }, seconds(60)));
  EXPECT_EQ(status(2), "queued");
  EXPECT_EQ(count_messages(1, "restarted"), 0);

  owner->kill(SIGKILL);
  ASSERT_EQ(owner->wait(seconds(30)), 128 + SIGKILL);
  ASSERT_EQ(second->wait(seconds(180)), 0) << second->output();
  EXPECT_NE(second->output().find("Result: 50 items"), std::string::npos) << second->output();

  EXPECT_EQ(status(1), "complete");
  EXPECT_EQ(count_messages(1, "the service restarted"), 1);
  EXPECT_EQ(merged(1).size(), 1500u);
  EXPECT_TRUE(lease.try_acquire());  // the second program gave it up when it ended
}

}  // namespace
