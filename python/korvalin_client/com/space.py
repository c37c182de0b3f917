"""The service operations of module "space", as the connected service answers them."""
from korvalin_client import _core

globals().update(_core.operations["space"])
__all__ = sorted(_core.operations["space"])
