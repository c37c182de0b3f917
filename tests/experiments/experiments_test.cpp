// Experiment listings and folders, submission, reading back, attachments, result downloads.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/testing.hpp"

namespace fs = std::filesystem;
using kc::Bytes;
using kc::experiment::Experiment;
using ::testing::MatchesRegex;

namespace {

constexpr double kNow = 1741176000.0;  // 2025-03-05 12:00:00 UTC
const Value kLocation = Value::parse(R"({"bucket":"exp","object":"11","n":1})");

Value folder(std::int64_t id, const std::string& name) {
  return Value::object({{"exp_folder_id", id}, {"exp_folder_name", name}});
}

Value descriptor(const Value& chunk_id) {
  return Value::object({{"chunk_id", chunk_id}, {"object", "res/" + kc::to_text(chunk_id)}});
}

Bytes content(const Value& chunk_id) {
  const std::string s = "chunk " + kc::to_text(chunk_id);
  return Bytes(s.begin(), s.end());
}

class ExperimentsTest : public kc::testing::ClientTest {
 protected:
  ExperimentsTest() : ClientTest(kNow) {
    service->answer("list_space", Value::parse(R"({"list":[{"space_id":11,"space_name":"origin"},
        {"space_id":12,"space_name":"calib"}]})"));
    service->answer("check_device_permission_by_name", true);
    service->answer("add_resource", Value::object({{"resource_id", 77}}));
    service->answer("create_sub_process", Value::object({{"sub_process_id", 501}}));
    group.set_group_name("lab-a", "origin");
    service->clear_calls();
    exp.sweep("/q0/drive/amp", {0.1, 0.2}).measure_quantities({"I", "Q"});
  }

  std::string exp_dir(const char* day = "20250305") const {
    return root.cache_root() + "/lab-a/exp/" + day + "/501";
  }
  std::string chunk(int id) const { return exp_dir() + "/chunk_" + std::to_string(id) + ".kvres"; }
  // Every entry of the result directory, temporary files included.
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(exp_dir())) names.push_back(e.path());
    std::sort(names.begin(), names.end());
    return names;
  }

  // Experiment 501, created now in space 12, with `definition` in the store.
  void serve_definition(const Bytes& definition) {
    service->answer("get_sub_process_detail", Value::parse(R"({"create_time":1741176000,
        "space_id":12,"resource_id":77,"progress":"{\"done\": 3}"})"));
    service->answer("get_space_detail", Value::object({{"space_name", "calib"}}));
    service->script("get_resource_info",
                    {Value::object({{"total", 1}, {"list", {{{"uri", kLocation}}}}})});
    service->store->put(kLocation, definition);
  }

  CloudGroup group;
  Experiment exp = group.create_exp("Rabi", "amplitude sweep");
};

TEST_F(ExperimentsTest, ListingsRenameIdsAndFolderPathsAreCreatedLevelByLevel) {
  service->answer("list_new_experiments",
                  Value::parse(R"({"list":[{"sub_process_id":5,"t":"a"}],"total":1})"));
  EXPECT_EQ(CloudGroup::list_new_exps(11, 4),
            Value::parse(R"({"list":[{"t":"a","exp_id":5}],"total":1})"));
  EXPECT_EQ(service->calls()[0].args,
            Value::parse(R"({"space_id":11,"since_exp_id":4,"exp_folder_id":null,"limit":50})"));

  for (const auto& [path, message] : std::vector<std::pair<std::string, std::string>>{
           {" \t\xe3\x80\x80", "folder_path cannot be empty"},  // with an ideographic space
           {" // ", "folder_path cannot be empty after normalization"},
           {"/ /", "folder_path must contain at least one folder name"}}) {
    EXPECT_EQ(error_of<kc::ValueError>([&] { group.create_exp_folder(11, path); }), message);
  }

  // "a" exists twice at the root (the first is taken); " b " keeps its blanks.
  service->clear_calls();
  service->script("list_exp_folders_by_parent",
                  {Value::array({folder(1, "b"), folder(2, "a"), folder(3, "a")}), Value::array()});
  service->script("create_exp_folder", {folder(20, " b ")});
  EXPECT_EQ(group.create_exp_folder(11, "  /a// b /  "), folder(20, " b "));
  const auto calls = service->calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].args, Value::parse(R"({"device_group_name":"lab-a","space_id":11,
                                            "parent_exp_folder_id":null})"));
  EXPECT_EQ(calls[1].args["parent_exp_folder_id"], 2);
  EXPECT_EQ(calls[2].args, Value::parse(R"({"space_id":11,"exp_folder_name":" b ",
                                            "parent_exp_folder_id":2})"));
}

