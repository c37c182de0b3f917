# CloudGroup's members as a Python user sees them: every method with its keyword names and
# defaults, static methods callable on the class, properties as properties.
import inspect

import pytest

from korvalin_client.group.cloud_group import CloudGroup

# member: (kind, parameters as inspect shows them, after self)
MEMBERS = {
    "__init__": ("instance", "group_name=None, space_name=None, space_version=None, "
                             "space_parameters=None, temporary_parameters=None"),
    "set_group_name": ("instance", "group_name, space_name=None, space_version=None, "
                                   "space_parameters=None, temporary_parameters=None"),
    "get_space_list": ("instance", ""),
    "set_space": ("instance", "space_id_or_name, update_parameters=True"),
    "list_groups": ("static", "page=1, per_page=10, org_id=None, show_hidden=True"),
    "create_group": ("static", "device_group_name, description, organization_id=None"),
    "get_parameter_description": ("static", "full_key_list, language='cn'"),
    "list_exps": ("static", "space_id, page=1, per_page=10"),
    "list_new_exps": ("static", "space_id, since_exp_id, exp_folder_id=None, limit=50"),
    "count_exps_by_folder": ("static", "space_id, exp_folder_id=None"),
    "list_exps_by_folder": ("static", "space_id, exp_folder_id=None, before_exp_id=None, limit=10"),
    "create_exp_folder": ("instance", "space_id, folder_path"),
    "create_cache_dir": ("instance", ""),
    "create_result_cache_dir": ("instance", "exp_create_timestamp, exp_id=None"),
    "create_exp_cache_dir": ("instance", "create_timestamp, exp_id=None"),
    "download_space_parameter": ("instance", ""),
    "load_parameters_from_local_cache": ("instance", ""),
    "get_local_space_info": ("instance", ""),
    "get_history_space_parameter": ("instance", "timestamp"),
    "_put_history_space_cache": ("instance", "cache_key, snap"),
    "submit_space_parameter": ("instance", "experiment_id=None, node_id=None, session_id=None"),
    "remove_space_parameter": ("instance", "keys"),
    "get_space_parameter_by_tree": ("instance", "space_id=None, parent_tree=None, version=0"),
    "search_space_parameters": ("instance", "search_word=None"),
    "get_parameter_history": ("static", "space_id, key=None, page=1, per_page=10"),
    "create_space": ("instance", "name, desc"),
    "get_group_detail": ("instance", ""),
    "list_spaces": ("instance", "page=1, per_page=10, show_hidden=False"),
    "hide_space": ("instance", "space_id=None"),
    "show_space": ("instance", "space_id=None"),
    "create_exp": ("instance", "title, desc"),
    "terminate_exp": ("instance", "exp_id"),
    "upload_exp_attachment": ("instance", "indicator, filename, data, file_format"),
    "download_exp_attachment": ("instance", "exp_id"),
    "submit_exp": ("instance", "exp, space_timestamp=None, template_name=None, source='SDK', "
                               "attachment=None, exp_folder_id=None, exp_folder_path=None, "
                               "priority=None"),
    "download_to_file": ("static", "uri_queue, filename_queue, minio, cache_dir, exp_id=None"),
    "download_result": ("instance", "exp_id, uri_list"),
    "get_experiment": ("static", "exp_id"),
    "get_experiment_detail": ("instance", "exp_id, set_space=True"),
    "get_experiment_status": ("instance", "exp_id"),
    "get_experiment_msg": ("static", "exp_id"),
    "_get_results_with_retry": ("instance", "exp_id, last_chunk_id, max_retry=20"),
    "_check_result_status": ("instance", "results, exp_detail"),
    "_remove_chunk_files": ("instance", "files_or_dir"),
    "_get_experiment_detail_with_retry": ("instance", "exp_id, max_retry=20, allow_empty=False"),
    "_return_incomplete_result": ("instance", "exp_id, result_obj, results, update_callback=None, "
                                              "waiting_for_finished=False, complete_filename=None, "
                                              "cache_dir=None"),
    "_download_merged_result": ("instance", "exp_id, merged_resource_id, complete_filename, "
                                            "cache_dir, update_callback=None"),
    "_download_old_result_chunks": ("instance", "exp_id, results, complete_filename, cache_dir, "
                                                "update_callback=None"),
    "_wait_for_server_merge": ("instance", "exp_id, complete_filename, cache_dir, exp_detail, "
                                           "update_callback=None, max_wait_time=300, "
                                           "wait_interval=2"),
    "_download_chunk": ("instance", "exp_id, piece_id"),
    "_download_chunk_from_cache_with_retry": ("instance", "exp_id, piece_id, max_retry=20, "
                                                          "sleep_s=2.0"),
    "_maybe_reset_result_on_new_chunk_batch": ("instance", "exp_id, chunk_list, result_obj, "
                                                           "processed_piece_ids_global"),
    "_consume_chunk_list_incremental": ("instance", "exp_id, chunk_list, result_obj, "
                                                    "processed_piece_ids_global"),
    "_try_resolve_terminal_from_results": (
        "instance", "exp_id, results, status_detail, complete_filename, cache_dir, "
                    "update_callback, *, merge_max_wait=300, merge_interval=2, "
                    "wait_merge_detail=None, empty_resource_return_incomplete=False, "
                    "result_obj_for_incomplete=None, update_callback_for_incomplete=None, "
                    "fresh_detail_for_empty_terminal_callback=False"),
    "_pull_result_dispatch_initial": ("instance", "exp_id, exp_detail, results, complete_filename, "
                                                  "cache_dir, update_callback, chunk_list, "
                                                  "result_obj, waiting_for_finished"),
    "_pull_result_realtime": ("instance", "exp_id, cache_dir, complete_filename, result_obj, "
                                          "chunk_list, last_chunk_id, waiting_for_finished, "
                                          "update_callback=None"),
    "pull_result": ("instance", "exp_id, waiting_for_finished=True, update_callback=None"),
    "submit_fitting_result": ("instance", "space_id, exp_id, img_file, table_file=None, "
                                          "space_parameters=None, update_space=True"),
    "submit_fitting_result_with_img_id": ("instance", "space_id, exp_id, big_img_id, "
                                                      "small_img_id, table_file, "
                                                      "space_parameters=None, update_space=True"),
    "upload_fit_image": ("instance", "space_id, exp_id, img_file"),
    "read_fitting_result": ("instance", "exp_id"),
}
PROPERTIES = ["device_group_id", "organization_id", "organization_name", "space", "space_name",
              "spaces_list", "spaces_name_mapping", "space_cache"]


def test_methods_keywords_and_defaults():
    assert CloudGroup.__doc__ == "Cloud Group class"
    for name, (kind, parameters) in MEMBERS.items():
        member = inspect.getattr_static(CloudGroup, name)
        shown = str(inspect.signature(getattr(CloudGroup, name)))
        if kind == "static":
            assert isinstance(member, staticmethod), name
            assert shown == f"({parameters})", name
        else:
            assert not isinstance(member, staticmethod), name
            assert shown == "(self, /" + (", " + parameters if parameters else "") + ")", name
    assert str(inspect.signature(CloudGroup)) == "(" + MEMBERS["__init__"][1] + ")"
    for name in PROPERTIES:
        assert isinstance(inspect.getattr_static(CloudGroup, name), property), name


def test_keywords_are_accepted_by_name():
    # A static method runs on the class without a group object, its arguments given by name.
    page = CloudGroup.list_groups(per_page=1000, show_hidden=True, page=1, org_id=None)
    assert page["per_page"] == 1000
    with pytest.raises(TypeError, match=r"list_groups\(\) argument 'per_page' must be int"):
        CloudGroup.list_groups(per_page="ten")
