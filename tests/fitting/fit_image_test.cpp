// Fit images stored as "fitting" resources, and fitting results read back.
#include <stb_image_write.h>

#include <fstream>

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

TEST_F(FittingTest, TheImageAndItsReducedCopyBecomeTwoResources) {
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
}

TEST_F(FittingTest, RefusalsUploadNothingAndReadingTakesTheFirstRecord) {
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

  service->answer("get_fitting_result", Value::array());
  EXPECT_TRUE(group.read_fitting_result(42).is_null());
  service->answer("get_fitting_result", Value::parse(R"([{"fit":1,"exp_id_list":[42]},{}])"));
  EXPECT_EQ(group.read_fitting_result(42),
            Value::parse(R"({"fit":1,"exp_id_list":[42],"related_exp":[42]})"));
}

}  // namespace