TEST_F(ExperimentsTest, SubmissionStoresRegistersCreatesAndKeepsACopy) {
  // Refusals come before anything is stored or created.
  EXPECT_THAT(error_of<kc::TypeError>([&] {
                group.submit_exp(exp, {.attachment = Value::object({{"pulse", "12"}})});
              }),
              HasSubstr("attachment"));
  EXPECT_TRUE(service->calls().empty());
  service->script("check_device_permission_by_name", {Value(false)});
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group.submit_exp(exp); }), "Permission denied.");
  EXPECT_EQ(service->calls().size(), 1u);
  EXPECT_FALSE(group.minio);

  service->clear_calls();
  exp.attachment = Value::object({{"stale", 1}});
  EXPECT_EQ(group.submit_exp(exp), 501);
  EXPECT_THAT(service->call_names(), ElementsAre("check_device_permission_by_name",
                                                 "get_minio_client", "add_resource",
                                                 "create_sub_process"));
  EXPECT_EQ(exp.attachment, Value::object());
  EXPECT_EQ(service->store->calls()[0].args["object_name"], "11");
  EXPECT_EQ(service->calls()[2].args,
            Value::object({{"file_name", ""}, {"file_format", "kvexp"}, {"uri", kLocation.dump()},
                           {"category", "exp"}, {"source", "SDK"}, {"device_group_id", 7}}));
  EXPECT_EQ(service->calls()[3].args, Value::parse(R"({"organization_id":3,"group_name":"lab-a",
      "space_id":11,"title":"Rabi","desc":"amplitude sweep","resource_id":77,"source":"SDK",
      "space_timestamp":1741176000,"template_name":null,"exp_folder_id":null,"priority":null})"));
  // The stored definition and the local copy are the MessagePack encoding of the experiment.
  EXPECT_EQ(service->store->stored(kLocation), kc::utils::msgpack_dumps(exp.serialize()));
  EXPECT_EQ(kc::utils::read_file(exp_dir() + "/501.kvexp"), service->store->stored(kLocation));

  // Options: the experiment's template wins, a folder path is resolved, "SDK" stays the
  // resource's source; a folder id wins over a path. The client is reused.
  service->clear_calls();
  service->answer("list_exp_folders_by_parent", Value::array());
  service->answer("create_exp_folder", folder(40, "rabi"));
  exp.template_ = "rabi_v2";
  group.submit_exp(exp, {.template_name = "ignored", .source = "notebook",
                         .attachment = Value::object({{"pulse", 12}}),
                         .exp_folder_path = "rabi", .priority = "high"});
  EXPECT_EQ(service->calls_of("add_resource")[0].args["source"], "SDK");
  const Value created = service->calls_of("create_sub_process")[0].args;
  EXPECT_EQ(created["source"], "notebook");
  EXPECT_EQ(created["template_name"], "rabi_v2");
  EXPECT_EQ(created["exp_folder_id"], 40);
  EXPECT_EQ(created["priority"], "high");
  group.submit_exp(exp, {.exp_folder_id = 3, .exp_folder_path = "never/made"});
  EXPECT_EQ(service->count("create_exp_folder"), 1);
  EXPECT_EQ(service->count("get_minio_client"), 0);
}

