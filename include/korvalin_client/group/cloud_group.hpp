// Cloud Group class
//
// CloudGroup is the object a user's program works through: it is bound to one device group
// of the service, knows the group's organisation and spaces, selects a space and keeps that
// space's parameters in a local cache (SpaceCache), and computes the local directories where
// experiments and results of the group are kept.
//
//   using korvalin_client::group::CloudGroup;
//   CloudGroup g("lab-a", "origin");           // select group "lab-a" and its space "origin"
//   auto freq = g.get_space_parameter("/q0/drive/freq");
//
// Every remote operation goes through the korvalin_client::com functions and therefore the
// installed service backend. A CloudGroup is used from one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/experiment/experiment.hpp"
#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/group/group.hpp"
#include "korvalin_client/utils/space_cache.hpp"
#include "korvalin_client/utils/thread_queue.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::group {

// The optional arguments of the constructor and of set_group_name.
struct GroupOptions {
  // The space version to work with, if not the current one.
  std::optional<std::int64_t> space_version = std::nullopt;
  // Parameter values to set (a mapping from full key to value, or null).
  Value space_parameters = nullptr;
  // Overrides read before the live parameters and never submitted (a mapping, or null).
  Value temporary_parameters = nullptr;
};

// The optional arguments of submit_fitting_result.
struct FittingOptions {
  // A JSON table of typed columns to record as the fitting result (docs/fitting.md); none:
  // an empty table.
  std::optional<std::string> table_file = std::nullopt;
  // Parameter values the fit found (a mapping from full key to value, or null).
  Value space_parameters = nullptr;
  // Whether space_parameters are set and submitted to the space.
  bool update_space = true;
};

// The optional arguments of submit_exp.
struct SubmitOptions {
  // The moment of the space's parameters the experiment runs with; now when absent.
  std::optional<std::int64_t> space_timestamp = std::nullopt;
  // The template the device runs; an experiment's own template_ takes precedence.
  std::optional<std::string> template_name = std::nullopt;
  // Where the submission comes from, as the service records it.
  std::string source = "SDK";
  // Attachment name -> integer resource id (from upload_exp_attachment), or null for none.
  Value attachment = nullptr;
  // The folder to file the experiment in; wins over exp_folder_path.
  std::optional<std::int64_t> exp_folder_id = std::nullopt;
  // A folder path such as "calib/2025/march", created level by level where missing.
  std::optional<std::string> exp_folder_path = std::nullopt;
  std::optional<std::string> priority = std::nullopt;
};

// Called with the result so far, whether it is final, and the experiment's detail record.
using UpdateCallback =
    std::function<void(const experiment::Result& result, bool finished, const Value& exp_detail)>;

// How terminal-state resolution proceeds (CloudGroup::_try_resolve_terminal_from_results).
struct TerminalOptions {
  // How long, and how often, to wait for the server to store the merged result (seconds).
  std::int64_t merge_max_wait = 300;
  std::int64_t merge_interval = 2;
  // The detail given to the merge wait (the status detail when absent).
  std::optional<Value> wait_merge_detail = std::nullopt;
  // Whether a terminal experiment with nothing stored hands back the in-memory result
  // (*result_obj_for_incomplete, moved out) instead of an empty one.
  bool empty_resource_return_incomplete = false;
  experiment::Result* result_obj_for_incomplete = nullptr;
  UpdateCallback update_callback_for_incomplete = {};
  // Whether the empty result's callback gets a freshly read detail record.
  bool fresh_detail_for_empty_terminal_callback = false;
};

class CloudGroup : public Group {
 public:
  // Space id -> the space's record as the service listed it.
  using SpaceList = std::map<std::int64_t, Value>;
  // Space name -> space id.
  using SpaceNameMapping = std::map<std::string, std::int64_t>;
  // Space id -> that space's parameter cache (one object per space for the group object's life).
  using SpaceCacheMap = std::map<std::int64_t, std::unique_ptr<utils::SpaceCache>>;

