// The engine's resources and objects: the groups they belong to, who may read them, and the
// records that make them a group's (engine.hpp, "Resources and objects belong to device
// groups" in docs/service.md).
#include <utility>

#include "engine_args.hpp"
#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::service {
using namespace checks;

namespace {

// An organisation's objects, counted against its byte quota.
class CountedObjects : public ObjectAccess {
 public:
  CountedObjects(Store& store, std::int64_t organization_id)
      : store_(store), organization_id_(organization_id) {}
  std::optional<std::int64_t> bytes_left() override {
    return store_.quota(organization_id_).bytes_left();
  }
  void check_room(std::int64_t size) override {
    const Quota q = store_.quota(organization_id_);
    if (const auto left = q.bytes_left(); left && size > *left) throw QuotaError::bytes(q, size);
  }

 protected:
  Store& store_;
  std::int64_t organization_id_;
};

// The service's own uploads (result pieces, merged results): every object readable, each
// upload recorded as the service's, of no group until its record claims it.
class ServiceObjects final : public CountedObjects {
 public:
  using CountedObjects::CountedObjects;
  void uploaded(const std::string& object, std::int64_t size) override {
    store_.add_object(organization_id_, object, std::nullopt, size, now());
  }
  bool may_read(const std::string&) override { return true; }
};

// What a caller may do with their organisation's objects (engine.hpp).
class CallerObjects final : public CountedObjects {
 public:
  CallerObjects(Store& store, const Caller& caller)
      : CountedObjects(store, caller.organization_id),
        viewer_{caller.user_id, caller.organization_id} {}
  void uploaded(const std::string& object, std::int64_t size) override {
    store_.add_object(organization_id_, object, viewer_.user_id, size, now());
  }
  bool may_read(const std::string& object) override {
    return store_.may_read_object(viewer_, object);
  }

 private:
  Viewer viewer_;
};

// The object of this store's kind that a resource's uri names ("org-..." bucket); nothing for
// a uri of anything else, which is kept as text for the client to read.
std::optional<com::minio::ObjectName> named_object(const std::string& uri) {
  try {
    com::minio::ObjectName name = com::minio::locate(Value(uri));
    if (name.bucket.starts_with("org-")) return name;
  } catch (const Error&) {
  }
  return std::nullopt;
}

// The name of the object in `organization_id`'s bucket that `uri` names, if it names one.
std::optional<std::string> object_in(const std::string& uri, std::int64_t organization_id) {
  std::optional<com::minio::ObjectName> named = named_object(uri);
  if (!named || named->bucket != ObjectStore::bucket_of(organization_id)) return std::nullopt;
  return std::move(named->object);
}

}  // namespace

std::shared_ptr<ObjectStore> Engine::object_store(std::int64_t organization_id) {
  std::lock_guard lock(objects_mutex_);
  std::shared_ptr<ObjectStore>& slot = object_stores_[organization_id];
  if (!slot) {
    slot = ObjectStore(objects_dir_, organization_id)
               .guarded(std::make_shared<ServiceObjects>(store_, organization_id));
  }
  return slot;
}

std::shared_ptr<ObjectStore> Engine::objects_of(const Caller& caller) {
  return object_store(caller.organization_id)
      ->guarded(std::make_shared<CallerObjects>(store_, caller));
}

// ---- oss ----------------------------------------------------------------------------------

Value Engine::add_resource(const Value& file_name, const Value& file_format, const Value& uri,
                           const Value& category, const Value& source,
                           const Value& device_group_id) {
  return add_resource_as(nullptr, file_name, file_format, uri, category, source,
                         device_group_id);
}

Value Engine::add_resource_as(const Caller* caller, const Value& file_name,
                              const Value& file_format, const Value& uri, const Value& category,
                              const Value& source, const Value& device_group_id) {
  NewResource r;
  r.file_name = text_or(file_name, "file_name", "");
  r.file_format = text_or(file_format, "file_format", "");
  r.uri = text_arg(uri, "uri");
  r.category = text_or(category, "category", "");
  r.source = text_or(source, "source", "SDK");
  r.device_group_id = opt_int(device_group_id, "device_group_id");
  r.organization_id = caller != nullptr ? caller->organization_id : local_.organization_id;
  if (r.device_group_id) {
    const std::optional<Value> record = store_.find_group(*r.device_group_id);
    if (!record) throw RuntimeError("unknown device group " + std::to_string(*r.device_group_id));
    if (caller == nullptr) r.organization_id = (*record)["organization_id"].get<std::int64_t>();
  }
  r.object = object_in(r.uri, r.organization_id);
  if (caller != nullptr) {
    r.creator = caller->user_id;
    // A caller's record names only an object they may read, or one of the record's group.
    const std::optional<com::minio::ObjectName> named = named_object(r.uri);
    const auto allowed = [&] {
      return r.object &&
             ((r.device_group_id &&
               store_.object_group(r.organization_id, *r.object) == r.device_group_id) ||
              store_.may_read_object(Viewer{caller->user_id, caller->organization_id}, *r.object));
    };
    if (named && !allowed()) {
      throw RuntimeError(ObjectStore::missing(named->bucket + "/" + named->object));
    }
  }
  return store_.add_resource(r, now());
}

void Engine::take_resource(std::int64_t resource_id, const Value& group) {
  const Value found = store_.resources({resource_id});
  if (found.empty()) throw RuntimeError("unknown resource " + std::to_string(resource_id));
  const Value& resource = found[0];
  const Value& group_id = group["device_group_id"];
  if (!resource["device_group_id"].is_null()) {
    if (resource["device_group_id"] == group_id) return;
    throw ValueError("resource " + std::to_string(resource_id) +
                     " belongs to another device group than " + shown(group["device_group_name"].get<std::string>()));
  }
  store_.claim_resource(resource_id, group_id.get<std::int64_t>(),
                        object_in(resource["uri"].get<std::string>(),
                                  resource["organization_id"].get<std::int64_t>()),
                        now());
}

Value Engine::get_resource_info(const Value& resource_ids) {
  return resource_info(resource_ids, std::nullopt);
}

Value Engine::resource_info(const Value& resource_ids, const std::optional<Viewer>& viewer) {
  std::vector<std::int64_t> ids;
  if (resource_ids.is_array()) {
    const Value& list = list_arg(resource_ids, "resource_ids");
    ids.reserve(list.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
      ids.push_back(expect_int(list[i], "resource_ids[" + std::to_string(i) + "]"));
    }
  } else if (resource_ids.is_number_integer()) {
    ids.push_back(resource_ids.get<std::int64_t>());
  } else {
    throw TypeError(std::string("resource_ids must be an integer or a list of integers, not ") +
                    kind_name(resource_ids));
  }
  Value list = store_.resources(ids, viewer);
  return Value{{"total", list.size()}, {"list", std::move(list)}};
}

// ---- minio --------------------------------------------------------------------------------

std::shared_ptr<ObjectStore> Engine::get_minio_client(const Value& organization_id) {
  const std::int64_t org =
      opt_int(organization_id, "organization_id").value_or(Store::kLocalOrganizationId);
  store_.organization(org);  // unknown: RuntimeError
  return object_store(org);
}

}  // namespace korvalin_client::service
