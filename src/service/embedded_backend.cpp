#include "korvalin_client/service/embedded_backend.hpp"

#include <utility>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::service {

EmbeddedBackend::EmbeddedBackend(std::string storage_dir)
    : engine_(std::make_shared<Engine>(std::move(storage_dir))) {}

EmbeddedBackend::EmbeddedBackend(std::shared_ptr<Engine> engine) : engine_(std::move(engine)) {
  if (!engine_) throw ValueError("EmbeddedBackend needs an engine, not null");
}

std::string EmbeddedBackend::service_identity() const { return engine_->service_identity(); }

Value EmbeddedBackend::get_group_list(const Value& page, const Value& per_page, const Value& org_id,
                                      const Value& show_hidden) {
  return engine_->get_group_list(page, per_page, org_id, show_hidden);
}

Value EmbeddedBackend::create_group(const Value& device_group_name, const Value& description,
                                    const Value& organization_id) {
  return engine_->create_group(device_group_name, description, organization_id);
}

Value EmbeddedBackend::get_group_detail(const Value& device_group_name) {
  return engine_->get_group_detail(device_group_name);
}

Value EmbeddedBackend::list_space(const Value& group_name, const Value& page, const Value& per_page,
                                  const Value& show_hidden_space) {
  return engine_->list_space(group_name, page, per_page, show_hidden_space);
}

Value EmbeddedBackend::create_space(const Value& group_name, const Value& space_name,
                                    const Value& description) {
  return engine_->create_space(group_name, space_name, description);
}

Value EmbeddedBackend::get_space_detail(const Value& space_id) {
  return engine_->get_space_detail(space_id);
}

Value EmbeddedBackend::set_space_hidden(const Value& space_id, const Value& hidden) {
  return engine_->set_space_hidden(space_id, hidden);
}

Value EmbeddedBackend::get_parameter(const Value& space_id, const Value& timestamp,
                                     const Value& parent_category) {
  return engine_->get_parameter(space_id, timestamp, parent_category);
}

Value EmbeddedBackend::get_parameter_log(const Value& space_id, const Value& timestamp) {
  return engine_->get_parameter_log(space_id, timestamp);
}

Value EmbeddedBackend::add_parameter(const Value& space_id, const Value& keys, const Value& values,
                                     const Value& types, const Value& experiment_id,
                                     const Value& node_id, const Value& session_id) {
  return engine_->add_parameter(space_id, keys, values, types, experiment_id, node_id, session_id);
}

Value EmbeddedBackend::delete_parameter(const Value& space_id, const Value& key,
                                        const Value& delete_status) {
  return engine_->delete_parameter(space_id, key, delete_status);
}

Value EmbeddedBackend::get_parameter_tree(const Value& space_id, const Value& version,
                                          const Value& parent_tree) {
  return engine_->get_parameter_tree(space_id, version, parent_tree);
}

Value EmbeddedBackend::get_parameter_history(const Value& space_id, const Value& key,
                                             const Value& page, const Value& per_page) {
  return engine_->get_parameter_history(space_id, key, page, per_page);
}

Value EmbeddedBackend::create_sub_process(const Value& organization_id, const Value& group_name,
                                          const Value& space_id, const Value& title,
                                          const Value& desc, const Value& resource_id,
                                          const Value& source, const Value& space_timestamp,
                                          const Value& template_name, const Value& exp_folder_id,
                                          const Value& priority) {
  return engine_->create_sub_process(organization_id, group_name, space_id, title, desc,
                                     resource_id, source, space_timestamp, template_name,
                                     exp_folder_id, priority);
}

Value EmbeddedBackend::get_sub_process_detail(const Value& sub_process_id) {
  return engine_->get_sub_process_detail(sub_process_id);
}

Value EmbeddedBackend::get_sub_process_result(const Value& sub_process_id,
                                              const Value& start_piece_id,
                                              const Value& end_piece_id) {
  return engine_->get_sub_process_result(sub_process_id, start_piece_id, end_piece_id);
}

Value EmbeddedBackend::get_sub_process_msg(const Value& sub_process_id) {
  return engine_->get_sub_process_msg(sub_process_id);
}

Value EmbeddedBackend::list_sub_processes(const Value& space_id, const Value& page,
                                          const Value& per_page) {
  return engine_->list_sub_processes(space_id, page, per_page);
}

Value EmbeddedBackend::list_new_experiments(const Value& space_id, const Value& since_exp_id,
                                            const Value& exp_folder_id, const Value& limit) {
  return engine_->list_new_experiments(space_id, since_exp_id, exp_folder_id, limit);
}

Value EmbeddedBackend::list_sub_processes_by_folder(const Value& space_id,
                                                    const Value& exp_folder_id,
                                                    const Value& before_exp_id,
                                                    const Value& limit) {
  return engine_->list_sub_processes_by_folder(space_id, exp_folder_id, before_exp_id, limit);
}

Value EmbeddedBackend::count_experiments_by_folder(const Value& space_id,
                                                   const Value& exp_folder_id) {
  return engine_->count_experiments_by_folder(space_id, exp_folder_id);
}

Value EmbeddedBackend::terminate_sub_process(const Value& sub_process_id) {
  return engine_->terminate_sub_process(sub_process_id);
}

Value EmbeddedBackend::download_result_chunk_from_cache(const Value& sub_process_id,
                                                        const Value& chunk_id) {
  return engine_->download_result_chunk_from_cache(sub_process_id, chunk_id);
}

Value EmbeddedBackend::create_exp_folder(const Value& space_id, const Value& exp_folder_name,
                                         const Value& parent_exp_folder_id) {
  return engine_->create_exp_folder(space_id, exp_folder_name, parent_exp_folder_id);
}

Value EmbeddedBackend::list_exp_folders_by_parent(const Value& device_group_name,
                                                  const Value& space_id,
                                                  const Value& parent_exp_folder_id) {
  return engine_->list_exp_folders_by_parent(device_group_name, space_id, parent_exp_folder_id);
}

Value EmbeddedBackend::add_fitting_result(const Value& sub_process_id, const Value& space_id,
                                          const Value& big_img_id, const Value& small_img_id,
                                          const Value& fitting_result) {
  return engine_->add_fitting_result(sub_process_id, space_id, big_img_id, small_img_id,
                                     fitting_result);
}

Value EmbeddedBackend::get_fitting_result(const Value& sub_process_id) {
  return engine_->get_fitting_result(sub_process_id);
}

Value EmbeddedBackend::add_resource(const Value& file_name, const Value& file_format,
                                    const Value& uri, const Value& category, const Value& source,
                                    const Value& device_group_id) {
  return engine_->add_resource(file_name, file_format, uri, category, source, device_group_id);
}

Value EmbeddedBackend::get_resource_info(const Value& resource_ids) {
  return engine_->get_resource_info(resource_ids);
}

std::shared_ptr<com::minio::MinIOAPI> EmbeddedBackend::get_minio_client(
    const Value& organization_id) {
  return engine_->get_minio_client(organization_id);
}

Value EmbeddedBackend::check_device_permission_by_name(const Value& group_name,
                                                       const Value& access) {
  return engine_->check_device_permission_by_name(group_name, access);
}

Value EmbeddedBackend::check_space_permission_by_id(const Value& space_id) {
  return engine_->check_space_permission_by_id(space_id);
}

}  // namespace korvalin_client::service