  // Builds the group object and, when `group_name` is given, selects the group at once (and
  // the space `space_name`, if given). Without a group name nothing is asked of the service;
  // select a group later with set_group_name(). `options.space_parameters` and
  // `options.temporary_parameters` must be mappings or null (TypeError otherwise).
  explicit CloudGroup(std::optional<std::string> group_name = std::nullopt,
                      std::optional<std::string> space_name = std::nullopt,
                      GroupOptions options = {});

  // Selects the group (and optionally a space): resolves the group and its organisation
  // through the service, makes the group's cache directory, lists its spaces and selects
  // `space_name` (downloading its parameters). Does nothing at all once a group has been
  // selected: a group object never changes its group. An error leaves the object without a
  // group, so the call may be repeated.
  void set_group_name(const std::string& group_name,
                      std::optional<std::string> space_name = std::nullopt,
                      GroupOptions options = {});

  // ---- properties ----
  const Value& device_group_id() const { return device_group_id_; }
  const Value& organization_id() const { return organization_id_; }
  // A RuntimeError until a group has been selected.
  const Value& organization_name() const;
  // The selected space's parameter cache (created on first use). A RuntimeError when no
  // space is selected.
  utils::SpaceCache& space();
  const std::optional<std::string>& space_name() const { return space_name_; }
  const SpaceList& spaces_list() const { return spaces_list_; }
  const SpaceNameMapping& spaces_name_mapping() const { return spaces_name_mapping_; }
  const SpaceCacheMap& space_cache() const { return space_cache_; }

  // Fetches the group's record afresh and keeps it. The ids and organisation name taken at
  // selection are not changed.
  Value get_group_detail();

  // ---- spaces ----
  // Lists every visible space of the group and rebuilds spaces_list and spaces_name_mapping.
  const SpaceList& get_space_list();
  // Selects a space by id (an integer; hidden spaces too) or by name (text; visible spaces
  // only), opens its parameter cache and, with `update_parameters`, synchronises its
  // parameters. Anything else is a TypeError naming "space_id_or_name".
  void set_space(const Value& space_id_or_name, bool update_parameters = true);
  // One page of the group's spaces, as the service answers.
  Value list_spaces(std::int64_t page = 1, std::int64_t per_page = 10, bool show_hidden = false);
  // Creates a space in the group; the service's answer. Select it with set_space(name).
  Value create_space(const std::string& name, const std::string& desc);
  // Hides or shows space `space_id`, or the selected space when none is given.
  Value hide_space(std::optional<std::int64_t> space_id = std::nullopt);
  Value show_space(std::optional<std::int64_t> space_id = std::nullopt);

  // ---- parameters ----
  // Brings the selected space's cache up to date with the service (the whole space the first
  // time, the change log since the last update afterwards) and loads it into the live
  // parameters. Returns the keys written to the cache.
  std::vector<std::string> download_space_parameter();
  // Loads the live parameters from the local cache without asking the service.
  void load_parameters_from_local_cache();
  // The selected space's cache bookkeeping (see SpaceCache::get_cache_info).
  Value get_local_space_info();

  // Historical snapshot: the whole selected space as it stood at `timestamp` (seconds, or
  // milliseconds when above 1e12). Each (space, moment) is fetched once and kept in a
  // first-in first-out cache of 8 snapshots; a cached moment returns the same mapping object.
  std::shared_ptr<ParameterMap> get_history_space_parameter(std::int64_t timestamp);
  // Stores a snapshot under `cache_key` ([space id, timestamp]) and evicts the oldest entries
  // beyond the bound. A TypeError naming "cache_key" or "snap" for a key that is not a pair
  // of integers or an absent snapshot.
  void _put_history_space_cache(const Value& cache_key, std::shared_ptr<ParameterMap> snap);

