"""Group: the base of CloudGroup (live parameters, pending changes, temporary overrides)."""
from korvalin_client._core import Group

__all__ = ["Group"]
