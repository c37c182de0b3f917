// Service functions about stored resources (files in object storage known to the service).
#pragma once

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::com::oss {

// Registers a stored file: name, format, JSON text of its storage location, kind
// ("exp", "exp_attachment", "fitting", ...) and source. The answer carries "resource_id".
Value add_resource(const Value& file_name, const Value& file_format, const Value& uri,
                   const Value& category, const Value& source,
                   const Value& device_group_id = nullptr);
// Where stored files lie: given one resource id or a list of them, a mapping with "total"
// and "list" (records with "resource_id", "uri", "file_name", "file_format").
Value get_resource_info(const Value& resource_ids);

}  // namespace korvalin_client::com::oss
