"""Result: the items an experiment produced, as named columns of NumPy arrays."""
from korvalin_client._core import Result


def _to_pandas(self):
    """The result as a pandas DataFrame: one column per result column, indexed by item id.

    pandas is needed only here (Debian: python3-pandas)."""
    try:
        import pandas
    except ImportError as e:
        raise ImportError("Result.to_pandas() needs pandas (Debian: apt-get install python3-pandas)") from e
    index = pandas.Index(self.item_ids(), name="item_id")
    return pandas.DataFrame({name: self[name] for name in self.keys()}, index=index)


def _to_dict(self):
    """Column name -> NumPy array, for every column."""
    return {name: self[name] for name in self.keys()}


Result.to_pandas = _to_pandas
Result.to_dict = _to_dict

__all__ = ["Result"]
