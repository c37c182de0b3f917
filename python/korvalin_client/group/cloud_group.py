"""CloudGroup: the object a program works through (a device group, its spaces, parameters,
experiments and results)."""
from korvalin_client._core import CloudGroup

__all__ = ["CloudGroup"]
