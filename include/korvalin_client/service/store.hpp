// Store: the embedded service's records in one SQLite database.
//
// The database is "service.sqlite3" in the storage directory (by default
// utils::get_local_storage_dir()). It runs in WAL mode with a 10 s busy timeout; every write
// operation is one BEGIN IMMEDIATE transaction, so several processes may share the file, and
// a mutex around the one writing connection (and a pool of read-only ones for the hot reads)
// makes a Store safe to share between threads. The schema
// is versioned with PRAGMA user_version; a file of a newer version is refused.
//
// Our databases carry PRAGMA application_id kApplicationId. A store is created whole: built
// under a temporary name beside the final one and put in place only once complete, so a crash
// never leaves an empty or half-made "service.sqlite3". A file the service cannot use (empty,
// truncated, not SQLite, another application's database) is a RuntimeError naming it and
// saying what is wrong; it is never replaced. Every store has an identity, fixed when it is
// created (or migrated from version 1). Every write transaction asks the write-fault hook
// (write_faults.hpp) before it commits.
//
// Users belong to one organisation and hold rights ("READ", "WRITE") on device groups; they
// are known by bearer tokens, of which the store keeps only the SHA-256. Resources belong to
// an organisation, and a lookup on behalf of one sees only its own.
//
// The Store takes checked, typed arguments and returns records as Values in the shapes the
// client reads; checking what callers send is the Engine's job. Ids that name nothing are a
// RuntimeError naming the id. Times (seconds since the epoch) come from the caller, which
// reads them from korvalin_client::env().
//
// Parameters are kept twice: an append-only change log (every change, with its time in
// seconds and the space's "version" after it: the space's previous version + 1, so a space's
// versions count its own changes) and the current state derived from it, so that reading a
// whole space now costs one ordered scan.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "korvalin_client/service/quota.hpp"
#include "korvalin_client/utils/value.hpp"

struct sqlite3;

namespace korvalin_client::service {

// LIMIT and OFFSET of one page (page counted from 1); saturates instead of overflowing.
struct PageWindow {
  std::int64_t limit = 10;
  std::int64_t offset = 0;
};
PageWindow page_window(std::int64_t page, std::int64_t per_page);

// One parameter as stored: full key (with a leading "/"), value (text as the client
// serialised it, or any other Value), type (text or null).
struct Parameter {
  std::string key;
  Value value;
  Value type;
};

// A user of the store, a member of one organisation.
struct User {
  std::int64_t user_id = 0;
  std::int64_t organization_id = 0;
  std::string user_name;
};

// The fields of a new experiment (sub-process).
struct NewExperiment {
  std::int64_t organization_id = 0;
  std::int64_t device_group_id = 0;
  std::int64_t space_id = 0;
  std::string title;
  std::string desc;
  std::optional<std::int64_t> resource_id;
  std::string source = "SDK";
  std::int64_t space_timestamp = 0;
  std::optional<std::string> template_name;
  std::optional<std::int64_t> exp_folder_id;
  Value priority = nullptr;  // text, integer or null
};

// Who reads: a user, within their organisation.
struct Viewer {
  std::int64_t user_id = 0;
  std::int64_t organization_id = 0;
};

// The fields of a new resource.
struct NewResource {
  std::string file_name;
  std::string file_format;
  std::string uri;
  std::string category;
  std::string source = "SDK";
  std::optional<std::int64_t> device_group_id;
  std::int64_t organization_id = 0;
  // The user who records it (none: the service).
  std::optional<std::int64_t> creator;
  // The object of the organisation's bucket that `uri` names, if it names one.
  std::optional<std::string> object;
};

// One stored result piece of an experiment.
struct ResultPiece {
  std::int64_t sub_process_id = 0;
  std::int64_t piece_id = 0;
  std::int64_t item_id_start = 0;
  std::int64_t item_id_end = 0;
  bool final_piece = false;
  Value locator;  // where the piece's bytes lie in the object store
};

class Store {
 public:
  static constexpr int kSchemaVersion = 5;
  // PRAGMA application_id of the service's databases ("KVSV").
  static constexpr std::int32_t kApplicationId = 0x4B565356;
  static constexpr const char* kFileName = "service.sqlite3";
  // The organisation and user every fresh store starts with.
  static constexpr std::int64_t kLocalOrganizationId = 1;
  static constexpr const char* kLocalUserName = "local";

