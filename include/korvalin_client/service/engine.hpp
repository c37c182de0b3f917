// Engine: the embedded service. One method per service function (the virtuals of
// com::Backend, same arguments, Value in and Value out), answered from a Store and an
// ObjectStore in one storage directory.
//
// Every argument is checked here: a wrong kind is a TypeError naming the argument, an
// unacceptable value (a text over 1 MiB, a list over 1,000,000 items, a value nested deeper
// than kMaxValueDepth, a page below 1) a ValueError, an id or name that names nothing a
// RuntimeError naming it. Times come from korvalin_client::env(), so a test's FakeEnv drives
// them. Thread-safe; several Engines (and processes) may share a storage directory.
//
// Callers and rights: an operation of the catalogue arrives through call(caller, op, args) on
// behalf of a user (the store's local user for the embedded backend, a user known by a token
// for a server), and is answered only when the user's organisation and rights allow it (see
// call). The typed methods below answer as the service itself, with no check: the executor
// and tests call them directly. A device group is named within an organisation: the typed
// methods find it in the local organisation, or, within call(caller, ...), in the caller's.
//
// Records, in short (see docs/service.md):
//  - group: device_group_id, device_group_name, organization_id, organization_name,
//    description, hidden, create_time; space: space_id, space_name, description, hidden,
//    device_group_id, create_time.
//  - parameters are stored as the client serialised them (value text and type); keys carry a
//    leading "/". Every change is logged with its time in seconds and the space's version
//    after it; version N of a space is its state after its change N (a store made before
//    versions were counted per space keeps the versions its changes had then).
//  - experiment detail: sub_process_id, title, desc, create_time, space_id, resource_id, status
//    (utils::task_status vocabulary), progress (JSON text), exp_msg, source, space_timestamp,
//    template_name, exp_folder_id, priority (+ organization_id, device_group_id, update_time).
//  - result piece: piece_id, chunk_id, resource_id (null until stored), final_piece,
//    item_id_start, item_id_end, bucket, object.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "korvalin_client/com/operations.hpp"
#include "korvalin_client/service/object_store.hpp"
#include "korvalin_client/service/store.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::service {

// Bounds on what a caller may send.
inline constexpr std::size_t kMaxTextBytes = std::size_t{1} << 20;
inline constexpr std::size_t kMaxListItems = 1'000'000;
// A page of a list holds at most this many entries (a larger per_page is cut to it, and the
// answer says so in its "per_page"); a device group holds at most this many spaces, so one
// page always lists a group's spaces whole.
inline constexpr std::int64_t kMaxPage = 1000;
inline constexpr std::int64_t kMaxSpacesPerGroup = kMaxPage;
// One add_parameter writes at most this many keys and this many bytes of keys and values.
inline constexpr std::size_t kMaxWriteKeys = 100'000;
inline constexpr std::size_t kMaxWriteBytes = std::size_t{64} << 20;

// Who calls: a user of the store, acting within their organisation.
struct Caller {
  std::int64_t user_id = 0;
  std::int64_t organization_id = 0;
  std::string user_name;
};

class Engine {
 public:
  // Opens the store in `storage_dir` (empty: utils::get_local_storage_dir()); objects live in
  // "<storage_dir>/objects".
  explicit Engine(std::string storage_dir = "");

  Store& store() { return store_; }
  const std::string& storage_dir() const { return store_.storage_dir(); }
  // The identity of the store this engine serves (Store::service_identity()).
  const std::string& service_identity() const;

  // Answers one operation of the catalogue (com/operations.hpp) as the local user:
  // call(local_caller(), op, args).
  Value call(com::Operation op, const com::Args& args);

  // ---- callers and their rights ----------------------------------------------------------
  // The store's local user, who acts for the embedded backend and holds every right on the
  // groups of the local organisation.
  const Caller& local_caller() const;
  // The user a bearer token belongs to; nothing for an unknown or revoked token.
  std::optional<Caller> authenticate(std::string_view token);
  // Answers one operation of the catalogue as `caller`, through the method of the same name
  // below, once the caller's rights allow it: a PermissionError names the right or the
  // organisation that is missing. Lists show only what the caller may see.
  //
  // Whatever an operation names (a group by name, a space, an experiment, a folder, a
  // resource) is resolved to its device group. What is of another organisation answers
  // exactly as what does not exist (the same error kind and message); a group's name is looked
  // up in the caller's organisation only. Reads (get_*, list_*, count_*, download_*) need READ
  // on the group, writes WRITE; get_group_detail only the organisation. get_group_list shows
  // the caller's organisation alone, create_group creates in it (when given no other) with the
  // caller as owner (READ and WRITE), and the permission checks answer for the caller. An id
  // that names nothing, or an argument of the wrong kind, is the error the method itself
  // gives. An operation the rights table has no rule for is refused (and fails to compile).
  //
  // Resources and objects belong to device groups too, and READ on the group is needed to see
  // them: get_resource_info lists only those the caller may read, and the caller's object
  // store (objects_of) finds only those objects. A resource recorded without a group, and an
  // object uploaded and not yet named by a record of a group, are their maker's alone until
  // an experiment or a fitting result of a group (for a resource) or a resource of a group
  // (for an object) names them: they then join that group. A record may name only a resource
  // or an object of its own group, or one the caller may read. Objects the service writes
  // (result pieces, merged results) belong to the experiment's group from the start.
  Value call(const Caller& caller, com::Operation op, const com::Args& args);
  // The object store of the caller's organisation, as the caller: uploads are recorded as
  // theirs and only the objects they may read are found (see call); any other, another
  // organisation's included, answers as an object that does not exist.
  std::shared_ptr<ObjectStore> objects_of(const Caller& caller);

