// CloudGroup end to end, each scenario both ways: on the embedded service (the engine, its
// stores and the simulated device's worker thread in this process, every pause of both sides
// on one LockstepEnv clock, so a run takes no real time and goes the same way every time), and
// on a real `korvalin serve` process reached over HTTP, with the real clock.
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "e2e/service_under_test.hpp"
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/space.hpp"
#include "korvalin_client/com/sub_process.hpp"

using kc::experiment::Result;
using kc::testing::ServiceUnderTest;
using kc::testing::Via;

namespace {

class EndToEnd : public ::testing::TestWithParam<Via> {
 protected:
  void SetUp() override {
    service_ = ServiceUnderTest::make(GetParam(), root_);
    CloudGroup::create_group("lab", "end-to-end tests", 1);
    group_ = std::make_unique<CloudGroup>("lab", "origin");
  }
  void TearDown() override {
    group_.reset();
    service_.reset();
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
  void wait_for_status(std::int64_t exp_id, const std::string& status) {
    ASSERT_TRUE(service_->wait_for([&] { return status_of(exp_id) == status; }))
        << exp_id << " is " << status_of(exp_id);
  }

  kc::testing::TempCacheRoot root_;
  std::unique_ptr<ServiceUnderTest> service_;
  std::unique_ptr<CloudGroup> group_;
};

INSTANTIATE_TEST_SUITE_P(BothWays, EndToEnd, ::testing::Values(Via::embedded, Via::server),
                         [](const auto& info) { return kc::testing::to_string(info.param); });

TEST_P(EndToEnd, ALiveRunIsPulledWhileTheDeviceMeasures) {
  const std::int64_t exp_id = submit(95);
  std::vector<std::size_t> sizes;
  bool finished = false;
  const Result r =
      group_->pull_result(exp_id, true, [&](const Result& partial, bool done, const Value&) {
        sizes.push_back(partial.size());
        finished = done;
      });
  EXPECT_EQ(r.size(), 95u);
  EXPECT_EQ(r.item_id_start(), 0);
  // The swept values come with the measured ones, so the result is plottable on its own.
  EXPECT_THAT(r.keys(), ::testing::ElementsAre("/q0/drive/amp", "I", "Q"));
  const auto amps = r["/q0/drive/amp"].to_vector<double>();
  for (std::size_t i = 0; i < amps.size(); ++i) ASSERT_EQ(amps[i], 0.01 * static_cast<double>(i));
  EXPECT_TRUE(finished);
  EXPECT_TRUE(std::is_sorted(sizes.begin(), sizes.end()));

  // The pull ended at the final piece, perhaps before the device set its final status; a
  // second pull (from the live pieces or the merged result) gives the same values.
  const Result again = group_->pull_result(exp_id);
  EXPECT_EQ(again["I"].to_vector<double>(), r["I"].to_vector<double>());
  // Kept in the cache of this service alone.
  EXPECT_TRUE(std::filesystem::is_directory(root_.cache_root() + "/services/" +
                                            service_->identity() + "/lab/exp"));
}

// Runs arrive whole whatever their layout, and a failed or restarted run delivers what it
// measured last.
TEST_P(EndToEnd, LegacyDelayedFailedAndRestartedRunsArriveAsMeasured) {
  // A legacy layout is how older, finished experiments are stored: the run ends first. (Pulled
  // live, the loop classifies each poll's new records alone, and a final piece with its own
  // resource would look like a merged result.)
  const std::int64_t legacy = submit(35, {{"legacy_layout", true}});
  wait_for_status(legacy, "complete");
  EXPECT_EQ(group_->pull_result(legacy).size(), 35u);

  const std::int64_t delayed = submit(35, {{"merge_delay", 20}});
  const std::int64_t failing =
      submit(60, {{"fail_at_item", 25}, {"fail_message", "amplifier tripped"}});
  const std::int64_t restarted = submit(40, {{"restart_at_item", 20}});
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

// Another group's small run ends while a big one runs; the big one, terminated, keeps its items.
TEST_P(EndToEnd, ASmallRunOfAnotherGroupEndsBesideABigOneThatIsThenTerminated) {
  const std::int64_t exp_id = submit(2000);
  ASSERT_TRUE(service_->wait_for([&] {
    return !kc::com::sub_process::get_sub_process_result(exp_id, 0, nullptr).empty();
  }));
  CloudGroup::create_group("lab-b", "end-to-end tests", 1);
  CloudGroup other("lab-b", "origin");
  auto small = other.create_exp("scan", "");
  small.sweep("/q0/drive/amp", {0.1, 0.2}).measure_quantity("I");
  const std::int64_t small_id = other.submit_exp(small).get<std::int64_t>();
  wait_for_status(small_id, "complete");
  EXPECT_EQ(other.pull_result(small_id).size(), 2u);
  // Stopped while the device goes on measuring.
  EXPECT_EQ(status_of(exp_id), "running");
  group_->terminate_exp(exp_id);
  wait_for_status(exp_id, "canceled");
  const Result r = group_->pull_result(exp_id);
  EXPECT_GT(r.size(), 0u);
  EXPECT_LT(r.size(), 2000u);
}

TEST_P(EndToEnd, RightsAreRealData) {
  service_->set_right("lab", "WRITE", false);
  auto exp = group_->create_exp("scan", "");
  exp.sweep("/q0/drive/amp", {0.1}).measure_quantity("I");
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group_->submit_exp(exp); }), "Permission denied.");
  // The service refuses the write itself, whoever asks.
  EXPECT_THAT(error_of<kc::PermissionError>([&] {
                kc::com::space::add_parameter(*group_->space_id, Value::array({"/a"}),
                                              Value::array({"1"}), Value::array({"int"}));
              }),
              HasSubstr("WRITE"));
  service_->set_right("lab", "READ", false);
  EXPECT_THROW(group_->search_space_parameters("freq"), kc::Error);
}

