// The embedded service's execution: runs through Engine + Executor on a FakeEnv (pieces,
// merged and legacy resources, the test options, cancellation, recovery, bad definitions,
// device-model plug-ins, the worker thread, failing writes), and one client pull over
// EmbeddedBackend.
#include "korvalin_client/service/executor.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>

#include "korvalin_client/plugin/plugin_register.hpp"
#include "korvalin_client/service/embedded_backend.hpp"
#include "korvalin_client/service/write_faults.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/testing.hpp"

using kc::experiment::Experiment;
using kc::experiment::Result;
using kc::service::Engine;
using kc::service::Executor;
using kc::service::ExecutorOptions;

namespace {

class ExecutorTest : public ::testing::Test {
 protected:
  ExecutorTest() {
    space = add_group("lab");
    engine->add_parameter(space, {"/q0/freq0", "/q0/pi_amp"}, {"5000000000.0", "0.5"},
                          {"float", "float"}, nullptr, nullptr, nullptr);
  }

  std::int64_t add_group(const std::string& name) {
    engine->create_group(name, "bench", 1);
    return spaces[name] = engine->create_space(name, "origin", "")["space_id"].get<std::int64_t>();
  }

  // 2 frequencies (on and far off resonance) x 2 amplitudes (0, a pi pulse) x 6 repetitions.
  static Experiment rabi(Value options = Value::object()) {
    Experiment exp("Rabi", "");
    exp.sweep("/q0/freq", {5.0e9, 6.0e9}).sweep("/q0/amp", {0.0, 0.5});
    exp.repetitions = 6;
    exp.measure_quantities({"I", "IQ"});
    exp.options = std::move(options);
    return exp;
  }
  std::int64_t submit_bytes(const kc::Bytes& data, const std::string& group = "lab",
                           const Value& priority = nullptr) {
    const Value loc = engine->get_minio_client(1)->upload("exp", data, "exp", "kvexp");
    const Value res = engine->add_resource("", "kvexp", loc.dump(), "exp", "SDK", nullptr);
    return engine
        ->create_sub_process(nullptr, group, spaces.at(group), "t", "", res["resource_id"], nullptr,
                             nullptr, nullptr, nullptr, priority)["sub_process_id"]
        .get<std::int64_t>();
  }
  std::int64_t submit(const Experiment& exp, const std::string& group = "lab",
                      const Value& priority = nullptr) {
    return submit_bytes(kc::utils::msgpack_dumps(exp.serialize()), group, priority);
  }
  Value pieces(std::int64_t id) { return engine->get_sub_process_result(id, 0, nullptr); }
  Value detail(std::int64_t id) { return engine->get_sub_process_detail(id); }
  std::string messages(std::int64_t id) {
    std::string all;
    for (const Value& m : engine->get_sub_process_msg(id)) {
      all += m["message_level"].get<std::string>() + ": " + m["message"].get<std::string>() + "\n";
    }
    return all;
  }
  // When the first message containing `needle` was written (whole seconds).
  std::int64_t when(std::int64_t id, const std::string& needle) {
    for (const Value& m : engine->get_sub_process_msg(id)) {
      if (m["message"].get<std::string>().find(needle) != std::string::npos) return m["timestamp"];
    }
    ADD_FAILURE() << "experiment " << id << " has no message \"" << needle << "\"";
    return 0;
  }
  Result resource_result(const Value& resource_id) {
    const Value info = engine->get_resource_info(resource_id);
    return Result::from_bytes(engine->get_minio_client(1)->download(info["list"][0]));
  }
  Result merged(std::int64_t id) {
    const Value list = pieces(id);
    for (const Value& p : list) EXPECT_EQ(p["resource_id"], list[0]["resource_id"]);
    return resource_result(list[0]["resource_id"]);
  }
  std::vector<std::pair<std::int64_t, std::int64_t>> ranges(std::int64_t id) {
    std::vector<std::pair<std::int64_t, std::int64_t>> out;
    for (const Value& p : pieces(id)) out.emplace_back(p["item_id_start"], p["item_id_end"]);
    return out;
  }

  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv clock;
  std::shared_ptr<Engine> engine = std::make_shared<Engine>();
  std::map<std::string, std::int64_t> spaces;  // by group
  std::int64_t space = 0;                      // of "lab"
  ExecutorOptions options{.items_per_piece = 10};
};

using Ranges = std::vector<std::pair<std::int64_t, std::int64_t>>;

TEST_F(ExecutorTest, ARunStoresPiecesMergesThemAndCompletes) {
  const std::int64_t id = submit(rabi());
  // A later change of the space must not reach an experiment submitted before it.
  clock.advance(10);
  engine->add_parameter(space, {"/q0/freq0"}, {"6000000000.0"}, {"float"}, nullptr, nullptr,
                        nullptr);
  Executor executor(engine, options);
  EXPECT_TRUE(executor.run_once());
  EXPECT_FALSE(executor.run_once());

  EXPECT_EQ(ranges(id), (Ranges{{0, 9}, {10, 19}, {20, 23}}));
  const Value list = pieces(id);
  EXPECT_EQ(list[0]["final_piece"], false);
  EXPECT_EQ(list[2]["final_piece"], true);
  EXPECT_EQ(clock.count_sleeps(0.2), 2);  // between pieces only
  EXPECT_EQ(detail(id)["status"], "complete");
  EXPECT_EQ(Value::parse(detail(id)["progress"].get<std::string>()),
            (Value{{"done", 24}, {"total", 24}}));
  EXPECT_THAT(messages(id), HasSubstr("complete: 24 items in 3 pieces"));

  const Result r = merged(id);
  ASSERT_EQ(r.size(), 24u);
  EXPECT_EQ(r["IQ"].dtype(), kc::experiment::DType::Complex128);
  // Repetition-major, last sweep fastest: (on, 0), (on, pi), (off, 0), (off, pi) ...; the
  // swept values come first, as columns of their own.
  EXPECT_THAT(r.keys(), ::testing::ElementsAre("/q0/freq", "/q0/amp", "I", "IQ"));
  const std::vector<double> i = r["I"].to_vector<double>();
  const std::vector<double> freq = r["/q0/freq"].to_vector<double>();
  const std::vector<double> amp = r["/q0/amp"].to_vector<double>();
  for (std::size_t k = 0; k < i.size(); ++k) {
    EXPECT_NEAR(i[k], k % 4 == 1 ? -1.0 : 1.0, 0.1) << "item " << k;
    EXPECT_EQ(freq[k], k % 4 < 2 ? 5.0e9 : 6.0e9) << "item " << k;
    EXPECT_EQ(amp[k], k % 2 == 0 ? 0.0 : 0.5) << "item " << k;
  }
}

// The device's test options (pieces in resources of their own, a failure, a restart) keep what
// was measured; a bad definition ends that experiment alone with an error.
TEST_F(ExecutorTest, TestOptionsKeepWhatWasMeasuredAndBadDefinitionsEndInAnError) {
  const std::int64_t legacy = submit(rabi({{"legacy_layout", true}}));
  const std::int64_t failing = submit(rabi({{"fail_at_item", 15}, {"fail_message", "laser off"}}));
  const std::int64_t restarted = submit(rabi({{"restart_at_item", 12}}));
  Experiment nothing = rabi();
  nothing.measure.clear();
  const std::int64_t garbage = submit_bytes(kc::Bytes{0xc1, 0x00});
  const std::int64_t invalid = submit(nothing);
  const std::int64_t bad_option = submit(rabi({{"legacy_layout", "yes"}}));
  const std::int64_t good = submit(rabi());
  Executor executor(engine, options);
  while (executor.run_once()) {
  }

  const Value list = pieces(legacy);
  ASSERT_EQ(list.size(), 3u);
  EXPECT_NE(list[0]["resource_id"], list[1]["resource_id"]);
  EXPECT_EQ(resource_result(list[1]["resource_id"]).item_ids().front(), 10);
  EXPECT_EQ(resource_result(list[2]["resource_id"]).size(), 4u);

  EXPECT_EQ(detail(failing)["status"], "error");
  EXPECT_THAT(messages(failing), HasSubstr("ERROR: laser off (after 15 items)"));
  EXPECT_EQ(ranges(failing), (Ranges{{0, 9}, {10, 14}}));
  EXPECT_EQ(merged(failing).size(), 15u);

  // A restart starts the output over; the last pass is merged.
  EXPECT_EQ(ranges(restarted), (Ranges{{0, 9}, {10, 11}, {0, 9}, {10, 19}, {20, 23}}));
  EXPECT_EQ(pieces(restarted)[4]["piece_id"], 4);
  EXPECT_EQ(merged(restarted).segments(), (Ranges{{0, 24}}));
  EXPECT_EQ(detail(restarted)["status"], "complete");

  for (const std::int64_t id : {garbage, invalid, bad_option}) {
    EXPECT_EQ(detail(id)["status"], "error") << id;
    EXPECT_TRUE(pieces(id).empty());
  }
  EXPECT_THAT(messages(garbage), HasSubstr("ERROR: cannot load the experiment definition"));
  EXPECT_THAT(messages(invalid), HasSubstr("measures nothing"));
  EXPECT_THAT(messages(bad_option), HasSubstr("legacy_layout"));
  EXPECT_EQ(detail(good)["status"], "complete");
}

// One run per group at a time, the groups' pieces interleaved: a small experiment of another
// group ends long before a big one that started first; within a group, priority then age.
TEST_F(ExecutorTest, TheQueueIsServedFairlyBetweenGroupsAndByPriorityWithinOne) {
  add_group("other");
  Experiment big = rabi();
  big.repetitions = 60;  // 240 items, 24 pieces
  const std::int64_t oldest = submit(rabi());
  const std::int64_t huge = submit(big, "lab", 9);
  const std::int64_t urgent = submit(rabi(), "lab", "5");
  const std::int64_t small = submit(rabi(), "other");
  options.piece_interval = 1;
  EXPECT_TRUE(Executor(engine, options).run_once());

  for (const std::int64_t id : {oldest, huge, urgent, small}) {
    EXPECT_EQ(detail(id)["status"], "complete") << id;
  }
  const auto started = [&](std::int64_t id) { return when(id, "running on the simulated device"); };
  const auto ended = [&](std::int64_t id) { return when(id, "complete: "); };
  // Beside the big run, each keeping its pace of one piece a second.
  EXPECT_EQ(started(small), started(huge));
  EXPECT_EQ(ended(small), started(huge) + 2);
  EXPECT_EQ(ended(huge), started(huge) + 23);
  EXPECT_EQ(merged(huge).size(), 240u);
  EXPECT_GE(started(urgent), ended(huge));
  EXPECT_GE(started(oldest), ended(urgent));
}

TEST_F(ExecutorTest, DelayedMergeLeavesPiecesUnmergedWhileComplete) {
  const std::int64_t id = submit(rabi({{"merge_delay", 30}}));
  Value seen;
  clock.on_sleep([&](double s) {
    if (s == 30) seen = {detail(id)["status"], pieces(id)[0]["resource_id"]};
  });
  Executor(engine, options).run_once();
  EXPECT_EQ(clock.count_sleeps(30), 1);
  EXPECT_EQ(seen, Value::array({"complete", nullptr}));
  EXPECT_EQ(merged(id).size(), 24u);
}

TEST_F(ExecutorTest, CancelBetweenPiecesStopsAndStillMerges) {
  const std::int64_t id = submit(rabi());
  clock.on_sleep([&](double) { engine->terminate_sub_process(id); });
  Executor(engine, options).run_once();
  EXPECT_EQ(detail(id)["status"], "canceled");
  EXPECT_EQ(ranges(id), (Ranges{{0, 9}}));
  EXPECT_EQ(merged(id).size(), 10u);
  EXPECT_THAT(messages(id), HasSubstr("canceled after 10 items"));
}

TEST_F(ExecutorTest, OneExecutorOwnsTheStoreAndRecoversOnlyWhatADeadOwnerLeft) {
  const std::int64_t id = submit(rabi());
  auto owner = std::make_unique<Executor>(engine, options);
  engine->set_experiment_status(id, "running");  // as if the owner were measuring it
  engine->store_result_piece(id, 0, kc::Bytes{1, 2, 3}, 0, 9, false);

  Executor standby(engine, options);
  EXPECT_FALSE(standby.owns_store());
  EXPECT_FALSE(standby.run_once());
  EXPECT_TRUE(standby.recover().empty());
  EXPECT_EQ(detail(id)["status"], "running");
  EXPECT_EQ(pieces(id).size(), 1u);

  owner.reset();  // the owner's process ends: the run it left starts over with the next owner
  EXPECT_TRUE(standby.run_once());
  EXPECT_EQ(detail(id)["status"], "complete");
  EXPECT_EQ(merged(id).size(), 24u);
  EXPECT_THAT(messages(id), HasSubstr("the service restarted"));
}

struct CountingDevice : kc::plugin::Plugin {
  std::string name() const override { return "counting_device"; }
  std::vector<std::string> hooks() const override { return {kc::plugin::kDeviceModel}; }
  Value device_model_measure(const Value& parameters, const std::string& quantity,
                             std::int64_t item_id, std::uint64_t) override {
    if (quantity == "IQ") return Value::array({item_id, -item_id});
    return parameters.at("/q0/amp").get<double>() + 10.0 * static_cast<double>(item_id);
  }
};

TEST_F(ExecutorTest, ARegisteredDeviceModelPluginAnswersAndModelsAreReproducible) {
  kc::plugin::register_plugin(std::make_shared<CountingDevice>());
  const std::int64_t id = submit(rabi());
  Executor(engine, options).run_once();
  kc::plugin::unregister_plugin("counting_device");
  const Result r = merged(id);
  EXPECT_EQ(r["I"].value(3), 30.5);
  EXPECT_EQ(r["IQ"].value(5), Value::array({5.0, -5.0}));

  kc::service::BuiltinDeviceModel model;
  const Value p{{"/q0/amp", 0.25}};
  EXPECT_EQ(model.measure(p, "Q", 0, 7), model.measure(p, "Q", 0, 7));
  EXPECT_NE(model.measure(p, "Q", 0, 7), model.measure(p, "Q", 0, 8));
  EXPECT_NE(kc::service::noise_seed(1, 2, "I"), kc::service::noise_seed(1, 2, "Q"));
}

TEST_F(ExecutorTest, TheWorkerRunsTheQueueAndAStoppedRunResumesWhereItStopped) {
  kc::testing::ScopedLockstepEnv lockstep;  // the worker and this thread on one clock
  const std::int64_t id = submit(rabi());
  Executor executor(engine, options);
  executor.start();
  ASSERT_TRUE(lockstep.await_worker());
  EXPECT_TRUE(executor.running());
  for (int k = 0; k < 100 && pieces(id).empty(); ++k) lockstep.sleep(0.05);
  executor.request_stop();
  lockstep.sleep(1);  // the worker stops at its next piece boundary and ends
  executor.stop();
  EXPECT_FALSE(executor.running());
  EXPECT_EQ(detail(id)["status"], "queued");
  EXPECT_EQ(ranges(id), (Ranges{{0, 9}}));

  Executor next(engine, options);  // the next owner goes on from item 10
  EXPECT_TRUE(next.run_once());
  EXPECT_EQ(detail(id)["status"], "complete");
  EXPECT_EQ(ranges(id), (Ranges{{0, 9}, {10, 19}, {20, 23}}));
  EXPECT_EQ(merged(id).size(), 24u);
  const std::string log = messages(id);
  EXPECT_THAT(
      log,
      HasSubstr("the executor stopped; the experiment was queued again and resumes at item 10"));
  EXPECT_THAT(log, HasSubstr("resuming at item 10"));
}

TEST_F(ExecutorTest, FailedWritesAreRetriedThenEndTheRunAndWorkGoesOnOnceWritesSucceed) {
  const std::int64_t partly = submit(rabi());
  const std::int64_t stuck = submit(rabi());
  const std::int64_t later = submit(rabi());
  options.write_retry_pauses = {1, 2};
  Executor executor(engine, options);
  const std::string objects = root.storage_root() + "/objects";

  {  // The disk fills after the first piece: objects cannot be written any more.
    int object_writes = 0;
    kc::service::ScopedWriteFaults full([&](const std::string& path) {
      return path.rfind(objects, 0) == 0 && ++object_writes > 1 ? ENOSPC : 0;
    });
    EXPECT_TRUE(executor.run_once());
    EXPECT_EQ(detail(partly)["status"], "error");
    EXPECT_THAT(messages(partly), HasSubstr("storing result piece 1 failed after 3 attempts"));
    EXPECT_THAT(messages(partly), HasSubstr(std::strerror(ENOSPC)));
    // The merged result is still owed: no new work until it is written.
    EXPECT_EQ(executor.unfinished_endings(), 1u);
    EXPECT_FALSE(executor.run_once());
    EXPECT_EQ(detail(stuck)["status"], "queued");
  }

  {  // Once the next run has stored a piece, every write fails, the store's too: the end of
     // the run cannot be written, and the executor keeps it rather than leaving it behind.
    bool failing = false;
    clock.on_sleep([&](double s) { failing = failing || s == options.piece_interval; });
    kc::service::ScopedWriteFaults broken([&](const std::string&) { return failing ? EIO : 0; });
    EXPECT_TRUE(executor.run_once());  // the owed merge lands first, then the next run
    EXPECT_EQ(merged(partly).size(), 10u);
    EXPECT_EQ(detail(stuck)["status"], "running");
    EXPECT_FALSE(executor.run_once());
    clock.on_sleep(nullptr);
  }
  EXPECT_TRUE(executor.run_once());  // its end is written, then the next run goes ahead
  EXPECT_EQ(detail(stuck)["status"], "error");
  EXPECT_THAT(messages(stuck), HasSubstr("storing result piece 1 failed after 3 attempts: "));
  EXPECT_THAT(messages(stuck), HasSubstr(std::strerror(EIO)));
  EXPECT_EQ(merged(stuck).size(), 10u);
  EXPECT_EQ(detail(later)["status"], "complete");
  EXPECT_EQ(executor.unfinished_endings(), 0u);
}

// A disk full before a run starts: marking the run "running" fails, giving up the reserve makes
// room to end it as an error; with no room to make the reserve again, the next ones end at
// once, and once there is room the next run completes.
TEST_F(ExecutorTest, RunsThatCannotStartOnAFullDiskEndAsErrorsAndWorkGoesOnOnceThereIsRoom) {
  const std::int64_t first = submit(rabi());
  const std::int64_t second = submit(rabi());
  options.write_retry_pauses = {1, 2};
  Executor executor(engine, options);
  const std::string reserve = root.storage_root() + "/" + Executor::kSpaceReserveName;
  ASSERT_TRUE(kc::utils::path_exists(reserve));
  {
    kc::service::ScopedWriteFaults full([&](const std::string& path) {
      return path == reserve || kc::utils::path_exists(reserve) ? ENOSPC : 0;
    });
    EXPECT_TRUE(executor.run_once());
    EXPECT_TRUE(executor.run_once());
    EXPECT_FALSE(executor.run_once());
  }
  EXPECT_FALSE(kc::utils::path_exists(reserve));
  for (const std::int64_t id : {first, second}) {
    EXPECT_EQ(detail(id)["status"], "error") << id;
    EXPECT_TRUE(pieces(id).empty());
    EXPECT_THAT(messages(id), HasSubstr("ERROR: the run could not start: "));
  }
  EXPECT_THAT(messages(first), HasSubstr("marking experiment " + std::to_string(first) +
                                         " running failed after 3 attempts: "));
  EXPECT_THAT(messages(first), HasSubstr(std::strerror(ENOSPC)));
  EXPECT_THAT(messages(second), HasSubstr("the disk is full: there is no room for the 1024 KiB"));
  EXPECT_EQ(executor.unfinished_endings(), 0u);

  const std::int64_t third = submit(rabi());
  EXPECT_TRUE(executor.run_once());
  EXPECT_EQ(detail(third)["status"], "complete");
  EXPECT_TRUE(kc::utils::path_exists(reserve));
}

TEST_F(ExecutorTest, TheClientPullsWhatTheExecutorRan) {
  kc::testing::ScopedBackend backend(std::make_shared<kc::service::EmbeddedBackend>(engine));
  CloudGroup g("lab", "origin");
  Experiment exp = g.create_exp("Rabi", "");
  exp.sweep("/q0/amp", {0.0, 0.25, 0.5}).measure_quantity("p1");
  exp.repetitions = 20;
  const std::int64_t id = g.submit_exp(exp).get<std::int64_t>();
  Executor(engine, options).run_once();
  const Result r = g.pull_result(id);
  EXPECT_EQ(r.size(), 60u);
  EXPECT_NEAR(r["p1"].to_vector<double>()[2], 1.0, 0.1);
}

// A run whose next piece would pass its organisation's storage quota ends as an error saying
// so, its measured pieces kept (each its own resource: no room to merge); another
// organisation's run completes.
TEST_F(ExecutorTest, ARunPastItsStorageQuotaEndsAsAnErrorKeepingItsPiecesAndNoOtherRunIsTouched) {
  kc::service::Store& store = engine->store();
  // Another organisation's group, with the parameters of "lab" (typed methods name groups in
  // the local organisation: its records are made by id).
  const std::int64_t other = store.find_or_create_organization("Other");
  kc::service::NewExperiment theirs;
  theirs.organization_id = other;
  theirs.device_group_id = engine->create_group("far", "", other)["device_group_id"];
  theirs.space_id = store.create_space(theirs.device_group_id, "s", "", 0)["space_id"];
  engine->add_parameter(theirs.space_id, {"/q0/freq0", "/q0/pi_amp"}, {"5000000000.0", "0.5"},
                        {"float", "float"}, nullptr, nullptr, nullptr);
  const Value loc = engine->get_minio_client(other)->upload(
      "exp", kc::utils::msgpack_dumps(rabi().serialize()), "exp", "kvexp");
  theirs.resource_id = engine->add_resource("", "kvexp", loc.dump(), "exp", "SDK",
                                            theirs.device_group_id)["resource_id"];
  theirs.space_timestamp = kc::env().now_seconds();
  const auto submit_theirs = [&] {
    const Value record = store.create_experiment(theirs, theirs.space_timestamp);
    return record["sub_process_id"].get<std::int64_t>();
  };
  const std::int64_t first = submit_theirs();
  Executor executor(engine, options);
  EXPECT_TRUE(executor.run_once());
  ASSERT_EQ(detail(first)["status"], "complete");
  const auto piece = engine->get_minio_client(other)->resolve(pieces(first)[0]);
  const auto piece_bytes = static_cast<std::int64_t>(std::filesystem::file_size(*piece));

  // Room for one piece and a half.
  const std::int64_t ours = submit(rabi());
  store.set_quota(1, store.quota(1).stored_bytes + piece_bytes * 3 / 2, std::nullopt);
  const std::int64_t again = submit_theirs();
  while (executor.run_once()) {
  }
  EXPECT_EQ(detail(ours)["status"], "error");
  EXPECT_THAT(messages(ours), HasSubstr("storage quota reached: organisation 1 may store"));
  EXPECT_THAT(messages(ours), HasSubstr("ended with an error after 10 items"));
  EXPECT_EQ(ranges(ours), (Ranges{{0, 9}}));
  EXPECT_EQ(resource_result(pieces(ours)[0]["resource_id"]).size(), 10u);
  EXPECT_EQ(detail(again)["status"], "complete");
}

}  // namespace