  // Opens (creating the directory and database when missing) the store in `storage_dir`;
  // empty means utils::get_local_storage_dir(). Errors name the file.
  explicit Store(std::string storage_dir = "");
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Until it ends, the reads this thread makes on the store see it as of one moment, through
  // one read-only connection and one read transaction: an operation that only reads pays for
  // one read lock instead of one per query. Never around a write: a write goes through the
  // writing connection, and a read after it within the snapshot would not see it. Nested
  // snapshots are one.
  class ReadSnapshot {
   public:
    explicit ReadSnapshot(Store& store);
    ~ReadSnapshot();
    ReadSnapshot(const ReadSnapshot&) = delete;
    ReadSnapshot& operator=(const ReadSnapshot&) = delete;

   private:
    Store& store_;
    sqlite3* db_ = nullptr;
  };

  const std::string& storage_dir() const { return storage_dir_; }
  const std::string& path() const { return path_; }
  // The store's identity: 32 lowercase hex digits, random, never changed.
  const std::string& service_identity() const { return identity_; }

  // ---- organisations, users, tokens, rights (store_users.cpp) ------------------------------
  // {"organization_id", "organization_name"}; RuntimeError when unknown.
  Value organization(std::int64_t organization_id);
  // The id of the organisation named `name`, which is created when there is none.
  std::int64_t find_or_create_organization(const std::string& name);
  // Adds a user to an organisation. A taken name is a RuntimeError.
  User add_user(const std::string& user_name, std::int64_t organization_id);
  std::optional<User> find_user(const std::string& user_name);
  // Makes a new token for the user and returns its text, "kvt_" and 64 hex digits from the
  // kernel's random source. Only its hash (token_hash) is kept: the text cannot be shown again.
  std::string create_token(std::int64_t user_id, std::int64_t time);
  // The user whose token, not revoked, has this hash.
  std::optional<User> user_of_token(const std::string& token_hash);
  // Revokes every live token of the user; returns how many there were.
  std::int64_t revoke_tokens(std::int64_t user_id);
  // The SHA-256 of a token as 64 lowercase hex digits: what the store keeps of it.
  static std::string token_hash(std::string_view token);
  // Grants (true) or revokes (false) `access` ("READ" or "WRITE") on a device group.
  void set_right(std::int64_t user_id, std::int64_t device_group_id, const std::string& access,
                 bool granted);
  bool has_right(std::int64_t user_id, std::int64_t device_group_id, const std::string& access);

  // ---- device groups ----------------------------------------------------------------------
  // Creates a group; `owner` receives READ and WRITE on it. A name the organisation already
  // gave a group is a RuntimeError (other organisations may have groups of that name).
  Value create_group(const std::string& name, const std::string& description,
                     std::int64_t organization_id, std::int64_t owner, std::int64_t time);
  // The organisation's group of that name.
  std::optional<Value> find_group(const std::string& name, std::int64_t organization_id);
  std::optional<Value> find_group(std::int64_t device_group_id);
  // {"list", "total"} ordered by id; `organization_id` null means every organisation.
  Value list_groups(std::optional<std::int64_t> organization_id, bool show_hidden,
                    PageWindow window);

  // ---- spaces -----------------------------------------------------------------------------
  // A ValueError when the group already holds `max_spaces` spaces.
  Value create_space(std::int64_t device_group_id, const std::string& name,
                     const std::string& description, std::int64_t time,
                     std::int64_t max_spaces = std::numeric_limits<std::int64_t>::max());
  std::optional<Value> find_space(std::int64_t space_id);
  Value list_spaces(std::int64_t device_group_id, bool show_hidden, PageWindow window);
  Value set_space_hidden(std::int64_t space_id, bool hidden);

