// The client end to end over the embedded service: a CloudGroup with EmbeddedBackend
// installed creates a group, shares parameters between two group objects and files an
// experiment in a folder path.
#include <gtest/gtest.h>

#include <memory>

#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/service/embedded_backend.hpp"
#include "support/fake_env.hpp"
#include "support/temp_dir.hpp"

namespace kc = korvalin_client;
using kc::Value;
using kc::group::CloudGroup;

namespace {

TEST(EmbeddedClient, CloudGroupRunsOverTheEmbeddedService) {
  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv clock;
  auto backend = std::make_shared<kc::service::EmbeddedBackend>();
  const auto previous = kc::com::connection_manager::set_backend(backend);
  struct Restore {
    std::shared_ptr<kc::com::Backend> backend;
    ~Restore() { kc::com::connection_manager::set_backend(backend); }
  } restore{previous};
  EXPECT_EQ(kc::com::connection_manager::get_connection_type(), "embedded");

  CloudGroup::create_group("lab", "bench", 1);
  CloudGroup writer("lab", "origin");
  writer.set_space_parameter("/q0/freq", 5.5);
  writer.set_space_parameter("q0/name", "drive");
  writer.submit_space_parameter();

  clock.advance(5);
  CloudGroup reader("lab", "origin");
  EXPECT_EQ(reader.get_space_parameter("/q0/freq"), 5.5);
  EXPECT_EQ(reader.get_space_parameter("/q0/name"), "drive");

  clock.advance(5);
  writer.set_space_parameter("/q0/freq", 6.25);
  writer.submit_space_parameter();
  EXPECT_EQ(reader.download_space_parameter(), std::vector<std::string>{"/q0/freq"});
  EXPECT_EQ(reader.get_space_parameter("/q0/freq"), 6.25);

  auto exp = writer.create_exp("Rabi", "amplitude sweep");
  exp.sweep("/q0/amp", {0.1, 0.2}).measure_quantity("I");
  const Value exp_id = writer.submit_exp(exp, {.exp_folder_path = "a/b"});
  const auto [copy, detail, space] = reader.get_experiment_detail(exp_id.get<std::int64_t>());
  EXPECT_EQ(copy, exp);
  EXPECT_EQ(detail["status"], "queued");
  EXPECT_EQ(space["space_name"], "origin");
  const Value b = writer.create_exp_folder(*writer.space_id, "a/b");
  EXPECT_EQ(detail["exp_folder_id"], b["exp_folder_id"]);
  EXPECT_EQ(CloudGroup::list_exps_by_folder(
                *writer.space_id, b["exp_folder_id"].get<std::int64_t>())["list"][0]["exp_id"],
            exp_id);
}

}  // namespace
