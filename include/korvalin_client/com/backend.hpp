// Backend: the service behind every korvalin_client::com function.
//
// Every service function of the catalogue (operations.hpp) arrives at call(), Value in and
// Value out, with the arguments in the order and meaning of the typed free functions that
// forward to it (see device.hpp, space.hpp, sub_process.hpp, oss.hpp, user.hpp); the object
// store comes from get_minio_client() (minio.hpp). A backend reports failure by throwing.
// Implementations must be thread-safe: the parallel result download calls
// download_result_chunk_from_cache and the object store from several threads.
#pragma once

#include <memory>
#include <string>

#include "korvalin_client/com/operations.hpp"
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

  // Answers one operation of the catalogue (operations.hpp) with its arguments in the
  // catalogue's order.
  virtual Value call(Operation op, const Args& args) = 0;

  // A client of the organisation's object store.
  virtual std::shared_ptr<minio::MinIOAPI> get_minio_client(const Value& organization_id) = 0;
};

}  // namespace korvalin_client::com
