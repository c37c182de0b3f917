"""The service operations of module "sub_process", as the connected service answers them."""
from korvalin_client import _core

globals().update(_core.operations["sub_process"])
__all__ = sorted(_core.operations["sub_process"])
