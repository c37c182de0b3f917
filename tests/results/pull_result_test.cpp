// Pulling an experiment's result: live runs joined piece by piece, finished experiments from
// their merged result or legacy pieces, retries, clean-up of the cache directory.
#include <filesystem>
#include <fstream>
#include <numeric>

#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/testing.hpp"

namespace fs = std::filesystem;
using kc::experiment::Result;
using Values = std::vector<double>;

namespace {

constexpr std::int64_t kExp = 42;
constexpr double kStart = 1700000000.0;

// Column "v" of `count` items from `first_item` on, each valued by its item id.
Result chunk(std::int64_t first_item, std::int64_t count) {
  Values v(static_cast<std::size_t>(count));
  std::iota(v.begin(), v.end(), static_cast<double>(first_item));
  std::vector<std::pair<std::string, kc::experiment::Column>> columns;
  columns.emplace_back("v", std::move(v));
  return Result::from_columns(first_item, std::move(columns));
}

Values values(const Result& r) { return r["v"].to_vector<double>(); }

struct Piece {
  std::int64_t piece_id;
  std::int64_t first_item;
  std::int64_t count;
  double at = 0;  // seconds after the start when the service lists it
  bool final_piece = false;
  Value resource_id = nullptr;
  int after_calls = 0;  // listed only once the metadata was asked for more often than this
};

// One experiment on a fake service. Pieces appear once the virtual clock reaches their time;
// the status follows a timeline; every answer is computed from the clock at the call.
class Experiment : public kc::testing::ClientTest {
 protected:
  void SetUp() override {
    service->answer("list_space", Value::parse(R"({"list":[{"space_id":11,"space_name":"o"}]})"));
    service->answer("get_space_detail", Value::parse(R"({"space_id":11,"space_name":"o"})"));
    group = std::make_unique<CloudGroup>("lab-a");

    // The experiment's definition is already in its cache directory.
    kc::experiment::Experiment exp("scan", "", group.get());
    exp.sweep("/q0/amp", {0.1, 0.2}).measure_quantity("v");
    cache_dir = group->create_exp_cache_dir(static_cast<std::int64_t>(kStart), kExp);
    kc::utils::write_file_atomic(cache_dir + "/42.kvexp",
                                 kc::utils::msgpack_dumps(exp.serialize()));
    complete = cache_dir + "/complete_42.kvres";

    service->on("get_sub_process_detail", [this](const Value&) { return detail(); });
    service->on("get_sub_process_result", [this](const Value& args) {
      return metadata(args["start_piece_id"].get<std::int64_t>());
    });
    service->on("download_result_chunk_from_cache", [this](const Value& args) {
      for (const Piece& p : pieces) {
        if (p.piece_id == args["chunk_id"]) {
          return Value::binary(chunk(p.first_item, p.count).to_bytes());
        }
      }
      throw kc::RuntimeError("no chunk " + args["chunk_id"].dump());
    });
  }

  double elapsed() { return env.now() - kStart; }

  // Statuses of the first detail reads come from `status_script` ("!fail" fails the read);
  // later ones from the timeline.
  Value detail() {
    std::string status = "running";
    for (const auto& [t, st] : statuses) {
      if (elapsed() >= t) status = st;
    }
    if (detail_calls < status_script.size()) status = status_script[detail_calls];
    ++detail_calls;
    if (status == "!fail") throw kc::RuntimeError("detail unavailable");
    return Value::object({{"create_time", static_cast<std::int64_t>(kStart)}, {"space_id", 11},
                          {"resource_id", 500}, {"status", status}, {"exp_msg", messages}});
  }

  Value metadata(std::int64_t from) {
    ++metadata_calls;
    Value list = Value::array();
    for (const Piece& p : pieces) {
      if (elapsed() >= p.at && metadata_calls > p.after_calls && p.piece_id >= from) {
        list.push_back({{"piece_id", p.piece_id}, {"resource_id", p.resource_id},
                        {"final_piece", p.final_piece}});
      }
    }
    return list;
  }

  // An update callback that records what it was called with.
  kc::group::UpdateCallback record() {
    return [this](const Result& r, bool finished, const Value& detail) {
      sizes.push_back(r.size());
      finals.push_back(finished);
      details.push_back(detail);
    };
  }

