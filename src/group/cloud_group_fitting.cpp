// CloudGroup: fit images of experiments, fitting results recorded and read back.
#include <tuple>

#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/com/oss.hpp"
#include "korvalin_client/com/sub_process.hpp"
#include "korvalin_client/com/user.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/images.hpp"
#include "fitting_table.hpp"

namespace korvalin_client::group {

namespace {

// Stores one image as a "fitting" resource (registered without a name) and returns its id.
Value store_fitting_image(CloudGroup& g, const std::string& object_name, const Bytes& data,
                          const std::string& img_ext) {
  const Value img_uri = g.minio->upload(object_name, data, "fitting", img_ext);
  const Value resource =
      com::oss::add_resource("", img_ext, img_uri.dump(), "fitting", "SDK", g.device_group_id());
  return require_key(resource, "resource_id");
}

}  // namespace

std::pair<Value, Value> CloudGroup::upload_fit_image(std::int64_t space_id, std::int64_t exp_id,
                                                     const std::string& img_file) {
  if (!truthy(com::user::check_space_permission_by_id(space_id))) {
    throw RuntimeError("Permission denied.");
  }
  if (!minio) minio = com::minio::get_minio_client(organization_id());

  std::string small_img_file;
  std::string img_ext;
  try {
    std::tie(small_img_file, img_ext) = utils::compress_image_to_128(img_file);
  } catch (const std::exception& e) {
    throw RuntimeError("Cannot compress image (" + img_file + ") to 128 format: " + e.what());
  }

  // Both copies are stored in the format of the reduced copy.
  const Bytes img_data = utils::read_file(img_file);
  Value big_img_id =
      store_fitting_image(*this, std::to_string(exp_id) + "_fitting_img", img_data, img_ext);
  const Bytes small_img_data = utils::read_file(small_img_file);
  Value small_img_id = store_fitting_image(*this, std::to_string(exp_id) + "_fitting_img_thumb",
                                           small_img_data, img_ext);
  return {std::move(big_img_id), std::move(small_img_id)};
}

Value CloudGroup::read_fitting_result(std::int64_t exp_id) {
  // Made here although reading needs no object storage, like the other readers of results.
  if (!minio) minio = com::minio::get_minio_client(organization_id());

  Value res = com::sub_process::get_fitting_result(exp_id);
  if (!truthy(res)) return nullptr;
  if (!res.is_array()) {
    throw TypeError(std::string("the fitting results must be a list, not ") + kind_name(res));
  }
  Value record = std::move(res[0]);
  Value exp_id_list = require_key(record, "exp_id_list");
  record["related_exp"] = std::move(exp_id_list);
  return record;
}

Value CloudGroup::submit_fitting_result(std::int64_t space_id, std::int64_t exp_id,
                                        const std::string& img_file,
                                        const FittingOptions& options) {
  auto [big_img_id, small_img_id] = upload_fit_image(space_id, exp_id, img_file);
  return submit_fitting_result_with_img_id(space_id, exp_id, big_img_id, small_img_id,
                                           options.table_file, options.space_parameters,
                                           options.update_space);
}

Value CloudGroup::submit_fitting_result_with_img_id(std::int64_t space_id, std::int64_t exp_id,
                                                    const Value& big_img_id,
                                                    const Value& small_img_id,
                                                    const std::optional<std::string>& table_file,
                                                    const Value& space_parameters,
                                                    bool update_space) {
  if (!truthy(com::user::check_space_permission_by_id(space_id))) {
    throw RuntimeError("Permission denied.");
  }
  expect_int(big_img_id, "big_img_id");
  expect_int(small_img_id, "small_img_id");
  const bool updating = update_space && !space_parameters.is_null();
  if (updating) {
    expect_mapping_or_null(space_parameters, "space_parameters");
    if (this->space_id != space_id) {
      throw ValueError("space_parameters can only update the selected space (" +
                       (this->space_id ? std::to_string(*this->space_id) : std::string("none")) +
                       "), not space " + std::to_string(space_id));
    }
  }
  // Everything is checked before anything is recorded.
  const Value table = table_file ? read_fitting_table(*table_file)
                                 : Value{{"columns", Value::array()}};
  Value record = com::sub_process::add_fitting_result(exp_id, space_id, big_img_id, small_img_id,
                                                      table);
  if (updating) {
    for (const auto& [key, value] : space_parameters.items()) set_space_parameter(key, value);
    submit_space_parameter(exp_id);
  }
  return record;
}

}  // namespace korvalin_client::group