TEST_F(ExperimentsTest, ReadingBackDownloadsTheDefinitionOnce) {
  serve_definition(kc::utils::msgpack_dumps(exp.serialize()));

  auto [read, detail, space] = group.get_experiment_detail(501, false);
  EXPECT_EQ(read, exp);
  EXPECT_EQ(read.group, &group);
  EXPECT_EQ(detail["progress"], Value::object({{"done", 3}}));
  EXPECT_EQ(space, Value::object({{"space_name", "calib"}}));
  EXPECT_EQ(group.space_id, 11);
  EXPECT_EQ(service->calls_of("get_resource_info")[0].args["resource_ids"], 77);

  // Now from the copy; set_space moves the group to the experiment's space.
  EXPECT_EQ(std::get<0>(group.get_experiment_detail(501)), exp);
  EXPECT_EQ(service->store->count("download"), 1);
  EXPECT_EQ(group.space_name(), "calib");

  std::ofstream(exp_dir() + "/501.kvexp", std::ios::binary) << "\x92\x01";
  EXPECT_THAT(error_of<kc::ValueError>([&] { group.get_experiment_detail(501, false); }),
              HasSubstr(exp_dir() + "/501.kvexp"));

  service->answer("get_sub_process_msg", Value::parse(R"([{"timestamp":1741176000}])"));
  EXPECT_EQ(CloudGroup::get_experiment_msg(501),
            Value::parse(R"([{"timestamp":"2025-03-05 12:00:00"}])"));
  service->answer("get_sub_process_detail", Value::object({{"create_time", kNow}}));
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group.get_experiment_detail(501); }),
            "Experiment 501 does not have space_id");
}

TEST_F(ExperimentsTest, AttachmentsAreFetchedOncePerDayAndNamesAreChecked) {
  EXPECT_THROW(group.upload_exp_attachment("pulse", "p.csv", Bytes{1, 2}, "csv"),
               kc::RuntimeError);  // no object-storage client yet
  group.minio = service->store;
  service->answer("add_resource", Value::object({{"resource_id", 31}}));
  EXPECT_EQ(group.upload_exp_attachment("pulse", "p.csv", Bytes{1, 2}, "csv"), 31);
  const Value pulse_at = Value::parse(R"({"bucket":"exp_attachment","object":"pulse","n":1})");
  EXPECT_EQ(service->calls_of("add_resource")[0].args["uri"], pulse_at.dump());

  exp.attachment = Value::object({{"pulse", 31}, {"again", 32}});
  serve_definition(kc::utils::msgpack_dumps(exp.serialize()));
  // The service's records of attachments with these names, all holding pulse's bytes.
  auto serve = [&](const std::vector<std::string>& names) {
    Value list = Value::array();
    for (const std::string& name : names) {
      list.push_back({{"uri", pulse_at}, {"file_name", name}, {"file_format", "csv"}});
    }
    service->answer("get_resource_info", {{"total", list.size()}, {"list", list}});
  };
  serve({"p.csv", "p.csv"});
  env.advance(86400);  // the next day's directory

  const std::string path = exp_dir("20250306") + "/p.csv";
  const Value expected = Value::object(
      {{"p.csv", {{"file_name", "p.csv"}, {"format", "csv"}, {"absolute_path", path}}}});
  EXPECT_EQ(group.download_exp_attachment(501), expected);
  EXPECT_EQ(service->calls_of("get_resource_info").back().args["resource_ids"],
            Value::array({31, 32}));
  EXPECT_EQ(kc::utils::read_file(path), (Bytes{1, 2}));
  EXPECT_EQ(group.download_exp_attachment(501), expected);
  EXPECT_EQ(service->store->count("download"), 2);  // the definition and p.csv, once each

  // Dots inside a name are ordinary; a name that would leave the directory is refused before
  // any file is written.
  const std::string today = exp_dir("20250306");
  serve({"report..final.csv", "notes...txt"});
  EXPECT_EQ(group.download_exp_attachment(501).size(), 2u);
  EXPECT_EQ(kc::utils::read_file(today + "/report..final.csv"), (Bytes{1, 2}));
  EXPECT_TRUE(kc::utils::path_exists(today + "/notes...txt"));
  for (const auto& [name, shown] : std::vector<std::pair<std::string, std::string>>{
           {"..", ".."}, {".", "."}, {"", ""}, {"../evil", "../evil"}, {"a/b", "a/b"},
           {std::string("a\0b", 3), "a\\x00b"}}) {
    serve({"ok", name});
    EXPECT_THAT(error_of<kc::RuntimeError>([&] { group.download_exp_attachment(501); }),
                HasSubstr("attachment name \"" + shown + "\""));
    EXPECT_FALSE(kc::utils::path_exists(today + "/ok"));
  }
}