  // ---- parameters -------------------------------------------------------------------------
  // Logs one change per parameter at `time` and returns the space's version after them.
  std::int64_t add_parameters(std::int64_t space_id, const std::vector<Parameter>& parameters,
                              std::int64_t time, const Value& experiment_id, const Value& node_id,
                              const Value& session_id);
  // Logs the deletion of `key`; a key the space does not hold is a RuntimeError.
  std::int64_t delete_parameter(std::int64_t space_id, const std::string& key, std::int64_t time);
  // The space as of `timestamp` (null: now): per key the latest change at or before it,
  // deletions left out, ordered by key; `prefix` (e.g. "/a/b/") keeps keys starting with it.
  std::vector<Parameter> parameters_as_of(std::int64_t space_id,
                                          std::optional<std::int64_t> timestamp,
                                          const std::string& prefix = "");
  // The space after change `version` (0: now), as parameters_as_of.
  std::vector<Parameter> parameters_at_version(std::int64_t space_id, std::int64_t version,
                                               const std::string& prefix = "");
  // Changes with time >= `since`, newest first, as change records ("k_full", "v", "t",
  // "deleted_flag", "timestamp", "version", "experiment_id", "node_id", "session_id").
  Value parameter_log(std::int64_t space_id, std::int64_t since);
  // [records, total]: one page of the changes of `key` (null: of every key), newest first.
  Value parameter_history(std::int64_t space_id, const std::optional<std::string>& key,
                          PageWindow window);

  // ---- experiment folders -----------------------------------------------------------------
  Value create_folder(std::int64_t space_id, const std::string& name,
                      std::optional<std::int64_t> parent, std::int64_t time);
  std::optional<Value> find_folder(std::int64_t exp_folder_id);
  // The folders directly under `parent` (null: the root) ordered by id.
  Value list_folders(std::int64_t space_id, std::optional<std::int64_t> parent);

  // ---- experiments ------------------------------------------------------------------------
  // Creates an experiment with status "queued" at `create_time`; returns its detail record. A
  // QuotaError when its organisation already has as many queued as its quota allows.
  Value create_experiment(const NewExperiment& exp, std::int64_t create_time);
  // The detail record ("sub_process_id", "status", "progress" as JSON text, "exp_msg", ...).
  std::optional<Value> find_experiment(std::int64_t sub_process_id);
  // The message list [{"timestamp", "message_level", "message"}] in order of arrival.
  Value experiment_messages(std::int64_t sub_process_id);
  Value list_experiments(std::int64_t space_id, PageWindow window);
  // Ids > `since_id` ascending; `folder` null means any folder.
  Value list_new_experiments(std::int64_t space_id, std::int64_t since_id,
                             std::optional<std::int64_t> folder, std::int64_t limit);
  // Newest first, ids < `before_id` when given; `folder` null means no folder.
  Value list_experiments_by_folder(std::int64_t space_id, std::optional<std::int64_t> folder,
                                   std::optional<std::int64_t> before_id, std::int64_t limit);
  std::int64_t count_experiments_by_folder(std::int64_t space_id,
                                           std::optional<std::int64_t> folder);

  // For execution: the ids of queued experiments, oldest first.
  std::vector<std::int64_t> queued_experiments(std::int64_t limit);
  struct QueuedRun {
    std::int64_t sub_process_id = 0;
    std::int64_t device_group_id = 0;
  };
  // For execution: the next queued experiment of each device group not in `busy_groups`, at
  // most `limit` groups, those whose next experiment is oldest first. A group's next one has
  // the highest priority (a priority that reads as an integer; anything else counts as 0),
  // the oldest among equals.
  std::vector<QueuedRun> next_queued_runs(const std::vector<std::int64_t>& busy_groups,
                                          std::int64_t limit);
  // Sets the status (normalised by the caller) and, when given, the progress (stored as
  // JSON text); returns the detail record.
  Value set_experiment_status(std::int64_t sub_process_id, const std::string& status,
                              const std::optional<Value>& progress, std::int64_t time);
  // The ids of experiments with `status` (normalised), oldest first.
  std::vector<std::int64_t> experiments_with_status(const std::string& status, std::int64_t limit);
  // Sets the status (and progress, as set_experiment_status) only while the status is
  // `expected`; returns the detail record, or nothing when the status was another.
  std::optional<Value> set_experiment_status_if(std::int64_t sub_process_id,
                                                const std::string& expected,
                                                const std::string& status,
                                                const std::optional<Value>& progress,
                                                std::int64_t time);
  // Appends a message to the experiment's log.
  void append_message(std::int64_t sub_process_id, const std::string& level,
                      const std::string& message, std::int64_t time);

