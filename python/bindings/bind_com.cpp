// The service layer and the helpers beside CloudGroup: korvalin_client.com.<module> (every
// operation of the catalogue, derived from it), .com.connection_manager, .com.minio, and
// korvalin_client.utils (space_cache, task_status, local).
#include <memory>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include "bindings.hpp"
#include "define.hpp"
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/com/operations.hpp"
#include "korvalin_client/utils/local.hpp"
#include "korvalin_client/utils/space_cache.hpp"
#include "korvalin_client/utils/task_status.hpp"

namespace korvalin_client::python {
namespace {

// Binds one catalogue operation as a function of its module's dict: the first `positional`
// arguments are required, the others keywords that default to None, as the catalogue says.
py::object operation_function(const com::OperationInfo& info) {
  const std::string name(info.name);
  std::string sig = name + "(";
  for (std::size_t i = 0; i < info.arguments.size(); ++i) {
    sig += (i == 0 ? "" : ", ") + std::string(info.arguments[i]) + (i < info.positional ? "" : "=None");
  }
  sig += ")\n--\n\nThe service operation " + std::string(info.module) + "." + name +
         " of the connected service (a record in, a record out).";
  const com::Operation op = info.operation;
  return py::cpp_function(
      [op, name](py::args args, py::kwargs kwargs) {
        const com::OperationInfo& info = com::info(op);
        std::vector<Value> values(info.arguments.size());
        std::vector<bool> given(values.size(), false);
        if (args.size() > values.size()) {
          throw TypeError(name + "() takes " + std::to_string(values.size()) +
                          " arguments but " + std::to_string(args.size()) + " were given");
        }
        for (std::size_t i = 0; i < args.size(); ++i) {
          values[i] = to_value(args[i], {name.c_str(), info.arguments[i].data()});
          given[i] = true;
        }
        for (const auto& [key, item] : kwargs) {
          const std::string k = key.cast<std::string>();
          std::size_t i = 0;
          while (i < values.size() && info.arguments[i] != k) ++i;
          if (i == values.size()) {
            throw TypeError(name + "() got an unexpected keyword argument '" + k + "'");
          }
          if (given[i]) throw TypeError(name + "() got multiple values for argument '" + k + "'");
          values[i] = to_value(item, {name.c_str(), info.arguments[i].data()});
          given[i] = true;
        }
        for (std::size_t i = 0; i < info.positional; ++i) {
          if (!given[i]) {
            throw TypeError(name + "() missing required argument '" +
                            std::string(info.arguments[i]) + "'");
          }
        }
        std::vector<const Value*> pointers;
        for (const Value& v : values) pointers.push_back(&v);
        Value out;
        {
          Released released;
          out = com::connection_manager::get_backend()->call(op, com::Args(pointers));
        }
        return to_python(out);
      },
      py::name(name.c_str()), py::doc(sig.c_str()));
}

void bind_operations(py::module_& m) {
  py::dict modules;
  for (const com::OperationInfo& info : com::kOperations) {
    const py::str module(std::string(info.module));
    if (!modules.contains(module)) modules[module] = py::dict();
    modules[module][py::str(std::string(info.name))] = operation_function(info);
  }
  m.attr("operations") = modules;
}

void bind_connection(py::module_& m) {
  py::module_ cm = m.def_submodule("connection_manager");
  def_function(cm, "get_connection_type",
                      [] {
                        Released released;
                        return com::connection_manager::get_connection_type();
                      },
                      "How the client is connected: \"embedded\", \"http\" or \"none\".");
  def_function(
      cm, "connect",
      [](py::handle url, py::handle token) {
        const std::string u = to_text(url, {"connect", "url"});
        const std::string t = to_text(token, {"connect", "token"});
        com::connection_manager::connect(u, t);
      },
      "Connects to a `korvalin serve` server at `url` as the user of `token`.", py::arg("url"),
      py::arg("token"));
  def_function(
      cm, "disconnect",
      [] {
        Released released;
        com::connection_manager::set_backend(nullptr);
      },
      "Drops the connection: the next call connects again as on first use (the embedded "
      "store of $KORVALIN_STORAGE_DIR, or $KORVALIN_SERVICE_URL).");

  py::class_<com::minio::MinIOAPI, std::shared_ptr<com::minio::MinIOAPI>> minio(
      m, "MinIOAPI", "A client of an organisation's object store.");
  minio.attr("__module__") = "korvalin_client.com.minio";
  method<&com::minio::MinIOAPI::upload>(minio, "upload",
                                        "Stores `data` and returns the object's locator.",
                                        py::arg("object_name"), py::arg("data"),
                                        py::arg("category"), py::arg("format"));
  def(
      minio, "download",
      [](com::minio::MinIOAPI& self, py::handle locator) {
        const Value l = to_value(locator, {"download", "locator"});
        Bytes data;
        {
          Released released;
          data = self.download(l);
        }
        return py::bytes(reinterpret_cast<const char*>(data.data()), data.size());
      },
      "The bytes of the object at `locator`.", py::arg("locator"));
  def_function(
      m, "get_minio_client",
      [](py::handle organization_id) {
        const Value id = to_value(organization_id, {"get_minio_client", "organization_id"});
        Released released;
        return com::minio::get_minio_client(id);
      },
      "A client of the organisation's object store.", py::arg("organization_id"));
}

void bind_utils(py::module_& m) {
  using utils::SpaceCache;
  py::class_<SpaceCache> cache(m, "SpaceCache",
                               "The persistent local copy of one space's parameters.");
  cache.attr("__module__") = "korvalin_client.utils.space_cache";
  def_init(
      cache,
      py::init([](py::handle group_name, py::handle space_id) {
        return std::make_unique<SpaceCache>(to_text(group_name, {"SpaceCache", "group_name"}),
                                            to_int(space_id, {"SpaceCache", "space_id"}));
      }),
      "Opens (creating when missing) the cache of space `space_id` of group `group_name`.",
      py::arg("group_name"), py::arg("space_id"));
  method<&SpaceCache::get_cache_info>(cache, "get_cache_info", "The cache's bookkeeping.");
  method<&SpaceCache::count>(cache, "count", "How many parameters are cached.");
  method<&SpaceCache::fuzzy_query>(cache, "fuzzy_query", "The keys containing `word`.",
                                   py::arg("word") = py::none());
  def(
      cache, "read_all",
      [](const SpaceCache& self) {
        py::list out;
        for (const SpaceCache::Record& r : self.read_all()) {
          py::dict record;
          record["key"] = to_str(r.key);
          record["value"] = to_python(r.value);
          record["type"] = to_str(r.type);
          record["description"] = to_python(r.description);
          record["unit"] = to_python(r.unit);
          record["updated"] = r.updated;
          out.append(record);
        }
        return out;
      },
      "Every cached parameter, ordered by key.");
  cache.def_property_readonly("group_name", &SpaceCache::group_name);
  cache.def_property_readonly("space_id", &SpaceCache::space_id);
  cache.def_property_readonly("path", &SpaceCache::path);

  py::module_ status = m.def_submodule("task_status");
  for (const auto s : {utils::task_status::PENDING, utils::task_status::QUEUED,
                       utils::task_status::RUNNING, utils::task_status::COMPLETE,
                       utils::task_status::ERROR, utils::task_status::CANCELED,
                       utils::task_status::TIMEOUT}) {
    std::string upper(s);
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    status.attr(upper.c_str()) = std::string(s);
  }
  def_function(status, "normalize_sub_process_status",
                      [](py::handle s) {
                        return utils::task_status::normalize_sub_process_status(
                            to_value(s, {"normalize_sub_process_status", "status"}));
                      },
                      "The status in the normalised vocabulary.", py::arg("status"));

  py::module_ local = m.def_submodule("local");
  def_function(local, "get_cache_dir", [] { return utils::get_cache_dir(); },
                      "The client's cache root for the connected service.");
  def_function(local, "get_local_storage_dir", [] { return utils::get_local_storage_dir(); },
                      "Where the embedded service keeps its store.");
}

}  // namespace

void bind_com(py::module_& m) {
  bind_operations(m);
  bind_connection(m);
  bind_utils(m);
}

}  // namespace korvalin_client::python
