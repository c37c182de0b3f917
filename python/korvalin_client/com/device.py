"""The service operations of module "device", as the connected service answers them."""
from korvalin_client import _core

globals().update(_core.operations["device"])
__all__ = sorted(_core.operations["device"])