  std::unique_ptr<CloudGroup> group;
  std::vector<Piece> pieces;
  std::vector<std::pair<double, std::string>> statuses;
  Value messages = Value::array();
  std::vector<std::string> status_script;
  std::size_t detail_calls = 0;
  int metadata_calls = 0;
  std::string cache_dir;
  std::string complete;
  std::vector<std::size_t> sizes;
  std::vector<bool> finals;
  std::vector<Value> details;
};

// ---- live runs ----

TEST_F(Experiment, ALiveRunIsJoinedInPieceOrderUntilItsFinalPiece) {
  // Pieces 1 and 0 arrive together, out of order, piece 1 twice; 2 is final.
  pieces = {{1, 3, 3, 1}, {0, 0, 3, 1}, {1, 3, 3, 1}, {2, 6, 2, 5, true}};
  EXPECT_EQ(values(group->pull_result(kExp, true, record())),
            (Values{0, 1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(sizes, (std::vector<std::size_t>{6, 8}));
  EXPECT_EQ(finals, (std::vector<bool>{false, true}));
  // Idle polls pause 0.5 s, polls that brought metadata 2 s; a final piece ends at once.
  EXPECT_EQ(env.count_sleeps(2.0), 1);
  EXPECT_GE(env.count_sleeps(0.5), 6);
  EXPECT_EQ(service->count("download_result_chunk_from_cache"), 5);  // first of each batch twice
}

TEST_F(Experiment, ARestartedBatchReplacesTheResultAndAGapWaitsToBeFilled) {
  pieces = {{0, 0, 4, 0}, {1, 0, 2, 3}, {2, 2, 4, 3, true}};
  EXPECT_EQ(values(group->pull_result(kExp)), (Values{0, 1, 2, 3, 4, 5}));
  EXPECT_THAT(env.lines_containing("Resetting result_obj"),
              ElementsAre("Warning: result_obj has data (item_id_end=3), but new chunks start "
                          "from 0. Resetting result_obj."));

  fs::remove(complete);
  env.lines.clear();
  metadata_calls = 0;
  env.set_now(kStart);
  pieces = {{0, 0, 2, 0}, {2, 4, 2, 0}, {1, 2, 2, 3}, {3, 6, 1, 6, true}};
  EXPECT_EQ(values(group->pull_result(kExp)), (Values{0, 1, 2, 3, 4, 5, 6}));
  const auto warnings = env.lines_containing("not continuous");
  EXPECT_FALSE(warnings.empty());
  EXPECT_THAT(warnings, ::testing::Each("Warning: Chunk 2 item_id not continuous: start=4, "
                                        "expected=2. Skipping..."));
}

// Not waiting returns what is there now, at once; waiting, no more metadata and a complete
// status finish after the grace period.
TEST_F(Experiment, NotWaitingReturnsWhatIsThereAndACompleteStatusEndsTheWaitAfterAGracePeriod) {
  pieces = {{0, 0, 2, 0}};
  statuses = {{3, "Completed"}};
  EXPECT_EQ(values(group->pull_result(kExp, false)), (Values{0, 1}));
  EXPECT_TRUE(env.sleeps.empty());
  EXPECT_FALSE(fs::exists(complete));

  EXPECT_EQ(group->pull_result(kExp, true, record()).size(), 2u);
  EXPECT_TRUE(fs::exists(complete));
  ASSERT_FALSE(details.empty());
  EXPECT_EQ(details.back()["sub_process_id"], kExp);
  EXPECT_TRUE(finals.back());
  // The complete status was read at least twice, 2 s apart, before finishing.
  EXPECT_GE(elapsed(), 5.0);
}

TEST_F(Experiment, AnErrorStatusRaisesTheExperimentsMessages) {
  messages = Value::parse(R"([{"timestamp":1700000001,"message_level":"ERROR",
      "message":"amplifier tripped"},{"timestamp":1700000002,"message_level":"INFO",
      "message":"run aborted"}])");
  const std::string expected =
      "Experiment runtime error: [1700000001] ERROR: amplifier tripped\n"
      "[1700000002] INFO: run aborted\n";
  statuses = {{0, "error"}};

  // Waiting: the first live poll brings data but its status read fails; the callback's fresh
  // read finds the error.
  pieces = {{0, 0, 2, 0, false, nullptr, 1}};
  status_script = {"running", "!fail"};
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->pull_result(kExp, true, record()); }),
            expected);
  EXPECT_EQ(finals, std::vector<bool>{false});

  // Not waiting: the run failed between the first look and the hand-back.
  pieces = {{0, 0, 2, 0}, {1, 2, 2, 0, false, nullptr, 1000}};
  status_script = {"running"};
  detail_calls = 0;
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->pull_result(kExp, false); }), expected);

  // Failed before delivering anything: an empty result when not waiting, the error otherwise.
  pieces.clear();
  EXPECT_TRUE(group->pull_result(kExp, false).keys().empty());
  EXPECT_EQ(error_of<kc::RuntimeError>([&] {
              group->_return_incomplete_result(kExp, Result(), Value::array(), {}, true);
            }),
            expected);
}