  // Sends every pending change to the service in one call, tagged with the experiment, node
  // and session it came from, then synchronises the space. When the service refuses, the
  // pending changes are dropped and the error is raised again.
  void submit_space_parameter(std::optional<std::int64_t> experiment_id = std::nullopt,
                              std::optional<std::int64_t> node_id = std::nullopt,
                              std::optional<std::int64_t> session_id = std::nullopt);
  // Removes one key (text) or several (a list of text) from the space, then synchronises it.
  bool remove_space_parameter(const Value& keys);

  // One level of the parameter tree under `parent_tree` (path components; the root when
  // absent or empty): inner nodes as {"full_key", "node_name", "expandable"}, leaves with
  // "v" and "t" too. With `space_id`, that space is selected first. Version 0 reads leaves'
  // current values; another version the values stored in that version's tree.
  Value get_space_parameter_by_tree(
      std::optional<std::int64_t> space_id = std::nullopt,
      std::optional<std::vector<std::string>> parent_tree = std::nullopt, std::int64_t version = 0);
  // The selected space's parameters whose keys contain `search_word` (every key when
  // absent): records {"full_key", "v", "t"}. Needs the right to read the group.
  Value search_space_parameters(const std::optional<std::string>& search_word = std::nullopt);
  // One page of a key's change history: {"list": records, "total": count}.
  static Value get_parameter_history(std::int64_t space_id,
                                     const std::optional<std::string>& key = std::nullopt,
                                     std::int64_t page = 1, std::int64_t per_page = 10);

  // ---- groups ----
  // One page of the device groups visible to the user (hidden ones included by default).
  static Value list_groups(std::int64_t page = 1, std::int64_t per_page = 10,
                           std::optional<std::int64_t> org_id = std::nullopt,
                           bool show_hidden = true);
  // Creates a device group with its first space "origin" and the experiment folders
  // "AutoCali", "Default" and "Calibration"; returns the service's record of the group. With
  // no organisation it is created in the user's own.
  static Value create_group(const std::string& device_group_name, const std::string& description,
                            std::optional<std::int64_t> organization_id = std::nullopt);
  // Descriptions of parameter keys gathered from the plug-ins serving
  // "parameter_description_extension" (a later plug-in wins for the same key).
  static Value get_parameter_description(const std::vector<std::string>& full_key_list,
                                         const std::string& language = "cn");

  // ---- experiments ----
  // Listings of a space's experiments, as the service answers, except that every record of
  // "list" carries its id under "exp_id" (the service's "sub_process_id" is renamed in place).
  static Value list_exps(std::int64_t space_id, std::int64_t page = 1, std::int64_t per_page = 10);
  // Experiments newer than `since_exp_id`, of one folder or of all.
  static Value list_new_exps(std::int64_t space_id, std::int64_t since_exp_id,
                             std::optional<std::int64_t> exp_folder_id = std::nullopt,
                             std::int64_t limit = 50);
  // How many experiments a folder holds; the service's answer unchanged.
  static Value count_exps_by_folder(std::int64_t space_id,
                                    std::optional<std::int64_t> exp_folder_id = std::nullopt);
  // One folder's experiments older than `before_exp_id` (from the newest when absent).
  static Value list_exps_by_folder(std::int64_t space_id,
                                   std::optional<std::int64_t> exp_folder_id = std::nullopt,
                                   std::optional<std::int64_t> before_exp_id = std::nullopt,
                                   std::int64_t limit = 10);
  // Makes sure every level of the slash-separated `folder_path` exists in the space's folder
  // tree, reusing existing levels (the first one listed under a name) and creating the
  // missing ones; returns the record of the innermost folder. Surrounding blanks and
  // slashes, and empty levels, are ignored; blanks inside a level belong to its name.
  // A ValueError for a path without a folder name.
  Value create_exp_folder(std::int64_t space_id, const std::string& folder_path);

