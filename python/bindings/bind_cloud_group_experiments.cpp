// CloudGroup's experiments, result retrieval and fitting results (korvalin_client.group.
// cloud_group; the session and parameters are in bind_group.cpp).
#include <memory>
#include <optional>
#include <queue>
#include <string>
#include <utility>

#include <pybind11/stl.h>

#include "bindings.hpp"
#include "define.hpp"

namespace korvalin_client::python {
namespace {

using group::CloudGroup;
using GroupClass = py::class_<BoundGroup, group::Group>;

template <class T>
std::optional<T> optional_of(py::handle o, const char* f, const char* name) {
  return Convert<std::optional<T>>::from(o, {f, name});
}

void bind_experiments(GroupClass& cls) {
  static_method<&CloudGroup::list_exps>(cls, "list_exps",
                                        "One page of a space's experiments (each with \"exp_id\").",
                                        py::arg("space_id"), py::arg("page") = 1,
                                        py::arg("per_page") = 10);
  static_method<&CloudGroup::list_new_exps>(
      cls, "list_new_exps", "Experiments newer than `since_exp_id`, of one folder or of all.",
      py::arg("space_id"), py::arg("since_exp_id"), py::arg("exp_folder_id") = py::none(),
      py::arg("limit") = 50);
  static_method<&CloudGroup::count_exps_by_folder>(
      cls, "count_exps_by_folder", "How many experiments a folder holds.", py::arg("space_id"),
      py::arg("exp_folder_id") = py::none());
  static_method<&CloudGroup::list_exps_by_folder>(
      cls, "list_exps_by_folder", "One folder's experiments older than `before_exp_id`.",
      py::arg("space_id"), py::arg("exp_folder_id") = py::none(),
      py::arg("before_exp_id") = py::none(), py::arg("limit") = 10);
  method<&CloudGroup::create_exp_folder>(
      cls, "create_exp_folder",
      "Makes sure every level of the slash-separated `folder_path` exists; the innermost "
      "folder's record.",
      py::arg("space_id"), py::arg("folder_path"));
  method<&CloudGroup::create_exp>(cls, "create_exp",
                                  "A new, empty experiment for this group (nothing is sent).",
                                  py::arg("title"), py::arg("desc"));
  method<&CloudGroup::terminate_exp>(cls, "terminate_exp", "Stops a running experiment.",
                                     py::arg("exp_id"));
  def(
      cls, "submit_exp",
      [](BoundGroup& self, py::handle exp, py::handle space_timestamp, py::handle template_name,
         py::handle source, py::handle attachment, py::handle exp_folder_id,
         py::handle exp_folder_path, py::handle priority) {
        const char* f = "submit_exp";
        auto& experiment = instance_of<experiment::Experiment>(exp, {f, "exp"}, "Experiment");
        group::SubmitOptions options{
            .space_timestamp = optional_of<std::int64_t>(space_timestamp, f, "space_timestamp"),
            .template_name = optional_of<std::string>(template_name, f, "template_name"),
            .source = to_text(source, {f, "source"}),
            .attachment = to_value(attachment, {f, "attachment"}),
            .exp_folder_id = optional_of<std::int64_t>(exp_folder_id, f, "exp_folder_id"),
            .exp_folder_path = optional_of<std::string>(exp_folder_path, f, "exp_folder_path"),
            .priority = optional_of<std::string>(priority, f, "priority"),
        };
        Value id;
        {
          Released released(&self.mutex);
          id = self.submit_exp(experiment, std::move(options));
        }
        return to_python(id);
      },
      "Submits `exp` to the selected space and returns the experiment id.", py::arg("exp"),
      py::arg("space_timestamp") = py::none(), py::arg("template_name") = py::none(),
      py::arg("source") = "SDK", py::arg("attachment") = py::none(),
      py::arg("exp_folder_id") = py::none(), py::arg("exp_folder_path") = py::none(),
      py::arg("priority") = py::none());
  static_method<&CloudGroup::get_experiment>(cls, "get_experiment",
                                             "An experiment's detail record.", py::arg("exp_id"));
  method<&CloudGroup::get_experiment_detail>(
      cls, "get_experiment_detail",
      "(experiment, detail record, space record); with set_space, the experiment's space is "
      "selected.",
      py::arg("exp_id"), py::arg("set_space") = true);
  method<&CloudGroup::get_experiment_status>(cls, "get_experiment_status",
                                             "The detail record with \"progress\" decoded.",
                                             py::arg("exp_id"));
  static_method<&CloudGroup::get_experiment_msg>(cls, "get_experiment_msg",
                                                 "The experiment's message log.",
                                                 py::arg("exp_id"));
  method<&CloudGroup::upload_exp_attachment>(
      cls, "upload_exp_attachment",
      "Stores an attachment (`data`: bytes) and returns its resource id, for submit_exp's "
      "`attachment`.",
      py::arg("indicator"), py::arg("filename"), py::arg("data"), py::arg("file_format"));
  method<&CloudGroup::download_exp_attachment>(
      cls, "download_exp_attachment",
      "Downloads an experiment's attachments into its cache directory: file name -> where.",
      py::arg("exp_id"));
  def_static(
      cls, "download_to_file",
      [](py::handle uri_queue, py::handle filename_queue, py::handle minio, py::handle cache_dir,
         py::handle exp_id) {
        // The queues are Python queue.Queue objects (anything with put and get_nowait): the
        // chunk descriptors are taken into the worker's own queue, and the file names it
        // produced are put into filename_queue as they would have been.
        const char* f = "download_to_file";
        std::shared_ptr<com::minio::MinIOAPI> client;
        if (!minio.is_none()) {
          if (!py::isinstance<com::minio::MinIOAPI>(minio)) wrong_type({f, "minio"}, "MinIOAPI", minio);
          client = minio.cast<std::shared_ptr<com::minio::MinIOAPI>>();
        }
        const std::string dir = to_text(cache_dir, {f, "cache_dir"});
        const auto id = optional_of<std::int64_t>(exp_id, f, "exp_id");
        utils::ThreadQueue<Value> uris;
        const py::object empty = py::module_::import("queue").attr("Empty");
        while (true) {
          try {
            uris.put(to_value(uri_queue.attr("get_nowait")(), {f, "uri_queue"}));
          } catch (py::error_already_set& e) {
            if (!e.matches(empty)) throw;
            break;
          }
        }
        utils::ThreadQueue<std::string> files;
        // The files fetched are handed back whether the worker finished or failed.
        const auto hand_back = [&] {
          while (auto file = files.try_get()) filename_queue.attr("put")(to_str(*file));
        };
        try {
          Released released;
          CloudGroup::download_to_file(uris, files, client, dir, id);
        } catch (...) {
          hand_back();
          throw;
        }
        hand_back();
      },
      "The work of one download thread: fetches the chunks of `uri_queue` into `cache_dir` and "
      "puts their paths into `filename_queue`.",
      py::arg("uri_queue"), py::arg("filename_queue"), py::arg("minio"), py::arg("cache_dir"),
      py::arg("exp_id") = py::none());
  method<&CloudGroup::download_result>(
      cls, "download_result",
      "Fetches the chunks of `uri_list` in parallel; the paths of the chunk files.",
      py::arg("exp_id"), py::arg("uri_list"));
}

void bind_results(GroupClass& cls) {
  method<&CloudGroup::pull_result>(
      cls, "pull_result",
      "Delivers an experiment's result: from the cached complete file, the server's merged "
      "result, or by following it live. update_callback(result=, finished=, exp_detail=) "
      "hears of progress. Ctrl-C stops it at once.",
      py::arg("exp_id"), py::arg("waiting_for_finished") = true,
      py::arg("update_callback") = py::none());
  method<&CloudGroup::_pull_result_dispatch_initial>(
      cls, "_pull_result_dispatch_initial",
      "The first fetch's dispatch; `chunk_list` (a list) and `result_obj` are updated in place.",
      py::arg("exp_id"), py::arg("exp_detail"), py::arg("results"), py::arg("complete_filename"),
      py::arg("cache_dir"), py::arg("update_callback"), py::arg("chunk_list"),
      py::arg("result_obj"), py::arg("waiting_for_finished"));
  method<&CloudGroup::_pull_result_realtime>(
      cls, "_pull_result_realtime", "The live pull loop.", py::arg("exp_id"),
      py::arg("cache_dir"), py::arg("complete_filename"), py::arg("result_obj"),
      py::arg("chunk_list"), py::arg("last_chunk_id"), py::arg("waiting_for_finished"),
      py::arg("update_callback") = py::none());
  def(
      cls, "_try_resolve_terminal_from_results",
      [](BoundGroup& self, py::handle exp_id, py::handle results, py::handle status_detail,
         py::handle complete_filename, py::handle cache_dir, py::handle update_callback,
         py::handle merge_max_wait, py::handle merge_interval, py::handle wait_merge_detail,
         py::handle empty_resource_return_incomplete, py::handle result_obj_for_incomplete,
         py::handle update_callback_for_incomplete,
         py::handle fresh_detail_for_empty_terminal_callback) -> py::object {
        const char* f = "_try_resolve_terminal_from_results";
        const std::int64_t id = to_int(exp_id, {f, "exp_id"});
        const Value res = to_value(results, {f, "results"});
        const Value detail = to_value(status_detail, {f, "status_detail"});
        const std::string complete = to_text(complete_filename, {f, "complete_filename"});
        const std::string dir = to_text(cache_dir, {f, "cache_dir"});
        const auto callback = to_update_callback(update_callback, {f, "update_callback"});
        experiment::Result* incomplete =
            result_obj_for_incomplete.is_none()
                ? nullptr
                : &instance_of<experiment::Result>(result_obj_for_incomplete,
                                                   {f, "result_obj_for_incomplete"}, "Result");
        group::TerminalOptions options{
            .merge_max_wait = to_int(merge_max_wait, {f, "merge_max_wait"}),
            .merge_interval = to_int(merge_interval, {f, "merge_interval"}),
            .wait_merge_detail = wait_merge_detail.is_none()
                                     ? std::nullopt
                                     : std::optional<Value>(to_value(
                                           wait_merge_detail, {f, "wait_merge_detail"})),
            .empty_resource_return_incomplete = to_bool(
                empty_resource_return_incomplete, {f, "empty_resource_return_incomplete"}),
            .result_obj_for_incomplete = incomplete,
            .update_callback_for_incomplete = to_update_callback(
                update_callback_for_incomplete, {f, "update_callback_for_incomplete"}),
            .fresh_detail_for_empty_terminal_callback =
                to_bool(fresh_detail_for_empty_terminal_callback,
                        {f, "fresh_detail_for_empty_terminal_callback"}),
        };
        std::optional<experiment::Result> out;
        {
          Released released(&self.mutex);
          out = self._try_resolve_terminal_from_results(id, res, detail, complete, dir, callback,
                                                        std::move(options));
        }
        return answer(std::move(out));
      },
      "Resolves a terminal experiment from its result metadata (None when it cannot yet).",
      py::arg("exp_id"), py::arg("results"), py::arg("status_detail"),
      py::arg("complete_filename"), py::arg("cache_dir"), py::arg("update_callback"),
      py::kw_only(), py::arg("merge_max_wait") = 300, py::arg("merge_interval") = 2,
      py::arg("wait_merge_detail") = py::none(),
      py::arg("empty_resource_return_incomplete") = false,
      py::arg("result_obj_for_incomplete") = py::none(),
      py::arg("update_callback_for_incomplete") = py::none(),
      py::arg("fresh_detail_for_empty_terminal_callback") = false);
  method<&CloudGroup::_get_results_with_retry>(
      cls, "_get_results_with_retry", "Result metadata from piece last_chunk_id + 1 on, retried.",
      py::arg("exp_id"), py::arg("last_chunk_id"), py::arg("max_retry") = 20);
  method<&CloudGroup::_check_result_status>(
      cls, "_check_result_status",
      "(terminal?, at most one resource id?, a record without resource id?, resource ids).",
      py::arg("results"), py::arg("exp_detail"));
  def(
      cls, "_remove_chunk_files",
      [](BoundGroup& self, py::handle files_or_dir) {
        const char* f = "_remove_chunk_files";
        if (PyUnicode_Check(files_or_dir.ptr())) {
          const std::string dir = to_text(files_or_dir, {f, "files_or_dir"});
          Released released(&self.mutex);
          self._remove_chunk_files(dir);
        } else {
          const auto files = to_text_list(files_or_dir, {f, "files_or_dir"});
          Released released(&self.mutex);
          self._remove_chunk_files(files);
        }
      },
      "Removes the \"chunk_*.kvres\" files of a directory (str), or the files listed.",
      py::arg("files_or_dir"));
  method<&CloudGroup::_get_experiment_detail_with_retry>(
      cls, "_get_experiment_detail_with_retry", "The experiment's detail record, retried.",
      py::arg("exp_id"), py::arg("max_retry") = 20, py::arg("allow_empty") = false);
  method<&CloudGroup::_return_incomplete_result>(
      cls, "_return_incomplete_result",
      "Hands back the in-memory result of an experiment not (yet) finished.", py::arg("exp_id"),
      py::arg("result_obj"), py::arg("results"), py::arg("update_callback") = py::none(),
      py::arg("waiting_for_finished") = false, py::arg("complete_filename") = py::none(),
      py::arg("cache_dir") = py::none());
  method<&CloudGroup::_download_merged_result>(
      cls, "_download_merged_result", "The server-merged result, downloaded once.",
      py::arg("exp_id"), py::arg("merged_resource_id"), py::arg("complete_filename"),
      py::arg("cache_dir"), py::arg("update_callback") = py::none());
  method<&CloudGroup::_download_old_result_chunks>(
      cls, "_download_old_result_chunks", "A legacy result: every piece's resource, joined.",
      py::arg("exp_id"), py::arg("results"), py::arg("complete_filename"), py::arg("cache_dir"),
      py::arg("update_callback") = py::none());
  method<&CloudGroup::_wait_for_server_merge>(
      cls, "_wait_for_server_merge", "Polls until the server has stored the merged result.",
      py::arg("exp_id"), py::arg("complete_filename"), py::arg("cache_dir"),
      py::arg("exp_detail"), py::arg("update_callback") = py::none(),
      py::arg("max_wait_time") = 300, py::arg("wait_interval") = 2);
  method<&CloudGroup::_download_chunk>(cls, "_download_chunk",
                                       "One chunk from the service's result cache.",
                                       py::arg("exp_id"), py::arg("piece_id"));
  method<&CloudGroup::_download_chunk_from_cache_with_retry>(
      cls, "_download_chunk_from_cache_with_retry", "One chunk, retried (None when max_retry < 1).",
      py::arg("exp_id"), py::arg("piece_id"), py::arg("max_retry") = 20, py::arg("sleep_s") = 2.0);
  method<&CloudGroup::_maybe_reset_result_on_new_chunk_batch>(
      cls, "_maybe_reset_result_on_new_chunk_batch",
      "A fresh Result when a batch restarts from item 0 (`processed_piece_ids_global`, a set, is "
      "updated in place).",
      py::arg("exp_id"), py::arg("chunk_list"), py::arg("result_obj"),
      py::arg("processed_piece_ids_global"));
  method<&CloudGroup::_consume_chunk_list_incremental>(
      cls, "_consume_chunk_list_incremental",
      "Joins the batch's chunks that continue the result: (result, records joined, highest piece "
      "id).",
      py::arg("exp_id"), py::arg("chunk_list"), py::arg("result_obj"),
      py::arg("processed_piece_ids_global"));
}

void bind_fitting(GroupClass& cls) {
  method<&CloudGroup::upload_fit_image>(
      cls, "upload_fit_image",
      "Stores a fit image and its 128-pixel copy; their resource ids (full size, reduced).",
      py::arg("space_id"), py::arg("exp_id"), py::arg("img_file"));
  method<&CloudGroup::read_fitting_result>(cls, "read_fitting_result",
                                           "The experiment's fitting result, or None.",
                                           py::arg("exp_id"));
  def(
      cls, "submit_fitting_result",
      [](BoundGroup& self, py::handle space_id, py::handle exp_id, py::handle img_file,
         py::handle table_file, py::handle space_parameters, py::handle update_space) {
        const char* f = "submit_fitting_result";
        const std::int64_t space = to_int(space_id, {f, "space_id"});
        const std::int64_t id = to_int(exp_id, {f, "exp_id"});
        const std::string image = to_text(img_file, {f, "img_file"});
        group::FittingOptions options{
            .table_file = optional_of<std::string>(table_file, f, "table_file"),
            .space_parameters = to_value(space_parameters, {f, "space_parameters"}),
            .update_space = to_bool(update_space, {f, "update_space"}),
        };
        Value out;
        {
          Released released(&self.mutex);
          out = self.submit_fitting_result(space, id, image, options);
        }
        return to_python(out);
      },
      "Uploads the fit image and records the fitting result with it.", py::arg("space_id"),
      py::arg("exp_id"), py::arg("img_file"), py::arg("table_file") = py::none(),
      py::arg("space_parameters") = py::none(), py::arg("update_space") = true);
  method<&CloudGroup::submit_fitting_result_with_img_id>(
      cls, "submit_fitting_result_with_img_id",
      "Records a fitting result with its two image ids and, with update_space, submits "
      "`space_parameters` to the space.",
      py::arg("space_id"), py::arg("exp_id"), py::arg("big_img_id"), py::arg("small_img_id"),
      py::arg("table_file"), py::arg("space_parameters") = py::none(),
      py::arg("update_space") = true);
}

}  // namespace

void bind_cloud_group_experiments(py::module_& m) {
  auto cls = py::reinterpret_borrow<GroupClass>(m.attr("CloudGroup"));
  bind_experiments(cls);
  bind_results(cls);
  bind_fitting(cls);
}

}  // namespace korvalin_client::python
