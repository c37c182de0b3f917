// Service functions about experiments (the service calls them sub-processes), their
// results, folders and fitting results.
#pragma once

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::com::sub_process {

// Creates (submits) an experiment; the answer carries "sub_process_id".
Value create_sub_process(const Value& organization_id, const Value& group_name,
                         const Value& space_id, const Value& title, const Value& desc,
                         const Value& resource_id = nullptr, const Value& source = "SDK",
                         const Value& space_timestamp = nullptr,
                         const Value& template_name = nullptr,
                         const Value& exp_folder_id = nullptr, const Value& priority = nullptr);
// An experiment's detail record ("create_time", "space_id", "resource_id", "status", ...).
Value get_sub_process_detail(const Value& sub_process_id);
// Result-metadata records of pieces `start_piece_id` to `end_piece_id`
// ({"piece_id", "resource_id", "final_piece", ...}).
Value get_sub_process_result(const Value& sub_process_id, const Value& start_piece_id,
                             const Value& end_piece_id);
// An experiment's message log: a list of records with "timestamp".
Value get_sub_process_msg(const Value& sub_process_id);
// A page of a space's experiments: a mapping whose "list" holds records with
// "sub_process_id".
Value list_sub_processes(const Value& space_id, const Value& page, const Value& per_page);
// Experiments newer than `since_exp_id`, optionally of one folder.
Value list_new_experiments(const Value& space_id, const Value& since_exp_id,
                           const Value& exp_folder_id, const Value& limit);
// One folder's experiments older than `before_exp_id` (null: from the newest).
Value list_sub_processes_by_folder(const Value& space_id, const Value& exp_folder_id,
                                   const Value& before_exp_id, const Value& limit);
// How many experiments a folder holds.
Value count_experiments_by_folder(const Value& space_id, const Value& exp_folder_id);
// Stops a running experiment.
Value terminate_sub_process(const Value& sub_process_id);
// One result chunk from the service's result cache: bytes (a binary Value).
Value download_result_chunk_from_cache(const Value& sub_process_id, const Value& chunk_id);
// Creates one experiment folder under `parent_exp_folder_id` (null: the space's root);
// the answer carries "exp_folder_id".
Value create_exp_folder(const Value& space_id, const Value& exp_folder_name,
                        const Value& parent_exp_folder_id = nullptr);
// The child folders of a folder: records with "exp_folder_name", "exp_folder_id".
Value list_exp_folders_by_parent(const Value& device_group_name, const Value& space_id,
                                 const Value& parent_exp_folder_id);
// Records a fitting result of an experiment with its two image resources.
Value add_fitting_result(const Value& sub_process_id, const Value& space_id,
                         const Value& big_img_id, const Value& small_img_id,
                         const Value& fitting_result);
// The fitting results recorded for an experiment: a list of records (may be empty).
Value get_fitting_result(const Value& sub_process_id);

}  // namespace korvalin_client::com::sub_process