  // ---- result pieces ----------------------------------------------------------------------
  // Records a stored piece (replacing a piece of the same id).
  void add_result_piece(const ResultPiece& piece);
  // Records of pieces start..end (inclusive) ordered by piece id.
  Value result_pieces(std::int64_t sub_process_id, std::int64_t start, std::int64_t end);
  // The locator of one piece, or nothing.
  std::optional<Value> result_piece_locator(std::int64_t sub_process_id, std::int64_t piece_id);
  // Removes the records of pieces start..end (inclusive); returns how many there were. The
  // bytes stay in the object store.
  std::int64_t remove_result_pieces(std::int64_t sub_process_id, std::int64_t start,
                                    std::int64_t end);
  // Gives every piece of the experiment the resource (a merged result); returns the count.
  std::int64_t set_result_resource(std::int64_t sub_process_id, std::int64_t resource_id);
  // Gives one piece its own resource (the legacy layout); false when there is no such piece.
  bool set_piece_resource(std::int64_t sub_process_id, std::int64_t piece_id,
                          std::int64_t resource_id);

  // ---- objects ----------------------------------------------------------------------------
  // The bytes lie in the ObjectStore; the store records, per object of an organisation's
  // bucket, who uploaded it and the device group it belongs to. An object belongs to no group
  // until a record of a group names it (claim_object): until then only its uploader reads it.
  // Objects the store has no record of are read by no user.
  //
  // Records an object of `size` bytes uploaded by `uploader` (none: the service), of no group
  // yet; a QuotaError, recording nothing, when it would pass the organisation's byte quota.
  void add_object(std::int64_t organization_id, const std::string& object,
                  std::optional<std::int64_t> uploader, std::int64_t size, std::int64_t time);

  // ---- quotas (store_quotas.cpp) ------------------------------------------------------------
  // An organisation's limits and use (RuntimeError "unknown organization <id>"). The bytes
  // are a running total kept with the object records (triggers), so reading it is one row.
  Quota quota(std::int64_t organization_id);
  // Every organisation's, by id.
  std::vector<Quota> quotas();
  // Sets both limits (none: unlimited); a ValueError for a negative one.
  void set_quota(std::int64_t organization_id, std::optional<std::int64_t> max_bytes,
                 std::optional<std::int64_t> max_queued);
  // Whether the viewer may read the object: it belongs to a group on which they hold READ, or
  // to no group and they uploaded it.
  bool may_read_object(const Viewer& viewer, const std::string& object);
  // The group the object belongs to; nothing for one of no group, or not recorded.
  std::optional<std::int64_t> object_group(std::int64_t organization_id, const std::string& object);
  // The object joins the group unless it belongs to one already (an object with no record
  // gets one, of the service).
  void claim_object(std::int64_t organization_id, const std::string& object,
                    std::int64_t device_group_id, std::int64_t time);

  // ---- resources --------------------------------------------------------------------------
  // A resource of an organisation (and, when given, of one of its device groups, which the
  // object it names joins as claim_object says).
  Value add_resource(const NewResource& resource, std::int64_t time);
  // The records of the ids that exist, in the order asked; with a viewer, only those they may
  // read: of their organisation, and of a group on which they hold READ, or of no group and
  // recorded by them.
  Value resources(const std::vector<std::int64_t>& resource_ids,
                  const std::optional<Viewer>& viewer = std::nullopt);
  // A resource of no group joins `device_group_id`, and so does the object it names, as
  // claim_object says.
  void claim_resource(std::int64_t resource_id, std::int64_t device_group_id,
                      const std::optional<std::string>& object, std::int64_t time);

  // ---- fitting results --------------------------------------------------------------------
  Value add_fitting_result(std::int64_t sub_process_id, std::int64_t space_id,
                           std::int64_t big_img_id, std::int64_t small_img_id,
                           const Value& fitting_result, std::int64_t time);
  Value fitting_results(std::int64_t sub_process_id);

 private:
  // A read-only connection of the pool, given back when it goes out of scope
  // (store_sqlite.hpp). The hot reads (a caller's token and rights, what an operation names,
  // a run's pieces and messages) go through one, so readers never wait for each other nor
  // for the writer's mutex; WAL gives each the store as of its last commit.
  class Reader;
  Reader reader();

  std::string storage_dir_;
  std::string path_;
  std::string identity_;
  std::mutex mutex_;
  sqlite3* db_ = nullptr;
  std::mutex readers_mutex_;
  std::vector<sqlite3*> idle_readers_;
};

}  // namespace korvalin_client::service
