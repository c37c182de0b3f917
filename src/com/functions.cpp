// The service functions: each forwards to the installed backend unchanged.
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/device.hpp"
#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/com/oss.hpp"
#include "korvalin_client/com/space.hpp"
#include "korvalin_client/com/sub_process.hpp"
#include "korvalin_client/com/user.hpp"

namespace korvalin_client::com {
namespace {

Backend& backend_for_call(std::shared_ptr<Backend>& keep) {
  keep = connection_manager::get_backend();
  return *keep;
}

}  // namespace

// The backend is held for the length of the call, so uninstalling it meanwhile is safe.
#define KORVALIN_FORWARD(call)          \
  std::shared_ptr<Backend> keep;        \
  return backend_for_call(keep).call

namespace device {

Value get_group_list(const Value& page, const Value& per_page, const Value& org_id,
                     const Value& show_hidden) {
  KORVALIN_FORWARD(get_group_list(page, per_page, org_id, show_hidden));
}
Value create_group(const Value& device_group_name, const Value& description,
                   const Value& organization_id) {
  KORVALIN_FORWARD(create_group(device_group_name, description, organization_id));
}
Value get_group_detail(const Value& device_group_name) {
  KORVALIN_FORWARD(get_group_detail(device_group_name));
}

}  // namespace device

namespace space {

Value list_space(const Value& group_name, const Value& page, const Value& per_page,
                 const Value& show_hidden_space) {
  KORVALIN_FORWARD(list_space(group_name, page, per_page, show_hidden_space));
}
Value create_space(const Value& group_name, const Value& space_name, const Value& description) {
  KORVALIN_FORWARD(create_space(group_name, space_name, description));
}
Value get_space_detail(const Value& space_id) { KORVALIN_FORWARD(get_space_detail(space_id)); }
Value set_space_hidden(const Value& space_id, const Value& hidden) {
  KORVALIN_FORWARD(set_space_hidden(space_id, hidden));
}
Value get_parameter(const Value& space_id, const Value& timestamp, const Value& parent_category) {
  KORVALIN_FORWARD(get_parameter(space_id, timestamp, parent_category));
}
Value get_parameter_log(const Value& space_id, const Value& timestamp) {
  KORVALIN_FORWARD(get_parameter_log(space_id, timestamp));
}
Value add_parameter(const Value& space_id, const Value& keys, const Value& values,
                    const Value& types, const Value& experiment_id, const Value& node_id,
                    const Value& session_id) {
  KORVALIN_FORWARD(
      add_parameter(space_id, keys, values, types, experiment_id, node_id, session_id));
}
Value delete_parameter(const Value& space_id, const Value& key, const Value& delete_status) {
  KORVALIN_FORWARD(delete_parameter(space_id, key, delete_status));
}
Value get_parameter_tree(const Value& space_id, const Value& version, const Value& parent_tree) {
  KORVALIN_FORWARD(get_parameter_tree(space_id, version, parent_tree));
}
Value get_parameter_history(const Value& space_id, const Value& key, const Value& page,
                            const Value& per_page) {
  KORVALIN_FORWARD(get_parameter_history(space_id, key, page, per_page));
}

}  // namespace space

namespace sub_process {

Value create_sub_process(const Value& organization_id, const Value& group_name,
                         const Value& space_id, const Value& title, const Value& desc,
                         const Value& resource_id, const Value& source,
                         const Value& space_timestamp, const Value& template_name,
                         const Value& exp_folder_id, const Value& priority) {
  KORVALIN_FORWARD(create_sub_process(organization_id, group_name, space_id, title, desc,
                                      resource_id, source, space_timestamp, template_name,
                                      exp_folder_id, priority));
}
Value get_sub_process_detail(const Value& sub_process_id) {
  KORVALIN_FORWARD(get_sub_process_detail(sub_process_id));
}
Value get_sub_process_result(const Value& sub_process_id, const Value& start_piece_id,
                             const Value& end_piece_id) {
  KORVALIN_FORWARD(get_sub_process_result(sub_process_id, start_piece_id, end_piece_id));
}
Value get_sub_process_msg(const Value& sub_process_id) {
  KORVALIN_FORWARD(get_sub_process_msg(sub_process_id));
}
Value list_sub_processes(const Value& space_id, const Value& page, const Value& per_page) {
  KORVALIN_FORWARD(list_sub_processes(space_id, page, per_page));
}
Value list_new_experiments(const Value& space_id, const Value& since_exp_id,
                           const Value& exp_folder_id, const Value& limit) {
  KORVALIN_FORWARD(list_new_experiments(space_id, since_exp_id, exp_folder_id, limit));
}
Value list_sub_processes_by_folder(const Value& space_id, const Value& exp_folder_id,
                                   const Value& before_exp_id, const Value& limit) {
  KORVALIN_FORWARD(list_sub_processes_by_folder(space_id, exp_folder_id, before_exp_id, limit));
}
Value count_experiments_by_folder(const Value& space_id, const Value& exp_folder_id) {
  KORVALIN_FORWARD(count_experiments_by_folder(space_id, exp_folder_id));
}
Value terminate_sub_process(const Value& sub_process_id) {
  KORVALIN_FORWARD(terminate_sub_process(sub_process_id));
}
Value download_result_chunk_from_cache(const Value& sub_process_id, const Value& chunk_id) {
  KORVALIN_FORWARD(download_result_chunk_from_cache(sub_process_id, chunk_id));
}
Value create_exp_folder(const Value& space_id, const Value& exp_folder_name,
                        const Value& parent_exp_folder_id) {
  KORVALIN_FORWARD(create_exp_folder(space_id, exp_folder_name, parent_exp_folder_id));
}
Value list_exp_folders_by_parent(const Value& device_group_name, const Value& space_id,
                                 const Value& parent_exp_folder_id) {
  KORVALIN_FORWARD(list_exp_folders_by_parent(device_group_name, space_id, parent_exp_folder_id));
}
Value add_fitting_result(const Value& sub_process_id, const Value& space_id,
                         const Value& big_img_id, const Value& small_img_id,
                         const Value& fitting_result) {
  KORVALIN_FORWARD(
      add_fitting_result(sub_process_id, space_id, big_img_id, small_img_id, fitting_result));
}
Value get_fitting_result(const Value& sub_process_id) {
  KORVALIN_FORWARD(get_fitting_result(sub_process_id));
}

}  // namespace sub_process

namespace oss {

Value add_resource(const Value& file_name, const Value& file_format, const Value& uri,
                   const Value& category, const Value& source, const Value& device_group_id) {
  KORVALIN_FORWARD(add_resource(file_name, file_format, uri, category, source, device_group_id));
}
Value get_resource_info(const Value& resource_ids) {
  KORVALIN_FORWARD(get_resource_info(resource_ids));
}

}  // namespace oss

namespace minio {

std::shared_ptr<MinIOAPI> get_minio_client(const Value& organization_id) {
  KORVALIN_FORWARD(get_minio_client(organization_id));
}

}  // namespace minio

namespace user {

Value check_device_permission_by_name(const Value& group_name, const Value& access) {
  KORVALIN_FORWARD(check_device_permission_by_name(group_name, access));
}
Value check_space_permission_by_id(const Value& space_id) {
  KORVALIN_FORWARD(check_space_permission_by_id(space_id));
}

}  // namespace user

#undef KORVALIN_FORWARD

}  // namespace korvalin_client::com
