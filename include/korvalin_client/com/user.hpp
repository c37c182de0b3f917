// Service functions about the user's rights.
#pragma once

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::com::user {

// Whether the user has the right `access` ("READ"; null asks for the right to write) on the
// named device group. The answer is taken by its truth value.
Value check_device_permission_by_name(const Value& group_name, const Value& access = nullptr);
// Whether the user may write to the space. The answer is taken by its truth value.
Value check_space_permission_by_id(const Value& space_id);

}  // namespace korvalin_client::com::user