  // ---- device ---------------------------------------------------------------------------
  Value get_group_list(const Value& page, const Value& per_page, const Value& org_id,
                       const Value& show_hidden);
  Value create_group(const Value& device_group_name, const Value& description,
                     const Value& organization_id);
  Value get_group_detail(const Value& device_group_name);

  // ---- space ----------------------------------------------------------------------------
  Value list_space(const Value& group_name, const Value& page, const Value& per_page,
                   const Value& show_hidden_space);
  Value create_space(const Value& group_name, const Value& space_name, const Value& description);
  Value get_space_detail(const Value& space_id);
  Value set_space_hidden(const Value& space_id, const Value& hidden);
  // [{"key", "value", "type"}] as of `timestamp` (null: now), ordered by key;
  // `parent_category` (text) keeps the keys under that path.
  Value get_parameter(const Value& space_id, const Value& timestamp, const Value& parent_category);
  // Changes with time >= `timestamp`, newest first.
  Value get_parameter_log(const Value& space_id, const Value& timestamp);
  // Returns {"space_id", "count", "version", "timestamp"}.
  Value add_parameter(const Value& space_id, const Value& keys, const Value& values,
                      const Value& types, const Value& experiment_id, const Value& node_id,
                      const Value& session_id);
  Value delete_parameter(const Value& space_id, const Value& key, const Value& delete_status);
  Value get_parameter_tree(const Value& space_id, const Value& version, const Value& parent_tree);
  Value get_parameter_history(const Value& space_id, const Value& key, const Value& page,
                              const Value& per_page);

  // ---- sub_process ----------------------------------------------------------------------
  Value create_sub_process(const Value& organization_id, const Value& group_name,
                           const Value& space_id, const Value& title, const Value& desc,
                           const Value& resource_id, const Value& source,
                           const Value& space_timestamp, const Value& template_name,
                           const Value& exp_folder_id, const Value& priority);
  Value get_sub_process_detail(const Value& sub_process_id);
  Value get_sub_process_result(const Value& sub_process_id, const Value& start_piece_id,
                               const Value& end_piece_id);
  Value get_sub_process_msg(const Value& sub_process_id);
  Value list_sub_processes(const Value& space_id, const Value& page, const Value& per_page);
  Value list_new_experiments(const Value& space_id, const Value& since_exp_id,
                             const Value& exp_folder_id, const Value& limit);
  Value list_sub_processes_by_folder(const Value& space_id, const Value& exp_folder_id,
                                     const Value& before_exp_id, const Value& limit);
  Value count_experiments_by_folder(const Value& space_id, const Value& exp_folder_id);
  Value terminate_sub_process(const Value& sub_process_id);
  // The piece's bytes as a binary Value.
  Value download_result_chunk_from_cache(const Value& sub_process_id, const Value& chunk_id);
  Value create_exp_folder(const Value& space_id, const Value& exp_folder_name,
                          const Value& parent_exp_folder_id);
  Value list_exp_folders_by_parent(const Value& device_group_name, const Value& space_id,
                                   const Value& parent_exp_folder_id);
  Value add_fitting_result(const Value& sub_process_id, const Value& space_id,
                           const Value& big_img_id, const Value& small_img_id,
                           const Value& fitting_result);
  Value get_fitting_result(const Value& sub_process_id);

  // ---- oss ------------------------------------------------------------------------------
  Value add_resource(const Value& file_name, const Value& file_format, const Value& uri,
                     const Value& category, const Value& source, const Value& device_group_id);
  Value get_resource_info(const Value& resource_ids);

  // ---- minio ----------------------------------------------------------------------------
  // The organisation's object store as the service (every object of its bucket), one shared
  // instance per organisation.
  std::shared_ptr<ObjectStore> get_minio_client(const Value& organization_id);

  // ---- user -----------------------------------------------------------------------------
  // Whether the local user holds `access` ("READ"/"WRITE"; null: "WRITE") on the group (false
  // for a group of another organisation).
  Value check_device_permission_by_name(const Value& group_name, const Value& access);
  // Whether the local user may write to the space's group.
  Value check_space_permission_by_id(const Value& space_id);

