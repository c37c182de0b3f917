// EmbeddedBackend: the service in this process. A com::Backend whose every function is
// answered by a service::Engine over the local storage directory, so the client runs on one
// machine with no server:
//
//   com::connection_manager::set_backend(std::make_shared<service::EmbeddedBackend>());
#pragma once

#include <memory>
#include <string>

#include "korvalin_client/com/backend.hpp"
#include "korvalin_client/service/engine.hpp"

namespace korvalin_client::service {

class EmbeddedBackend : public com::Backend {
 public:
  // An Engine of its own over `storage_dir` (empty: utils::get_local_storage_dir()).
  explicit EmbeddedBackend(std::string storage_dir = "");
  // Shares an Engine (for example with device execution in the same process).
  explicit EmbeddedBackend(std::shared_ptr<Engine> engine);

  Engine& engine() { return *engine_; }
  const std::shared_ptr<Engine>& shared_engine() const { return engine_; }

  std::string connection_type() const override { return "embedded"; }
  // The identity of the store, made when it was created.
  std::string service_identity() const override;

  Value get_group_list(const Value& page, const Value& per_page, const Value& org_id,
                       const Value& show_hidden) override;
  Value create_group(const Value& device_group_name, const Value& description,
                     const Value& organization_id) override;
  Value get_group_detail(const Value& device_group_name) override;

  Value list_space(const Value& group_name, const Value& page, const Value& per_page,
                   const Value& show_hidden_space) override;
  Value create_space(const Value& group_name, const Value& space_name,
                     const Value& description) override;
  Value get_space_detail(const Value& space_id) override;
  Value set_space_hidden(const Value& space_id, const Value& hidden) override;
  Value get_parameter(const Value& space_id, const Value& timestamp,
                      const Value& parent_category) override;
  Value get_parameter_log(const Value& space_id, const Value& timestamp) override;
  Value add_parameter(const Value& space_id, const Value& keys, const Value& values,
                      const Value& types, const Value& experiment_id, const Value& node_id,
                      const Value& session_id) override;
  Value delete_parameter(const Value& space_id, const Value& key,
                         const Value& delete_status) override;
  Value get_parameter_tree(const Value& space_id, const Value& version,
                           const Value& parent_tree) override;
  Value get_parameter_history(const Value& space_id, const Value& key, const Value& page,
                              const Value& per_page) override;

  Value create_sub_process(const Value& organization_id, const Value& group_name,
                           const Value& space_id, const Value& title, const Value& desc,
                           const Value& resource_id, const Value& source,
                           const Value& space_timestamp, const Value& template_name,
                           const Value& exp_folder_id, const Value& priority) override;
  Value get_sub_process_detail(const Value& sub_process_id) override;
  Value get_sub_process_result(const Value& sub_process_id, const Value& start_piece_id,
                               const Value& end_piece_id) override;
  Value get_sub_process_msg(const Value& sub_process_id) override;
  Value list_sub_processes(const Value& space_id, const Value& page,
                           const Value& per_page) override;
  Value list_new_experiments(const Value& space_id, const Value& since_exp_id,
                             const Value& exp_folder_id, const Value& limit) override;
  Value list_sub_processes_by_folder(const Value& space_id, const Value& exp_folder_id,
                                     const Value& before_exp_id, const Value& limit) override;
  Value count_experiments_by_folder(const Value& space_id, const Value& exp_folder_id) override;
  Value terminate_sub_process(const Value& sub_process_id) override;
  Value download_result_chunk_from_cache(const Value& sub_process_id,
                                         const Value& chunk_id) override;
  Value create_exp_folder(const Value& space_id, const Value& exp_folder_name,
                          const Value& parent_exp_folder_id) override;
  Value list_exp_folders_by_parent(const Value& device_group_name, const Value& space_id,
                                   const Value& parent_exp_folder_id) override;
  Value add_fitting_result(const Value& sub_process_id, const Value& space_id,
                           const Value& big_img_id, const Value& small_img_id,
                           const Value& fitting_result) override;
  Value get_fitting_result(const Value& sub_process_id) override;

  Value add_resource(const Value& file_name, const Value& file_format, const Value& uri,
                     const Value& category, const Value& source,
                     const Value& device_group_id) override;
  Value get_resource_info(const Value& resource_ids) override;

  std::shared_ptr<com::minio::MinIOAPI> get_minio_client(const Value& organization_id) override;

  Value check_device_permission_by_name(const Value& group_name, const Value& access) override;
  Value check_space_permission_by_id(const Value& space_id) override;

 private:
  std::shared_ptr<Engine> engine_;
};

}  // namespace korvalin_client::service
