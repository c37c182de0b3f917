"""Object storage: the client of an organisation's object store."""
from korvalin_client._core import MinIOAPI, get_minio_client

__all__ = ["MinIOAPI", "get_minio_client"]
