# Result columns as NumPy arrays: a one-block column is a read-only view of the result's own
# memory that keeps it alive and never changes under its reader; several blocks are copied.
import numpy as np
import pytest

from korvalin_client.experiment.result import Result

BIG = 5000  # above the size under which joined chunks are copied together into one block


def test_arrays_view_without_copy_and_stay_valid():
    r = Result.from_columns(0, {"x": np.arange(BIG, dtype=float), "n": np.arange(BIG),
                                "z": np.arange(BIG) * 1j, "s": [str(i) for i in range(BIG)]})
    assert r.dtypes == {"x": "float64", "n": "int64", "z": "complex128", "s": "text"}
    x = r["x"]
    assert not x.flags.owndata and not x.flags.writeable
    with pytest.raises(ValueError):
        x[0] = 1.0
    assert r["n"].dtype == np.int64 and r["z"][3] == 3j and r["s"][7] == "7"

    # Joining more neither moves nor changes the block the array views.
    r.concatenate(Result.from_columns(BIG, {"x": np.full(BIG, -1.0), "n": np.zeros(BIG, int),
                                            "z": np.zeros(BIG, complex), "s": ["t"] * BIG}))
    assert np.array_equal(x, np.arange(BIG, dtype=float))
    joined = r["x"]
    assert joined.flags.owndata and len(joined) == 2 * BIG and joined[-1] == -1.0
    assert np.array_equal(r.item_ids(), np.arange(2 * BIG))

    del r
    assert x.sum() == sum(range(BIG))  # the array keeps its block alive


def test_strict_joins_and_files(tmp_path):
    r = Result()
    r.concatenate(Result.from_columns(0, {"v": [1.0, 2.0]}))
    with pytest.raises(RuntimeError, match="exp_res_order_wrong"):
        r.concatenate(Result.from_columns(5, {"v": [3.0]}))
    with pytest.raises(ValueError):
        r.concatenate(Result.from_columns(2, {"w": [3.0]}))
    loose = Result(contiguous=False, same_columns=False)
    loose.concatenate(Result.from_columns(0, {"a": [1, 2]})).concatenate(
        Result.from_columns(10, {"b": ["x"]}))
    assert loose.segments == [(0, 2), (10, 1)]
    assert np.isnan(loose["a"][2]) and list(loose["b"]) == ["", "", "x"]

    path = str(tmp_path / "r.kvres")
    loose.save_to_file(path)
    back = Result.load_from_file(path)
    assert back.keys() == ["a", "b"] and len(back) == 3
    assert Result.from_bytes(back.to_bytes()).segments == [(0, 2), (10, 1)]
    with pytest.raises(RuntimeError, match="nothing.kvres"):
        Result.load_from_file(str(tmp_path / "nothing.kvres"))
    with pytest.raises(ValueError, match="one-dimensional"):
        Result.from_columns(0, {"m": np.zeros((2, 2))})


def test_to_pandas():
    pandas = pytest.importorskip("pandas")
    r = Result(contiguous=False, same_columns=True)
    r.concatenate(Result.from_columns(3, {"I": [0.5, 0.25], "tag": ["a", "b"]}))
    frame = r.to_pandas()
    assert isinstance(frame, pandas.DataFrame)
    assert list(frame.index) == [3, 4] and frame.index.name == "item_id"
    assert list(frame["tag"]) == ["a", "b"] and frame["I"].iloc[1] == 0.25
