// Backend: the service behind every korvalin_client::com function.
//
// One virtual per service function, Value in and Value out, arguments in the order and
// meaning of the free functions that forward to them (see device.hpp, space.hpp,
// sub_process.hpp, oss.hpp, minio.hpp, user.hpp). A backend reports failure by throwing.
// Implementations must be thread-safe: the parallel result download calls
// download_result_chunk_from_cache and the object store from several threads.
#pragma once

#include <memory>
#include <string>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::com {

namespace minio {
class MinIOAPI;
}

class Backend {
 public:
  virtual ~Backend() = default;

  // How the client is connected, for example "embedded" or "http".
  virtual std::string connection_type() const = 0;

  // Who the service is: a name made once when its store was created, the same through every
  // connection to it and different for every other service (letters, digits, '.', '_', '-').
  // The client keeps each service's cache apart under it (utils::get_cache_dir()), so one
  // service's parameters and results are never taken for another's. Empty only for test
  // doubles, whose cache is not kept apart.
  virtual std::string service_identity() const = 0;

  // device
  virtual Value get_group_list(const Value& page, const Value& per_page, const Value& org_id,
                               const Value& show_hidden) = 0;
  virtual Value create_group(const Value& device_group_name, const Value& description,
                             const Value& organization_id) = 0;
  virtual Value get_group_detail(const Value& device_group_name) = 0;

  // space
  virtual Value list_space(const Value& group_name, const Value& page, const Value& per_page,
                           const Value& show_hidden_space) = 0;
  virtual Value create_space(const Value& group_name, const Value& space_name,
                             const Value& description) = 0;
  virtual Value get_space_detail(const Value& space_id) = 0;
  virtual Value set_space_hidden(const Value& space_id, const Value& hidden) = 0;
  virtual Value get_parameter(const Value& space_id, const Value& timestamp,
                              const Value& parent_category) = 0;
  virtual Value get_parameter_log(const Value& space_id, const Value& timestamp) = 0;
  virtual Value add_parameter(const Value& space_id, const Value& keys, const Value& values,
                              const Value& types, const Value& experiment_id,
                              const Value& node_id, const Value& session_id) = 0;
  virtual Value delete_parameter(const Value& space_id, const Value& key,
                                 const Value& delete_status) = 0;
  virtual Value get_parameter_tree(const Value& space_id, const Value& version,
                                   const Value& parent_tree) = 0;
  virtual Value get_parameter_history(const Value& space_id, const Value& key, const Value& page,
                                      const Value& per_page) = 0;

  // sub_process
  virtual Value create_sub_process(const Value& organization_id, const Value& group_name,
                                   const Value& space_id, const Value& title, const Value& desc,
                                   const Value& resource_id, const Value& source,
                                   const Value& space_timestamp, const Value& template_name,
                                   const Value& exp_folder_id, const Value& priority) = 0;
  virtual Value get_sub_process_detail(const Value& sub_process_id) = 0;
  virtual Value get_sub_process_result(const Value& sub_process_id, const Value& start_piece_id,
                                       const Value& end_piece_id) = 0;
  virtual Value get_sub_process_msg(const Value& sub_process_id) = 0;
  virtual Value list_sub_processes(const Value& space_id, const Value& page,
                                   const Value& per_page) = 0;
  virtual Value list_new_experiments(const Value& space_id, const Value& since_exp_id,
                                     const Value& exp_folder_id, const Value& limit) = 0;
  virtual Value list_sub_processes_by_folder(const Value& space_id, const Value& exp_folder_id,
                                             const Value& before_exp_id, const Value& limit) = 0;
  virtual Value count_experiments_by_folder(const Value& space_id,
                                            const Value& exp_folder_id) = 0;
  virtual Value terminate_sub_process(const Value& sub_process_id) = 0;
  virtual Value download_result_chunk_from_cache(const Value& sub_process_id,
                                                 const Value& chunk_id) = 0;
  virtual Value create_exp_folder(const Value& space_id, const Value& exp_folder_name,
                                  const Value& parent_exp_folder_id) = 0;
  virtual Value list_exp_folders_by_parent(const Value& device_group_name,
                                           const Value& space_id,
                                           const Value& parent_exp_folder_id) = 0;
  virtual Value add_fitting_result(const Value& sub_process_id, const Value& space_id,
                                   const Value& big_img_id, const Value& small_img_id,
                                   const Value& fitting_result) = 0;
  virtual Value get_fitting_result(const Value& sub_process_id) = 0;

  // oss
  virtual Value add_resource(const Value& file_name, const Value& file_format, const Value& uri,
                             const Value& category, const Value& source,
                             const Value& device_group_id) = 0;
  virtual Value get_resource_info(const Value& resource_ids) = 0;

  // minio
  virtual std::shared_ptr<minio::MinIOAPI> get_minio_client(const Value& organization_id) = 0;

  // user
  virtual Value check_device_permission_by_name(const Value& group_name,
                                                const Value& access) = 0;
  virtual Value check_space_permission_by_id(const Value& space_id) = 0;
};

}  // namespace korvalin_client::com
