// connection_manager: which service backend the korvalin_client::com functions talk to.
#pragma once

#include <memory>
#include <string>

#include "korvalin_client/com/backend.hpp"

namespace korvalin_client::com::connection_manager {

// Installs the backend every service function forwards to (null uninstalls it) and returns
// the one installed before. Thread-safe; calls already running keep their backend.
std::shared_ptr<Backend> set_backend(std::shared_ptr<Backend> backend);

// The installed backend. A RuntimeError when none is installed.
std::shared_ptr<Backend> get_backend();

// How the client is connected: the installed backend's connection type, or "none".
std::string get_connection_type();

}  // namespace korvalin_client::com::connection_manager
