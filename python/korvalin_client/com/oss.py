"""The service operations of module "oss", as the connected service answers them."""
from korvalin_client import _core

globals().update(_core.operations["oss"])
__all__ = sorted(_core.operations["oss"])