// Two group objects on one space share its parameters and its experiments, filed in folders.
TEST_P(EndToEnd, TwoGroupObjectsShareTheSpacesParametersAndExperiments) {
  EXPECT_EQ(kc::com::connection_manager::get_connection_type(),
            GetParam() == Via::server ? "http" : "embedded");
  group_->set_space_parameter("/q0/drive/freq", 5.2e9);
  group_->set_space_parameter("q1/drive/name", "drive");
  group_->submit_space_parameter();
  service_->let_a_second_pass();
  CloudGroup other("lab", "origin");
  EXPECT_EQ(other.get_space_parameter("/q0/drive/freq"), 5.2e9);
  EXPECT_EQ(other.get_space_parameter("/q1/drive/name"), "drive");

  service_->let_a_second_pass();
  group_->set_space_parameter("/q0/drive/freq", 6.25e9);
  group_->submit_space_parameter();
  EXPECT_EQ(other.download_space_parameter(), std::vector<std::string>{"/q0/drive/freq"});
  EXPECT_EQ(other.get_space_parameter("/q0/drive/freq"), 6.25e9);
  service_->let_a_second_pass();
  other.remove_space_parameter("/q1/drive/name");
  group_->download_space_parameter();
  EXPECT_FALSE(group_->space_parameters.contains("/q1/drive/name"));
  EXPECT_EQ(group_->get_space_parameter("/q0/drive/freq"), 6.25e9);

  auto exp = group_->create_exp("Rabi", "amplitude sweep");
  exp.sweep("/q0/amp", {0.1, 0.2}).measure_quantity("I");
  const Value exp_id = group_->submit_exp(exp, {.exp_folder_path = "a/b"});
  const auto [copy, detail, space] = other.get_experiment_detail(exp_id.get<std::int64_t>());
  EXPECT_EQ(copy, exp);
  EXPECT_EQ(space["space_name"], "origin");
  const Value b = group_->create_exp_folder(*group_->space_id, "a/b");
  EXPECT_EQ(detail["exp_folder_id"], b["exp_folder_id"]);
  EXPECT_EQ(CloudGroup::list_exps_by_folder(
                *group_->space_id, b["exp_folder_id"].get<std::int64_t>())["list"][0]["exp_id"],
            exp_id);
}

// Two stores, one client: each service's experiments and parameters stay its own in the cache.
TEST(TwoServices, EachKeepsItsOwnCache) {
  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv env;
  auto first = std::make_shared<kc::service::Engine>(root.path() + "/first");
  auto second = std::make_shared<kc::service::Engine>(root.path() + "/second");
  ASSERT_NE(first->service_identity(), second->service_identity());
  kc::testing::ScopedBackend<kc::service::EmbeddedBackend> backend(
      std::make_shared<kc::service::EmbeddedBackend>(first));
  const auto run = [](const std::shared_ptr<kc::service::Engine>& engine, int points) {
    CloudGroup::create_group("lab", "", 1);
    CloudGroup group("lab", "origin");
    auto exp = group.create_exp("scan", "");
    std::vector<Value> amps(points, Value(0.1));
    exp.sweep("/q0/drive/amp", amps).measure_quantity("I");
    const std::int64_t id = group.submit_exp(exp).get<std::int64_t>();
    EXPECT_TRUE(kc::service::Executor(engine, {.items_per_piece = 10}).run_once());
    EXPECT_EQ(group.pull_result(id).size(), static_cast<std::size_t>(points));
    return id;
  };
  const std::int64_t in_first = run(first, 5);
  {
    CloudGroup group("lab", "origin");
    group.set_space_parameter("/q0/only_here", 1.0);
    group.submit_space_parameter();
  }

  // The other store's experiment 1 and its parameters are its own, whatever this client cached.
  kc::com::connection_manager::set_backend(std::make_shared<kc::service::EmbeddedBackend>(second));
  EXPECT_EQ(run(second, 7), in_first);
  EXPECT_FALSE(CloudGroup("lab", "origin").space_parameters.contains("/q0/only_here"));

  // Back to the first service: its cache is intact, beside the other's.
  kc::com::connection_manager::set_backend(std::make_shared<kc::service::EmbeddedBackend>(first));
  EXPECT_EQ(CloudGroup("lab", "origin").pull_result(in_first).size(), 5u);
  EXPECT_TRUE(CloudGroup("lab", "origin").space_parameters.contains("/q0/only_here"));
  for (const auto& service : {first->service_identity(), second->service_identity()}) {
    EXPECT_TRUE(std::filesystem::exists(root.cache_root() + "/services/" + service +
                                        "/lab/exp/20231114/1/complete_1.kvres"));
  }
  EXPECT_FALSE(std::filesystem::exists(root.cache_root() + "/lab"));
}