  // A new, empty experiment bound to this group. Nothing is asked of the service.
  experiment::Experiment create_exp(std::string title, std::string desc);
  // Stops a running experiment; the service's answer.
  Value terminate_exp(std::int64_t exp_id);
  // Submits `exp` to the selected space: checks the right to the group, files it in a folder
  // (options.exp_folder_id, else options.exp_folder_path), stores its MessagePack encoding in
  // object storage and keeps a copy "<id>.kvexp" in the experiment's cache directory. Sets
  // exp.attachment to options.attachment (empty when null). Returns the experiment id.
  // A TypeError naming "attachment" unless it is null or a mapping of names to integers.
  Value submit_exp(experiment::Experiment& exp, SubmitOptions options = {});

  // An experiment's detail record, as the service answers.
  static Value get_experiment(std::int64_t exp_id);
  // (the experiment, its detail record with "progress" decoded when it is JSON text, its
  // space's record). With `set_space`, the group selects the experiment's space (downloading
  // its parameters). The definition is downloaded once and then read from "<id>.kvexp".
  std::tuple<experiment::Experiment, Value, Value> get_experiment_detail(std::int64_t exp_id,
                                                                         bool set_space = true);
  // The detail record with "progress" decoded when it is JSON text (kept as it is otherwise).
  Value get_experiment_status(std::int64_t exp_id);
  // The message log; each "timestamp" becomes local time "%Y-%m-%d %H:%M:%S".
  static Value get_experiment_msg(std::int64_t exp_id);

  // Stores an attachment in object storage and registers it; returns its resource id (an
  // integer, or null), to be passed to submit_exp in SubmitOptions::attachment. Needs the
  // object-storage client, which submit_exp and the downloads create (a RuntimeError before).
  Value upload_exp_attachment(const std::string& indicator, const std::string& filename,
                              const Bytes& data, const std::string& file_format);
  // Downloads a submitted experiment's attachments into its experiment cache directory of
  // today (files already there are kept) and returns file name -> {"file_name", "format",
  // "absolute_path"}. Selects the experiment's space, as get_experiment_detail does.
  Value download_exp_attachment(std::int64_t exp_id);

  // The work of one download thread: takes chunk descriptors from `uri_queue` until it is
  // empty, fetches each (from the service's result cache when `exp_id` is given, from object
  // storage otherwise or as a fallback; 20 attempts, 1 s apart) into
  // `cache_dir` + "/chunk_<chunk_id>.kvres", and puts the path of every chunk file that exists
  // or was written into `filename_queue`. A chunk that fails 20 times ends it with an error.
  static void download_to_file(utils::ThreadQueue<Value>& uri_queue,
                               utils::ThreadQueue<std::string>& filename_queue,
                               std::shared_ptr<com::minio::MinIOAPI> minio,
                               const std::string& cache_dir,
                               std::optional<std::int64_t> exp_id = std::nullopt);
  // Fetches the chunks described by `uri_list` (a list of mappings with "chunk_id") into the
  // experiment's result cache directory, one thread per chunk, and returns the paths of the
  // chunk files in the order the threads finished them. A thread that fails reports on
  // standard error; its chunk is missing from the answer. A TypeError naming "uri_list" for
  // anything but a list of mappings (or nulls).
  std::vector<std::string> download_result(std::int64_t exp_id, const Value& uri_list);

