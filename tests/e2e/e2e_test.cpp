// CloudGroup end to end on the embedded service: the engine, its store and object store, and
// the simulated device running in a background thread, with the client pulling live. A
// LockstepEnv drives every pause of both sides on one virtual clock, running one of them at a
// time, so a run takes no real time and goes the same way every time.
#include <algorithm>
#include <filesystem>

#include "korvalin_client/service/embedded_backend.hpp"
#include "korvalin_client/service/executor.hpp"
#include "support/testing.hpp"

using kc::experiment::Result;
using kc::service::EmbeddedBackend;

namespace {

class EndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    CloudGroup::create_group("lab", "end-to-end tests", 1);
    group_ = std::make_unique<CloudGroup>("lab", "origin");
  }
  void TearDown() override {
    env_.leave();  // the worker runs on alone until it stops
    executor_.stop();
    group_.reset();
  }

  // Starts the device's worker thread; from then on it and the test share the clock.
  void start() {
    executor_.start();
    ASSERT_TRUE(env_.await_worker());
  }

  // A scan of `points` amplitudes measuring I and Q, with test options for the device.
  std::int64_t submit(std::int64_t points, Value options = Value::object()) {
    auto exp = group_->create_exp("scan", "end-to-end");
    std::vector<Value> amps;
    for (std::int64_t i = 0; i < points; ++i) amps.emplace_back(0.01 * static_cast<double>(i));
    exp.sweep("/q0/drive/amp", amps).measure_quantity("I").measure_quantity("Q");
    exp.options = std::move(options);
    return group_->submit_exp(exp, {.exp_folder_path = "tests/e2e"}).get<std::int64_t>();
  }

  std::string status_of(std::int64_t exp_id) {
    return kc::to_text(CloudGroup::get_experiment(exp_id)["status"]);
  }

  kc::testing::TempCacheRoot root_;
  kc::testing::ScopedLockstepEnv env_;
  std::shared_ptr<kc::service::Engine> engine_ = std::make_shared<kc::service::Engine>();
  kc::service::Executor executor_{engine_, {.items_per_piece = 10, .piece_interval = 0.2}};
  kc::testing::ScopedBackend<EmbeddedBackend> backend_{std::make_shared<EmbeddedBackend>(engine_)};
  std::unique_ptr<CloudGroup> group_;
};

TEST_F(EndToEnd, ALiveRunIsPulledWhileTheDeviceMeasures) {
  const std::int64_t exp_id = submit(95);
  start();
  std::vector<std::size_t> sizes;
  bool finished = false;
  const Result r =
      group_->pull_result(exp_id, true, [&](const Result& partial, bool done, const Value&) {
        sizes.push_back(partial.size());
        finished = done;
      });
  EXPECT_EQ(r.size(), 95u);
  EXPECT_EQ(r.item_id_start(), 0);
  EXPECT_THAT(r.keys(), ::testing::ElementsAre("I", "Q"));
  EXPECT_TRUE(finished);
  EXPECT_TRUE(std::is_sorted(sizes.begin(), sizes.end()));

  // The pull ended at the final piece, perhaps before the device set its final status; a
  // second pull (from the live pieces or the merged result) gives the same values.
  const Result again = group_->pull_result(exp_id);
  EXPECT_EQ(again["I"].to_vector<double>(), r["I"].to_vector<double>());
}

// Runs arrive whole whatever their layout, and a failed or restarted run delivers what it
// measured last.
TEST_F(EndToEnd, LegacyDelayedFailedAndRestartedRunsArriveAsMeasured) {
  // A legacy layout is how older, finished experiments are stored: the run ends first. (Pulled
  // live, the loop classifies each poll's new records alone, and a final piece with its own
  // resource would look like a merged result.)
  const std::int64_t legacy = submit(35, {{"legacy_layout", true}});
  EXPECT_TRUE(executor_.run_once());
  EXPECT_EQ(group_->pull_result(legacy).size(), 35u);

  const std::int64_t delayed = submit(35, {{"merge_delay", 20}});
  const std::int64_t failing =
      submit(60, {{"fail_at_item", 25}, {"fail_message", "amplifier tripped"}});
  const std::int64_t restarted = submit(40, {{"restart_at_item", 20}});
  start();
  EXPECT_EQ(group_->pull_result(delayed).size(), 35u);
  const Result r = group_->pull_result(failing);
  EXPECT_GT(r.size(), 0u);
  EXPECT_LE(r.size(), 25u);
  EXPECT_EQ(status_of(failing), "error");
  EXPECT_THAT(CloudGroup::get_experiment_msg(failing).dump(), HasSubstr("amplifier tripped"));
  const Result again = group_->pull_result(restarted);
  EXPECT_EQ(again.size(), 40u);
  EXPECT_EQ(again.item_id_start(), 0);
}

