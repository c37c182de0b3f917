"""The service operations of module "user", as the connected service answers them."""
from korvalin_client import _core

globals().update(_core.operations["user"])
__all__ = sorted(_core.operations["user"])