  // ---- administration (korvalin admin) --------------------------------------------------
  // Adds a user to the organisation named `organization_name`, created when new (empty: the
  // local organisation). A taken name is a RuntimeError. The user holds no right until one is
  // granted, or until they create a group.
  Caller add_user(const std::string& user_name, const std::string& organization_name = "");
  // A new token of the user, to be shown this once: the store keeps only its hash.
  std::string create_token(const std::string& user_name);
  // Revokes every token of the user; returns how many there were.
  std::int64_t revoke_tokens(const std::string& user_name);
  // Grants (true) or revokes (false) a user's `access` ("READ"/"WRITE") on a device group of
  // their organisation.
  void set_right(const std::string& user_name, const std::string& group_name,
                 const std::string& access, bool granted);
  // The same for the local user.
  void set_right(const std::string& group_name, const std::string& access, bool granted);

  // ---- for execution --------------------------------------------------------------------
  // Ids of queued experiments, oldest first.
  std::vector<std::int64_t> queued_experiments(std::int64_t limit = 100);
  // Sets an experiment's status (any text utils::task_status understands; stored normalised)
  // and, when given, its progress (any Value, stored as JSON text). Returns the detail.
  Value set_experiment_status(std::int64_t sub_process_id, const std::string& status,
                              const std::optional<Value>& progress = std::nullopt);
  // Ids of experiments left "running", oldest first.
  std::vector<std::int64_t> running_experiments(std::int64_t limit = 100);
  // Sets the status (and progress) only while it is `expected` (both normalised): a worker
  // moves an experiment on without undoing a cancellation that arrived meanwhile. Returns
  // the detail, or nothing when the status was another.
  std::optional<Value> set_experiment_status_if(
      std::int64_t sub_process_id, const std::string& expected, const std::string& status,
      const std::optional<Value>& progress = std::nullopt);
  // Appends a message (level e.g. "info", "warning", "error") to the experiment's log.
  void append_experiment_message(std::int64_t sub_process_id, const std::string& level,
                                 const std::string& message);
  // Stores a result piece: its bytes (a .kvres chunk) go to the object store of the
  // experiment's organisation, a piece row records them with its item range and final flag
  // and no resource id yet. Returns the piece record.
  Value store_result_piece(std::int64_t sub_process_id, std::int64_t piece_id, const Bytes& data,
                           std::int64_t item_id_start, std::int64_t item_id_end, bool final_piece);
  // Removes the records of pieces start..end (inclusive; a run that starts over); returns
  // how many there were.
  std::int64_t remove_result_pieces(std::int64_t sub_process_id, std::int64_t start = 0,
                                    std::int64_t end = INT64_MAX);
  // A merged result: every piece of the experiment gets `resource_id`. Returns the count.
  std::int64_t set_result_resource(std::int64_t sub_process_id, std::int64_t resource_id);
  // The legacy layout: one piece gets its own resource.
  void set_piece_resource(std::int64_t sub_process_id, std::int64_t piece_id,
                          std::int64_t resource_id);
  // The parameters an experiment runs with: the space as of `timestamp` (null: now).
  std::vector<Parameter> space_parameters_as_of(std::int64_t space_id,
                                                std::optional<std::int64_t> timestamp);

 private:
  // The method of the operation's name, with no check.
  Value dispatch(com::Operation op, const com::Args& args);
  // The group of that name in `organization_id` (none: the one the engine acts for, above).
  Value require_group(const Value& group_name, std::string_view what,
                      std::optional<std::int64_t> organization_id = std::nullopt);
  Value require_space(const Value& space_id, std::string_view what);
  Value require_experiment(const Value& sub_process_id, std::string_view what);
  std::int64_t acting_organization() const;
  // A resource an experiment or fitting result of `group` names joins it (with its object)
  // when it has no group yet; one of another group is a ValueError.
  void take_resource(std::int64_t resource_id, const Value& group);
  // The group of a space or experiment record.
  Value group_of(const Value& record);
  User require_user(const std::string& user_name);
  // Refuses unless `group` is of the caller's organisation (a RuntimeError `unknown`, what a
  // lookup of a thing that does not exist says) and, when `access` is given, the caller holds
  // it there (a PermissionError).
  void authorize(const Caller& caller, const Value& group, const char* access,
                 const std::string& unknown);
  std::shared_ptr<ObjectStore> object_store(std::int64_t organization_id);

  // The methods whose answer depends on who calls. The public methods of the same names are
  // the service's own: create_group and the permission checks as the local user, add_resource
  // and get_resource_info for every organisation.
  Value create_group_as(const Caller& owner, const Value& device_group_name,
                        const Value& description, const Value& organization_id);
  Value device_permission_of(const Caller& caller, const Value& group_name, const Value& access);
  Value space_permission_of(const Caller& caller, const Value& space_id);
  // `caller` null: the service (of the group's organisation, else the local one).
  Value add_resource_as(const Caller* caller, const Value& file_name, const Value& file_format,
                        const Value& uri, const Value& category, const Value& source,
                        const Value& device_group_id);
  // `viewer` none: every resource.
  Value resource_info(const Value& resource_ids, const std::optional<Viewer>& viewer);

  Store store_;
  std::string objects_dir_;
  Caller local_;
  std::mutex objects_mutex_;
  std::map<std::int64_t, std::shared_ptr<ObjectStore>> object_stores_;
};

}  // namespace korvalin_client::service
