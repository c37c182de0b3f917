"""The normalised status vocabulary of experiments."""
from korvalin_client._core import task_status as _core_task_status

__all__ = ["PENDING", "QUEUED", "RUNNING", "COMPLETE", "ERROR", "CANCELED", "TIMEOUT",
           "normalize_sub_process_status"]
globals().update({name: getattr(_core_task_status, name) for name in __all__})