// ---- finished experiments ----

TEST_F(Experiment, AFinishedExperimentIsTakenFromItsMergedResult) {
  const Value locator = Value::object({{"bucket", "results"}, {"object", "42/merged"}});
  service->store->put(locator, chunk(0, 5).to_bytes());
  service->answer("get_resource_info", {{"total", 1}, {"list", {{{"resource_id", 900},
                                                                  {"uri", locator.dump()}}}}});
  pieces = {{0, 0, 3, 0, false, 900}, {1, 3, 2, 0, true, 900}};
  statuses = {{0, "complete"}};
  std::ofstream(cache_dir + "/chunk_0.kvres") << "left over";

  EXPECT_EQ(values(group->pull_result(kExp, true, record())), (Values{0, 1, 2, 3, 4}));
  EXPECT_EQ(finals, std::vector<bool>{true});
  EXPECT_FALSE(fs::exists(cache_dir + "/chunk_0.kvres"));
  EXPECT_EQ(service->calls_of("get_resource_info")[0].args["resource_ids"], Value::array({900}));

  // The complete file is now the cache: no result call at all, the callback once.
  service->clear_calls();
  finals.clear();
  EXPECT_EQ(values(group->pull_result(kExp, true, record())), (Values{0, 1, 2, 3, 4}));
  EXPECT_EQ(service->count("get_sub_process_result"), 0);
  EXPECT_EQ(finals, std::vector<bool>{true});
}

TEST_F(Experiment, ALegacyLayoutIsJoinedPieceByPieceAroundAMissingResource) {
  for (int i = 0; i < 3; ++i) {
    service->store->put(Value::object({{"object", i}}), chunk(i * 2, 2).to_bytes());
  }
  // Piece 1's resource is unknown to the service.
  service->answer("get_resource_info", Value::parse(R"({"total":2,"list":[
      {"resource_id":700,"uri":"{\"object\":0}"},{"resource_id":702,"uri":"{\"object\":2}"}]})"));
  pieces = {{2, 4, 2, 0, true, 702}, {0, 0, 2, 0, false, 700}, {1, 2, 2, 0, false, 701}};
  statuses = {{0, "complete"}};
  const Result r = group->pull_result(kExp);
  EXPECT_EQ(values(r), (Values{0, 1, 4, 5}));
  using Run = std::pair<std::int64_t, std::int64_t>;
  EXPECT_THAT(r.segments(), ElementsAre(Run{0, 2}, Run{4, 2}));
  EXPECT_THAT(env.lines,
              ::testing::Contains("Warning: Resource 701 not found, skipping chunk 1"));
  EXPECT_TRUE(fs::exists(complete));
}

TEST_F(Experiment, AMergeThatNeverComesEndsWithTheTimeoutMessage) {
  pieces = {{0, 0, 2, 0, false, 900}, {1, 2, 2, 0, true, nullptr}};
  statuses = {{0, "complete"}};
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->pull_result(kExp); }),
            "Experiment 42 finished but server did not merge results within 300 seconds");
  EXPECT_EQ(env.count_sleeps(2.0), 150);
  EXPECT_EQ(service->count("get_sub_process_result"), 151);

  // Metadata that is not a list of records with resource ids is an error, not a guess.
  const Value running = Value::object({{"status", "running"}});
  EXPECT_THROW(group->_check_result_status(Value::object(), running), kc::TypeError);
  EXPECT_THROW(group->_check_result_status(Value::array({Value::object()}), running), kc::KeyError);
}

// ---- retries ----

TEST_F(Experiment, FlakyServicesAreRetriedQuietly) {
  // Both pieces come with the first look, so the loop ends on the complete status.
  pieces = {{0, 0, 2, 0}, {1, 2, 2, 0, true}};
  statuses = {{20, "complete"}};
  service->fail("get_sub_process_result", 19);
  service->fail("download_result_chunk_from_cache", 19);
  EXPECT_EQ(values(group->pull_result(kExp)), (Values{0, 1, 2, 3}));
  EXPECT_EQ(env.lines_containing("Get results failed: ").size(), 19u);
  EXPECT_EQ(env.lines_containing("Failed to download chunk 0").size(), 1u);
  EXPECT_EQ(env.count_sleeps(2.0), 19);
  EXPECT_TRUE(fs::exists(complete));
}