// The real clock, and a hook run before each of the library's pauses.
class HookedEnv : public kc::Env {
 public:
  std::function<void(double)> hook;
  double now() override { return kc::Env::Default().now(); }
  void sleep(double seconds) override {
    // A hook may clear itself: it runs from a copy of its own.
    if (const auto run = hook) run(seconds);
    kc::Env::Default().sleep(seconds);
  }
  void print(const std::string&) override {}
  void print_error(const std::string&) override {}
};

// A live pull of a run on a server, then its complete file: the bytes of that file.
std::string pull_complete_file(kc::testing::ServedService& service, HookedEnv& env,
                               const std::function<void()>& on_first_items) {
  CloudGroup::create_group("lab", "", 1);
  CloudGroup group("lab", "origin");
  auto exp = group.create_exp("scan", "");
  std::vector<Value> amps;
  for (int i = 0; i < 300; ++i) amps.emplace_back(0.003 * i);
  exp.sweep("/q0/drive/amp", amps).measure_quantity("I").measure_quantity("Q");
  const std::int64_t exp_id = group.submit_exp(exp).get<std::int64_t>();
  bool first = true;
  const Result live = group.pull_result(exp_id, true, [&](const Result& r, bool, const Value&) {
    if (first && r.size() > 0) {
      first = false;
      on_first_items();
    }
  });
  EXPECT_EQ(live.size(), 300u);
  EXPECT_TRUE(service.wait_for([&] {
    return kc::to_text(CloudGroup::get_experiment(exp_id)["status"]) == "complete";
  }));
  env.hook = nullptr;
  EXPECT_EQ(group.pull_result(exp_id).size(), 300u);
  const Value detail = CloudGroup::get_experiment(exp_id);
  const std::string file = group.create_result_cache_dir(detail["create_time"], exp_id) +
                           "/complete_" + std::to_string(exp_id) + ".kvres";
  std::ifstream in(file, std::ios::binary);
  EXPECT_TRUE(in.good()) << file;
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The server is killed in the middle of a live pull and started again: the pull goes on and
// completes, and the result is the one an undisturbed server gives for the same experiment.
TEST(ServerKilled, MidLivePullThePullCompletesWithTheSameResult) {
  kc::testing::TempCacheRoot root;
  kc::testing::Scoped<HookedEnv> env;
  std::string undisturbed;
  {
    kc::testing::ServedService service(root);
    undisturbed = pull_complete_file(service, env, [] {});
  }
  kc::testing::TempCacheRoot other;
  kc::testing::ServedService service(other);
  int restarts = 0;
  const std::string disturbed = pull_complete_file(service, env, [&] {
    service.server().kill(SIGKILL);
    // The client's next pause is its retry of a call the dead server did not answer.
    env.hook = [&](double) {
      env.hook = nullptr;
      service.server().restart();
      ++restarts;
    };
  });
  EXPECT_EQ(restarts, 1);
  EXPECT_FALSE(disturbed.empty());
  EXPECT_TRUE(disturbed == undisturbed) << disturbed.size() << " bytes against " << undisturbed.size();
  EXPECT_THAT(CloudGroup::get_experiment_msg(1).dump(), HasSubstr("restarted"));
}

// SIGTERM: the server stops cleanly, and the run it paused at a piece boundary goes on from
// there when it starts again, rather than from item 0.
TEST(ServerStopped, ARunPausedBySigtermResumesWhereItStopped) {
  kc::testing::TempCacheRoot root;
  kc::testing::Scoped<HookedEnv> env;
  kc::testing::ServedService service(root);
  CloudGroup::create_group("lab", "", 1);
  CloudGroup group("lab", "origin");
  auto exp = group.create_exp("scan", "");
  std::vector<Value> amps(400, Value(0.5));
  exp.sweep("/q0/drive/amp", amps).measure_quantity("I");
  const std::int64_t exp_id = group.submit_exp(exp).get<std::int64_t>();
  ASSERT_TRUE(service.wait_for([&] {
    return !kc::com::sub_process::get_sub_process_result(exp_id, 0, nullptr).empty();
  }));
  EXPECT_EQ(service.server().stop(), 0);
  service.server().restart();
  EXPECT_EQ(group.pull_result(exp_id).size(), 400u);
  const std::string messages = CloudGroup::get_experiment_msg(exp_id).dump();
  EXPECT_THAT(messages, HasSubstr("resum"));
  EXPECT_THAT(messages, ::testing::Not(HasSubstr("runs from item 0")));
}

}  // namespace
