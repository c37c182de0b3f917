"""Where the client keeps its cache and the embedded service its store."""
from korvalin_client._core import local as _core_local

get_cache_dir = _core_local.get_cache_dir
get_local_storage_dir = _core_local.get_local_storage_dir

__all__ = ["get_cache_dir", "get_local_storage_dir"]