TEST_F(Experiment, RetriesGiveUpAfterTwentyTriesButNotOnAnInterruption) {
  service->fail("get_sub_process_result", 100, "metadata down");
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->_get_results_with_retry(kExp, -1); }),
            "Get results failed: metadata down");
  EXPECT_EQ(service->count("get_sub_process_result"), 20);
  EXPECT_EQ(env.count_sleeps(0.5), 19);
  EXPECT_EQ(service->calls_of("get_sub_process_result")[0].args["start_piece_id"], 0);
  EXPECT_EQ(group->_get_results_with_retry(kExp, 4, 0), Value::array());

  service->fail("get_sub_process_detail", 100, "detail down");
  EXPECT_EQ(group->_get_experiment_detail_with_retry(kExp, 20, true), Value::object());
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->_get_experiment_detail_with_retry(kExp, 2); }),
            "Get experiment detail failed: detail down\nRetrying...");

  service->fail("download_result_chunk_from_cache", 100, "cache down");
  env.lines.clear();
  EXPECT_EQ(error_of<kc::RuntimeError>(
                [&] { group->_download_chunk_from_cache_with_retry(kExp, 3, 1); }),
            "Failed to download chunk 3: cache down\nRetrying...");
  EXPECT_THAT(env.lines, ElementsAre("Failed to download chunk 3 (exp_id=42): cache down. Will "
                                       "retry up to 0 more times.",
                                       "Give up downloading chunk 3 (exp_id=42) after 1 attempts: "
                                       "cache down"));
  EXPECT_FALSE(group->_download_chunk_from_cache_with_retry(kExp, 3, 0).has_value());

  service->clear_calls();
  service->fail("get_sub_process_detail", 0);
  service->fail("get_sub_process_result", 5);
  env.on_sleep([](double) { throw kc::Interrupted{"ctrl-c"}; });
  EXPECT_THROW(group->pull_result(kExp), kc::Interrupted);
  EXPECT_EQ(service->count("get_sub_process_result"), 1);
}

// ---- clean-up ----

TEST_F(Experiment, ChunkFilesAreRemovedAndNothingElse) {
  for (const char* name : {"chunk_0.kvres", "chunk_1.kvres", "complete_42.kvres", "notes.txt"}) {
    std::ofstream(cache_dir + "/" + name) << "x";
  }
  group->_remove_chunk_files(cache_dir);
  EXPECT_FALSE(fs::exists(cache_dir + "/chunk_0.kvres"));
  EXPECT_FALSE(fs::exists(cache_dir + "/chunk_1.kvres"));
  EXPECT_TRUE(fs::exists(cache_dir + "/complete_42.kvres"));
  EXPECT_TRUE(fs::exists(cache_dir + "/notes.txt"));
  EXPECT_TRUE(env.lines.empty());

  group->_remove_chunk_files(std::vector<std::string>{cache_dir + "/chunk_9.kvres"});
  EXPECT_THAT(env.lines, ElementsAre(HasSubstr("Warning: Failed to remove chunk file " +
                                                 cache_dir + "/chunk_9.kvres after 3 retries: ")));
  EXPECT_EQ(env.count_sleeps(0.1), 2);
}

TEST_F(Experiment, ATerminalPartialResultIsSavedOnce) {
  statuses = {{0, "canceled"}};
  const Value results = Value::parse(R"([{"piece_id":0,"resource_id":null,"final_piece":false}])");
  auto incomplete = [&](std::int64_t items) {
    return group->_return_incomplete_result(kExp, chunk(0, items), results, {}, false, complete,
                                            cache_dir);
  };
  EXPECT_EQ(incomplete(3).size(), 3u);
  EXPECT_THAT(env.lines, ElementsAre("Defensive fallback: Saved result to " + complete +
                                       " for exp_id 42 (status=canceled, finished=False)"));
  env.lines.clear();
  incomplete(1);
  EXPECT_TRUE(env.lines.empty());
  EXPECT_EQ(Result::load_from_file(complete).size(), 3u);

  // A complete experiment whose last piece is not final is not saved.
  fs::remove(complete);
  statuses = {{0, "complete"}};
  incomplete(3);
  EXPECT_FALSE(fs::exists(complete));
}

}  // namespace
