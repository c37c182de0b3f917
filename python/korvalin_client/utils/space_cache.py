"""SpaceCache: the persistent local copy of one space's parameters."""
from korvalin_client._core import SpaceCache

__all__ = ["SpaceCache"]
