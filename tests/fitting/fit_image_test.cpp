// Fit images stored as "fitting" resources, and fitting results read back.
#include <stb_image_write.h>

#include <fstream>

#include "korvalin_client/com/sub_process.hpp"
#include "korvalin_client/service/embedded_backend.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/testing.hpp"

namespace {

class FittingTest : public kc::testing::ClientTest {
 protected:
  void SetUp() override {
    service->answer("list_space", Value::object({{"list", Value::array()}}));
    service->answer("check_space_permission_by_id", true);
    group.set_group_name("lab-a");
    service->clear_calls();
  }

  CloudGroup group;
};

TEST_F(FittingTest, RefusalsUploadNothingAnImageBecomesTwoResourcesAndReadingTakesTheFirst) {
  service->answer("check_space_permission_by_id", false);
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group.upload_fit_image(11, 42, "x.png"); }),
            "Permission denied.");
  EXPECT_FALSE(group.minio);
  service->answer("check_space_permission_by_id", true);
  const std::string not_image = root.path() + "/notes.png";
  std::ofstream(not_image) << "not an image";
  EXPECT_THAT(error_of<kc::RuntimeError>([&] { group.upload_fit_image(11, 42, not_image); }),
              ::testing::StartsWith("Cannot compress image (" + not_image + ") to 128 format: "));
  EXPECT_TRUE(service->store->calls().empty());

  const std::string img = root.path() + "/fit.png";
  std::vector<unsigned char> px(300 * 200 * 3, 128);
  ASSERT_TRUE(stbi_write_png(img.c_str(), 300, 200, 3, px.data(), 300 * 3));
  service->script("add_resource", {Value::object({{"resource_id", 101}}),
                                   Value::object({{"resource_id", 102}})});
  EXPECT_EQ(group.upload_fit_image(11, 42, img), std::make_pair(Value(101), Value(102)));

  const auto uploads = service->store->calls();
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(uploads[0].args["object_name"], "42_fitting_img");
  EXPECT_EQ(uploads[1].args["object_name"], "42_fitting_img_thumb");
  EXPECT_EQ(uploads[1].args["category"], "fitting");
  EXPECT_EQ(uploads[1].args["format"], "png");
  const Value big_at = Value::parse(R"({"bucket":"fitting","object":"42_fitting_img","n":1})");
  EXPECT_EQ(service->store->stored(big_at), kc::utils::read_file(img));
  const auto resources = service->calls_of("add_resource");
  EXPECT_EQ(resources[0].args,
            Value::object({{"file_name", ""}, {"file_format", "png"}, {"uri", big_at.dump()},
                           {"category", "fitting"}, {"source", "SDK"}, {"device_group_id", 7}}));
  EXPECT_EQ(resources[1].args["file_format"], "png");

  service->answer("get_fitting_result", Value::array());
  EXPECT_TRUE(group.read_fitting_result(42).is_null());
  service->answer("get_fitting_result", Value::parse(R"([{"fit":1,"exp_id_list":[42]},{}])"));
  EXPECT_EQ(group.read_fitting_result(42),
            Value::parse(R"({"fit":1,"exp_id_list":[42],"related_exp":[42]})"));
}

// On the embedded service: the table and both images recorded, the fit's parameters submitted
// to the space; a bad table or a missing right records nothing.
TEST(FittingResults, AreRecordedWithTheirTableAndUpdateTheSpace) {
  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv env;
  kc::testing::ScopedBackend<kc::service::EmbeddedBackend> backend(
      std::make_shared<kc::service::EmbeddedBackend>());
  CloudGroup::create_group("lab", "", 1);
  CloudGroup group("lab", "origin");
  auto exp = group.create_exp("rabi", "");
  exp.sweep("/q0/amp", {0.1, 0.2}).measure_quantity("I");
  const std::int64_t exp_id = group.submit_exp(exp).get<std::int64_t>();
  const std::int64_t space = *group.space_id;
  const std::string img = root.path() + "/fit.png";
  std::vector<unsigned char> px(64 * 48 * 3, 200);
  ASSERT_TRUE(stbi_write_png(img.c_str(), 64, 48, 3, px.data(), 64 * 3));
  const auto write = [&](const std::string& name, const std::string& text) {
    std::ofstream(root.path() + "/" + name) << text;
    return root.path() + "/" + name;
  };
  const Value table = Value::parse(
      R"({"columns": [{"name": "amp", "type": "float64", "values": [0.1, 2]},
                      {"name": "fit", "type": "complex128", "values": [[1, 0], [0.5, -0.5]]},
                      {"name": "label", "type": "text", "values": ["a", "b"]}]})");

  // Tables that are not tables are refused, naming the file and the column.
  for (const auto& [text, error] : std::vector<std::pair<std::string, std::string>>{
           {"{", "is not JSON"},
           {R"({"columns": [{"name": "a", "type": "int64", "values": [1.5]}]})",
            "column \"a\": value 0 is not of type int64"},
           {R"({"columns": [{"name": "a", "type": "int64", "values": [1]},
                            {"name": "b", "type": "text", "values": []}]})",
            "column \"b\" has 0 values, the first column 1"},
           {R"({"columns": [{"name": "a", "type": "int8", "values": []}]})", "unknown type"}}) {
    const std::string file = write("bad.json", text);
    EXPECT_THAT(error_of<kc::Error>([&] {
                  group.submit_fitting_result_with_img_id(space, exp_id, 1, 1, file);
                }),
                ::testing::AllOf(HasSubstr(file), HasSubstr(error)));
  }
  EXPECT_THAT(error_of<kc::RuntimeError>([&] {
                group.submit_fitting_result_with_img_id(space, exp_id, 1, 1, root.path() + "/none");
              }),
              HasSubstr("cannot read the fitting table " + root.path() + "/none"));
  EXPECT_TRUE(group.read_fitting_result(exp_id).is_null());

  const Value record = group.submit_fitting_result(
      space, exp_id, img,
      {.table_file = write("table.json", table.dump()),
       .space_parameters = {{"/q0/drive/pi_amp", 0.37}}});
  const Value read = group.read_fitting_result(exp_id);
  EXPECT_EQ(read["fitting_result"], table);
  EXPECT_EQ(read["related_exp"], Value::array({exp_id}));
  EXPECT_EQ(read["big_img_id"], record["big_img_id"]);
  EXPECT_NE(read["big_img_id"], read["small_img_id"]);
  EXPECT_EQ(CloudGroup("lab", "origin").get_space_parameter("/q0/drive/pi_amp"), 0.37);
  const Value history = CloudGroup::get_parameter_history(space, "/q0/drive/pi_amp");
  EXPECT_THAT(history.dump(), HasSubstr("\"experiment_id\":" + std::to_string(exp_id)));

  // Without the right to the space nothing is recorded.
  backend->engine().set_right("lab", "WRITE", false);
  EXPECT_EQ(error_of<kc::RuntimeError>([&] {
              group.submit_fitting_result_with_img_id(space, exp_id, record["big_img_id"],
                                                      record["small_img_id"], std::nullopt);
            }),
            "Permission denied.");
  EXPECT_EQ(kc::com::sub_process::get_fitting_result(exp_id).size(), 1u);
}

}  // namespace