TEST_F(ExperimentsTest, ChunksComeFromTheCacheOrTheStoreAndAFailureEndsOnlyItsThread) {
  service->answer("get_sub_process_detail", Value::object({{"create_time", kNow}}));
  service->on("download_result_chunk_from_cache", [](const Value& args) -> Value {
    if (args["chunk_id"] == 3) throw kc::RuntimeError("evicted");
    if (args["chunk_id"] == 5) throw kc::Interrupted{};  // passes every retry loop
    return Value::binary(content(args["chunk_id"]));
  });
  service->store->put(descriptor(3), content(3));
  fs::create_directories(exp_dir());
  kc::utils::write_file_atomic(chunk(0), Bytes{9});

  Value uri_list = Value::array({descriptor("../escape")});
  std::vector<std::string> expected;
  for (int i = 0; i < 10; ++i) {
    uri_list.push_back(descriptor(i));
    if (i != 5) expected.push_back(chunk(i));
  }
  std::vector<std::string> paths = group.download_result(501, uri_list);
  std::sort(paths.begin(), paths.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(paths, expected);
  EXPECT_EQ(files(), expected);  // no partial or temporary file
  EXPECT_EQ(kc::utils::read_file(chunk(0)), Bytes{9});
  for (int i : {1, 3, 9}) EXPECT_EQ(kc::utils::read_file(chunk(i)), content(i));
  EXPECT_EQ(service->count("download_result_chunk_from_cache"), 9);
  EXPECT_THAT(env.lines,
              ElementsAre("Cache not available for chunk 3, falling back to MinIO: evicted"));
  const std::string thread_error = "Exception in thread download-[0-9]+: ";
  EXPECT_THAT(env.error_lines,
              ::testing::UnorderedElementsAre(MatchesRegex(thread_error + "Interrupted.*"),
                                              MatchesRegex(thread_error + ".*\\.\\./escape.*")));

  EXPECT_THAT(error_of<kc::TypeError>([&] { group.download_result(501, Value::array({3})); }),
              HasSubstr("uri_list"));
}

TEST_F(ExperimentsTest, FailedFetchesArePausedAndRetriedTwentyTimes) {
  service->answer("get_sub_process_detail", Value::object({{"create_time", kNow}}));
  service->fail("download_result_chunk_from_cache", 1000, "no cache");
  service->store->put(descriptor(1), content(1));
  service->store->fail("download", 2, "busy");

  EXPECT_THAT(group.download_result(501, Value::array({descriptor(1)})), ElementsAre(chunk(1)));
  EXPECT_THAT(env.lines_containing("Left"),
              ElementsAre("Download result file failed: busy\nLeft retry times: 19.",
                          "Download result file failed: busy\nLeft retry times: 18."));
  EXPECT_EQ(env.count_sleeps(1.0), 2);

  EXPECT_THAT(group.download_result(501, Value::array({descriptor(2)})), ElementsAre());
  EXPECT_EQ(service->store->count("download"), 3 + 20);
  EXPECT_EQ(env.count_sleeps(1.0), 2 + 19);
  EXPECT_THAT(env.error_lines, ElementsAre(HasSubstr("download-1: Download result file failed: "
                                                       "FakeObjectStore: no object at")));

  // The worker alone: an absent answer from the cache writes nothing.
  kc::utils::ThreadQueue<Value> uris;
  kc::utils::ThreadQueue<std::string> names;
  uris.put(descriptor(7));
  service->fail("download_result_chunk_from_cache", 0);
  service->answer("download_result_chunk_from_cache", nullptr);
  EXPECT_EQ(error_of<kc::RuntimeError>(
                [&] { CloudGroup::download_to_file(uris, names, service->store, exp_dir(), 501); }),
            "Download result file failed.");
  EXPECT_EQ(files(), std::vector<std::string>{chunk(1)});
}

}  // namespace