  // ---- fitting ----
  // Stores the fit image `img_file` of an experiment and its 128-pixel copy as "fitting"
  // resources; returns their resource ids (full size, reduced). Needs the right to the space.
  std::pair<Value, Value> upload_fit_image(std::int64_t space_id, std::int64_t exp_id,
                                           const std::string& img_file);
  // The experiment's first fitting-result record, with "related_exp" = its "exp_id_list";
  // null when there is none.
  Value read_fitting_result(std::int64_t exp_id);
  // Uploads the fit image (upload_fit_image) and records the fitting result with its two
  // image ids (submit_fitting_result_with_img_id); returns the service's record.
  Value submit_fitting_result(std::int64_t space_id, std::int64_t exp_id,
                              const std::string& img_file, const FittingOptions& options = {});
  // Records a fitting result of the experiment: the table read from `table_file` (none: an
  // empty table) with the two image ids, through add_fitting_result; then, when
  // `update_space`, sets `space_parameters` (a mapping, or null for none) and submits them to
  // the space, which must be the selected one. Needs the right to the space ("Permission
  // denied."); a table file that cannot be read or is not a table is a clear error naming it,
  // and nothing is recorded then.
  Value submit_fitting_result_with_img_id(std::int64_t space_id, std::int64_t exp_id,
                                          const Value& big_img_id, const Value& small_img_id,
                                          const std::optional<std::string>& table_file,
                                          const Value& space_parameters = nullptr,
                                          bool update_space = true);

  // ---- results ----
  // Delivers an experiment's result: from the complete result file when one is cached; from
  // the service's merged result (or by joining a legacy per-piece layout) once the experiment
  // is finished; otherwise by following it live, joining each new chunk where it continues
  // the result. `update_callback` hears of progress after each productive poll and once at the
  // end. With `waiting_for_finished` false, returns what is available now.
  experiment::Result pull_result(std::int64_t exp_id, bool waiting_for_finished = true,
                                 const UpdateCallback& update_callback = {});

  // The steps of pull_result, public so that they can be exercised one by one.
  std::optional<experiment::Result> _pull_result_dispatch_initial(
      std::int64_t exp_id, const Value& exp_detail, const Value& results,
      const std::string& complete_filename, const std::string& cache_dir,
      const UpdateCallback& update_callback, Value& chunk_list, experiment::Result& result_obj,
      bool waiting_for_finished);
  experiment::Result _pull_result_realtime(std::int64_t exp_id, const std::string& cache_dir,
                                           const std::string& complete_filename,
                                           experiment::Result result_obj, Value chunk_list,
                                           std::int64_t last_chunk_id, bool waiting_for_finished,
                                           const UpdateCallback& update_callback = {});
  std::optional<experiment::Result> _try_resolve_terminal_from_results(
      std::int64_t exp_id, const Value& results, const Value& status_detail,
      const std::string& complete_filename, const std::string& cache_dir,
      const UpdateCallback& update_callback, TerminalOptions options = {});

  // Result metadata from piece last_chunk_id + 1 on (a list, or null as the service said),
  // retried every 0.5 s up to max_retry times.
  Value _get_results_with_retry(std::int64_t exp_id, std::int64_t last_chunk_id,
                                std::int64_t max_retry = 20);
  // The experiment's detail record, retried every 0.5 s up to max_retry times; an empty
  // mapping when unknown and `allow_empty`.
  Value _get_experiment_detail_with_retry(std::int64_t exp_id, std::int64_t max_retry = 20,
                                          bool allow_empty = false);
  // (terminal status?, at most one distinct resource id?, a record without resource id?,
  // the resource ids in order). TypeError unless `results` is a list and `exp_detail` a
  // mapping.
  std::tuple<bool, bool, bool, Value> _check_result_status(const Value& results,
                                                           const Value& exp_detail);

  // One chunk from the service's result cache, in memory.
  experiment::Result _download_chunk(std::int64_t exp_id, std::int64_t piece_id);
  // The same with up to max_retry attempts sleep_s apart; nullopt when max_retry < 1.
  std::optional<experiment::Result> _download_chunk_from_cache_with_retry(
      std::int64_t exp_id, std::int64_t piece_id, std::int64_t max_retry = 20,
      double sleep_s = 2.0);

