// Service functions about device groups.
#pragma once

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::com::device {

// A page of the device groups visible to the user; `org_id` null means every organisation.
Value get_group_list(const Value& page, const Value& per_page, const Value& org_id,
                     const Value& show_hidden);
// Creates a device group in an organisation and returns the service's record of it.
Value create_group(const Value& device_group_name, const Value& description,
                   const Value& organization_id);
// One group's record: "device_group_id", "organization_id", "organization_name", ...
Value get_group_detail(const Value& device_group_name);

}  // namespace korvalin_client::com::device
