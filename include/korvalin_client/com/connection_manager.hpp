// connection_manager: which service backend the korvalin_client::com functions talk to.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "korvalin_client/com/backend.hpp"

namespace korvalin_client::com::connection_manager {

// Installs the backend every service function forwards to (null uninstalls it) and returns
// the one installed before. Thread-safe; calls already running keep their backend.
std::shared_ptr<Backend> set_backend(std::shared_ptr<Backend> backend);

// Connects to a `korvalin serve` server at `url` ("http://host:port") as the user whose token
// is `token`: installs an HttpBackend (http_backend.hpp) and returns the backend installed
// before. Nothing is sent until the first call.
std::shared_ptr<Backend> connect(const std::string& url, const std::string& token);

// Makes the backend to install on first use when none is installed. A program that links the
// embedded service's default registration (the `korvalin_embedded` CMake target) gets one that starts
// the embedded service; tests and programs without it have none. Null removes it.
using BackendFactory = std::function<std::shared_ptr<Backend>()>;
void set_default_backend_factory(BackendFactory factory);

// The installed backend; when none is installed, the default one (installed now). A
// RuntimeError when there is neither.
std::shared_ptr<Backend> get_backend();

// How the client is connected: the backend's connection type (the default one is installed if
// needed), or "none".
std::string get_connection_type();

}  // namespace korvalin_client::com::connection_manager