  // A fresh Result when a batch restarts from item 0 while the result already holds items.
  experiment::Result _maybe_reset_result_on_new_chunk_batch(
      std::int64_t exp_id, const Value& chunk_list, experiment::Result result_obj,
      std::set<std::int64_t>& processed_piece_ids_global);
  // Downloads the batch's chunks in order and joins each that continues the result:
  // (result, records joined, highest piece id joined or -1).
  std::tuple<experiment::Result, Value, std::int64_t> _consume_chunk_list_incremental(
      std::int64_t exp_id, const Value& chunk_list, experiment::Result result_obj,
      std::set<std::int64_t>& processed_piece_ids_global);

  // Hands back the in-memory result of an experiment not (yet) finished: calls the callback,
  // raises on an experiment error, and saves a terminal result that has data.
  experiment::Result _return_incomplete_result(
      std::int64_t exp_id, experiment::Result result_obj, const Value& results,
      const UpdateCallback& update_callback = {}, bool waiting_for_finished = false,
      const std::optional<std::string>& complete_filename = std::nullopt,
      const std::optional<std::string>& cache_dir = std::nullopt);
  // Removes the "chunk_*.kvres" files of a directory, or the files listed.
  void _remove_chunk_files(const std::string& dir);
  void _remove_chunk_files(const std::vector<std::string>& files);

  // The server-merged result, downloaded once into `complete_filename`.
  experiment::Result _download_merged_result(std::int64_t exp_id, const Value& merged_resource_id,
                                             const std::string& complete_filename,
                                             const std::string& cache_dir,
                                             const UpdateCallback& update_callback = {});
  // A legacy result: every piece's own resource, joined in piece order.
  experiment::Result _download_old_result_chunks(std::int64_t exp_id, const Value& results,
                                                 const std::string& complete_filename,
                                                 const std::string& cache_dir,
                                                 const UpdateCallback& update_callback = {});
  // Polls the metadata every `wait_interval` seconds until the server has stored the result.
  experiment::Result _wait_for_server_merge(std::int64_t exp_id,
                                            const std::string& complete_filename,
                                            const std::string& cache_dir, const Value& exp_detail,
                                            const UpdateCallback& update_callback = {},
                                            std::int64_t max_wait_time = 300,
                                            std::int64_t wait_interval = 2);

  // ---- local directories ----
  // cache root + "/" + group name, created when missing. A group name that is not a plain
  // directory entry ("", ".", "..", a "/" or NUL in it, over 255 bytes) is a RuntimeError
  // naming it, and nothing is created.
  std::string create_cache_dir();
  // group cache directory + "/exp/" + the local date of the timestamp ("%Y%m%d") [+ "/" + id],
  // created when missing. The timestamp is seconds since the epoch (integer or real); the id
  // an integer or null (no experiment level).
  std::string create_result_cache_dir(const Value& exp_create_timestamp,
                                      const Value& exp_id = nullptr);
  std::string create_exp_cache_dir(const Value& create_timestamp, const Value& exp_id = nullptr);

  // The object-storage client, created on first need.
  std::shared_ptr<com::minio::MinIOAPI> minio;

 protected:
  // A refreshing read of a parameter synchronises the selected space with the service.
  void refresh_space_parameters() override;

 private:
  using HistoryKey = std::pair<std::int64_t, std::int64_t>;  // (space id, timestamp)

  // The group name for a service call; a RuntimeError before any group was given.
  const std::string& named_group() const;
  std::int64_t selected_space_id() const;
  std::string exp_dir(const Value& timestamp, const Value& exp_id, const char* timestamp_name);

  bool initialized_ = false;
  bool has_group_name_ = false;
  Value device_group_id_ = nullptr;
  Value organization_id_ = nullptr;
  std::optional<Value> organization_name_;
  Value group_detail_ = nullptr;
  SpaceList spaces_list_;
  SpaceNameMapping spaces_name_mapping_;
  SpaceCacheMap space_cache_;
  std::vector<std::pair<HistoryKey, std::shared_ptr<ParameterMap>>> history_space_cache_;
  std::size_t history_space_cache_max_ = 8;
  std::optional<std::string> space_name_;
};

}  // namespace korvalin_client::group
