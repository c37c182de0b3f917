"""Which service the library talks to: the embedded store by default, a server with connect()."""
from korvalin_client._core import connection_manager as _core_connection_manager

connect = _core_connection_manager.connect
disconnect = _core_connection_manager.disconnect
get_connection_type = _core_connection_manager.get_connection_type

__all__ = ["connect", "disconnect", "get_connection_type"]
