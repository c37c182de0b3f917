// Opening what a command names: a device group (with or without selecting a space), a space of
// an open group, and an experiment together with the group it belongs to.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "korvalin_client/group/cloud_group.hpp"

namespace korvalin_app {

using korvalin_client::group::CloudGroup;

// The group `group`, with the space `space` selected (its parameters synchronised) when given.
std::unique_ptr<CloudGroup> open_group(const std::string& group,
                                       const std::optional<std::string>& space = std::nullopt);

// The id of the space `space` of an open group, named by its id or its name (hidden spaces
// too), without selecting it. A RuntimeError naming the space and group when there is none.
std::int64_t find_space_id(CloudGroup& group, const std::string& space);

struct OpenExperiment {
  std::unique_ptr<CloudGroup> group;  // the experiment's group, no space selected
  korvalin_client::Value detail;      // its detail record as the service had it
};
// Experiment `exp_id` and its group (found among the groups the user sees). A RuntimeError
// naming the experiment when the service does not know it.
OpenExperiment open_experiment(std::int64_t exp_id);

// Experiment `exp_id`'s record once its status is final. A pull that waited ends at the final
// piece, which the device stores just before it records the final status: this gives that
// status a moment (pausing through the Env, a minute at most) and then answers what is there.
korvalin_client::Value settled_experiment(std::int64_t exp_id);

}  // namespace korvalin_app
