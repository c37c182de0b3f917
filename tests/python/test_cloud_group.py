# A whole experiment on the embedded store from Python: parameters, submission into a folder,
# a live pull with its callback, the result as arrays; and what reaches the caller when
# something goes wrong (the library's errors as Python's, an exception raised in a callback).
import numpy as np
import pytest

from conftest import scan
from korvalin_client.experiment.experiment import Experiment
from korvalin_client.experiment.result import Result
from korvalin_client.group.cloud_group import CloudGroup


def test_whole_experiment(group):
    group.set_space_parameter("/q0/drive/freq", 5.1e9)
    group.set_space_parameter("/q0/name", "qubit zero")
    group.submit_space_parameter()
    again = CloudGroup(group.group_name, "origin")
    assert again.get_space_parameter("/q0/drive/freq") == 5.1e9
    assert again.space_parameters["/q0/name"] == "qubit zero"
    assert [r["full_key"] for r in again.search_space_parameters("drive")] == ["/q0/drive/freq"]

    exp = scan(group, 501)
    exp_id = group.submit_exp(exp, exp_folder_path="AutoCali/rabi/q0")
    assert isinstance(exp_id, int)
    calls = []

    def follow(result, finished, exp_detail):
        calls.append((len(result), finished, exp_detail["status"]))

    res = group.pull_result(exp_id, update_callback=follow)
    assert len(res) == 501 and res.item_id_start == 0 and res.item_id_end == 500
    assert res.keys() == ["/q0/drive/amp", "I", "Q"]
    assert calls[-1][:2] == (501, True)
    assert all(not finished for _, finished, _ in calls[:-1])
    assert [n for n, _, _ in calls] == sorted(n for n, _, _ in calls)
    np.testing.assert_allclose(res["/q0/drive/amp"], np.linspace(0, 1, 501))
    assert res["I"].dtype == np.float64 and res["I"].shape == (501,)

    # The complete file serves the next pull; the same values come back.
    assert np.array_equal(group.pull_result(exp_id)["I"], res["I"])
    detail, = [e for e in CloudGroup.list_exps(group.space_id)["list"] if e["exp_id"] == exp_id]
    assert detail["title"] == "rabi"
    folder = group.create_exp_folder(group.space_id, "AutoCali/rabi/q0")
    assert CloudGroup.count_exps_by_folder(group.space_id, folder["exp_folder_id"])
    stored, status, space = group.get_experiment_detail(exp_id)
    assert stored == exp and status["status"] == "complete" and space["space_id"] == group.space_id


def test_errors_arrive_as_python_exceptions(group):
    with pytest.raises(TypeError, match=r"pull_result\(\) argument 'exp_id' must be int, not str"):
        group.pull_result("12")
    with pytest.raises(TypeError, match="submit_exp.*'priority' must be str, not int"):
        group.submit_exp(scan(group, 3), priority=5)
    with pytest.raises(TypeError, match="'exp' must be Experiment, not dict"):
        group.submit_exp({"title": "x"})
    with pytest.raises(TypeError, match="space_id_or_name"):
        group.set_space(1.5)
    with pytest.raises(RuntimeError, match="nope"):
        group.set_space("nope")
    with pytest.raises(KeyError, match="/q9/none"):
        group.get_space_parameter("/q9/none")
    with pytest.raises(ValueError):
        group.create_exp_folder(group.space_id, " / ")
    with pytest.raises(ValueError, match="deeper than 512"):
        looped = []
        looped.append(looped)
        group.set_space_parameter("/loop", looped)
    with pytest.raises(TypeError, match="str keys"):
        group.set_space_parameter("/bad", {1: 2})
    # Records travel as Python's own types, bytes included.
    group.set_space_parameter("/mixed", {"a": [1, 2.5, None, True], "b": "text"})
    assert group.get_space_parameter("/mixed") == {"a": [1, 2.5, None, True], "b": "text"}
    assert Experiment.deserialize(scan(group, 3).serialize()).sweeps[0].values == [0.0, 0.5, 1.0]


def test_callback_exception_reaches_the_caller(group):
    exp_id = group.submit_exp(scan(group, 300))
    seen = []

    def failing(result, finished, exp_detail):
        seen.append(len(result))
        raise ZeroDivisionError("stop here")

    with pytest.raises(ZeroDivisionError, match="stop here"):
        group.pull_result(exp_id, update_callback=failing)
    assert len(seen) == 1
    # The group is still usable, and a later pull delivers everything.
    assert len(group.pull_result(exp_id)) == 300
    with pytest.raises(TypeError, match="'update_callback' must be callable"):
        group.pull_result(exp_id, update_callback=3)
