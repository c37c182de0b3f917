"""korvalin_client: run experiments on groups of devices from Python.

    from korvalin_client.group.cloud_group import CloudGroup
    g = CloudGroup("demo", "origin")

The classes live in the modules of the library's own layout: ``group.cloud_group``
(CloudGroup), ``experiment.experiment`` (Experiment), ``experiment.result`` (Result),
``com.connection_manager``, ``com.<service module>``, ``utils.*``. The embedded service on
this machine is used unless ``KORVALIN_SERVICE_URL`` (and ``KORVALIN_TOKEN``) name a server.
"""
from korvalin_client._core import __version__
# Gives every Result its Python-side methods (to_pandas, to_dict).
import korvalin_client.experiment.result  # noqa: E402,F401

__all__ = ["__version__"]