TEST_F(EndToEnd, ATerminatedRunStopsAndKeepsItsItems) {
  const std::int64_t exp_id = submit(200);
  // The run is stopped while it pauses after its first piece.
  bool terminated = false;
  env_.on_sleep([&](double) {
    if (!terminated) {
      terminated = true;
      CloudGroup::get_experiment(exp_id);  // the service answers while the device runs
      group_->terminate_exp(exp_id);
    }
  });
  EXPECT_TRUE(executor_.run_once());
  env_.on_sleep(nullptr);
  EXPECT_EQ(status_of(exp_id), "canceled");
  const Result r = group_->pull_result(exp_id);
  EXPECT_GT(r.size(), 0u);
  EXPECT_LT(r.size(), 200u);
}

TEST_F(EndToEnd, EachServiceKeepsItsOwnCache) {
  const std::int64_t first = submit(5);
  EXPECT_TRUE(executor_.run_once());
  EXPECT_EQ(group_->pull_result(first).size(), 5u);
  group_->set_space_parameter("/q0/only_here", 1.0);
  group_->submit_space_parameter();

  // Another store (as after the storage directory was removed): its experiment 1 and its
  // parameters are its own, whatever this client cached for the first.
  auto other = std::make_shared<kc::service::Engine>(root_.path() + "/other");
  EXPECT_NE(other->service_identity(), engine_->service_identity());
  kc::com::connection_manager::set_backend(std::make_shared<EmbeddedBackend>(other));
  CloudGroup::create_group("lab", "", 1);
  CloudGroup there("lab", "origin");
  EXPECT_FALSE(there.space_parameters.contains("/q0/only_here"));
  auto exp = there.create_exp("scan", "");
  exp.sweep("/q0/drive/amp", {0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7}).measure_quantity("I");
  const std::int64_t second = there.submit_exp(exp).get<std::int64_t>();
  EXPECT_EQ(second, first);
  EXPECT_TRUE(kc::service::Executor(other, {.items_per_piece = 10}).run_once());
  EXPECT_EQ(there.pull_result(second).size(), 7u);

  // Back to the first service: its cache is intact, beside the other's.
  kc::com::connection_manager::set_backend(std::make_shared<EmbeddedBackend>(engine_));
  EXPECT_EQ(group_->pull_result(first).size(), 5u);
  EXPECT_TRUE(CloudGroup("lab", "origin").space_parameters.contains("/q0/only_here"));
  for (const auto& service : {engine_->service_identity(), other->service_identity()}) {
    EXPECT_TRUE(std::filesystem::exists(root_.cache_root() + "/services/" + service +
                                        "/lab/exp/20231114/1/complete_1.kvres"));
  }
  EXPECT_FALSE(std::filesystem::exists(root_.cache_root() + "/lab"));
}

TEST_F(EndToEnd, RightsAreRealData) {
  engine_->set_right("lab", "WRITE", false);
  auto exp = group_->create_exp("scan", "");
  exp.sweep("/q0/drive/amp", {0.1}).measure_quantity("I");
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group_->submit_exp(exp); }), "Permission denied.");
  engine_->set_right("lab", "READ", false);
  EXPECT_THROW(group_->search_space_parameters("freq"), kc::RuntimeError);
}

// Two group objects on one space share its parameters and its experiments, filed in folders.
TEST_F(EndToEnd, TwoGroupObjectsShareTheSpacesParametersAndExperiments) {
  EXPECT_EQ(kc::com::connection_manager::get_connection_type(), "embedded");
  group_->set_space_parameter("/q0/drive/freq", 5.2e9);
  group_->set_space_parameter("q1/drive/name", "drive");
  group_->submit_space_parameter();
  env_.advance(5);
  CloudGroup other("lab", "origin");
  EXPECT_EQ(other.get_space_parameter("/q0/drive/freq"), 5.2e9);
  EXPECT_EQ(other.get_space_parameter("/q1/drive/name"), "drive");

  env_.advance(5);
  group_->set_space_parameter("/q0/drive/freq", 6.25e9);
  group_->submit_space_parameter();
  EXPECT_EQ(other.download_space_parameter(), std::vector<std::string>{"/q0/drive/freq"});
  EXPECT_EQ(other.get_space_parameter("/q0/drive/freq"), 6.25e9);
  env_.advance(5);
  other.remove_space_parameter("/q1/drive/name");
  group_->download_space_parameter();
  EXPECT_FALSE(group_->space_parameters.contains("/q1/drive/name"));
  EXPECT_EQ(group_->get_space_parameter("/q0/drive/freq"), 6.25e9);

  auto exp = group_->create_exp("Rabi", "amplitude sweep");
  exp.sweep("/q0/amp", {0.1, 0.2}).measure_quantity("I");
  const Value exp_id = group_->submit_exp(exp, {.exp_folder_path = "a/b"});
  const auto [copy, detail, space] = other.get_experiment_detail(exp_id.get<std::int64_t>());
  EXPECT_EQ(copy, exp);
  EXPECT_EQ(detail["status"], "queued");
  EXPECT_EQ(space["space_name"], "origin");
  const Value b = group_->create_exp_folder(*group_->space_id, "a/b");
  EXPECT_EQ(detail["exp_folder_id"], b["exp_folder_id"]);
  EXPECT_EQ(CloudGroup::list_exps_by_folder(
                *group_->space_id, b["exp_folder_id"].get<std::int64_t>())["list"][0]["exp_id"],
            exp_id);
}

}  // namespace
