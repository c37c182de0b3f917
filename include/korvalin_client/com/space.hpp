// Service functions about spaces and their parameters.
#pragma once

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::com::space {

// A page of a group's spaces: a mapping whose "list" holds space records
// ("space_id", "space_name", ...).
Value list_space(const Value& group_name, const Value& page, const Value& per_page,
                 const Value& show_hidden_space);
// Creates a space in a group; the answer carries "space_id".
Value create_space(const Value& group_name, const Value& space_name, const Value& description);
// One space's record ("space_name", ...).
Value get_space_detail(const Value& space_id);
// Hides (true) or shows (false) a space.
Value set_space_hidden(const Value& space_id, const Value& hidden);
// The whole parameter set as of `timestamp`: a list of {"key", "value", "type"} records.
Value get_parameter(const Value& space_id, const Value& timestamp,
                    const Value& parent_category = nullptr);
// The change log since `timestamp`: a list of {"k_full", "v", "t", "deleted_flag"} records.
Value get_parameter_log(const Value& space_id, const Value& timestamp);
// Stores parameters given as three parallel lists (keys, serialised values, types), tagged
// with the experiment, node and session they came from (each may be null).
Value add_parameter(const Value& space_id, const Value& keys, const Value& values,
                    const Value& types, const Value& experiment_id = nullptr,
                    const Value& node_id = nullptr, const Value& session_id = nullptr);
// Removes one parameter.
Value delete_parameter(const Value& space_id, const Value& key, const Value& delete_status);
// One level of the parameter tree under `parent_tree` ("" for the root, else "/a/b"):
// a list of nodes {"node_name", "expandable"[, "v", "t"]}.
Value get_parameter_tree(const Value& space_id, const Value& version, const Value& parent_tree);
// One page of a key's change history: a pair [records, total].
Value get_parameter_history(const Value& space_id, const Value& key, const Value& page,
                            const Value& per_page);

}  // namespace korvalin_client::com::space
