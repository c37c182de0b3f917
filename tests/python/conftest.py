# Every test file runs in a process of its own (one ctest test each) on a store of its own: the
# embedded service and the client cache live under a temporary directory made before the
# library is first used, and each test works in a device group of its own.
import itertools
import os
import shutil
import tempfile

import pytest

_root = tempfile.mkdtemp(prefix="korvalin-pytest-")
os.environ["KORVALIN_STORAGE_DIR"] = os.path.join(_root, "store")
os.environ["KORVALIN_CACHE_DIR"] = os.path.join(_root, "cache")
os.environ.pop("KORVALIN_SERVICE_URL", None)

from korvalin_client.group.cloud_group import CloudGroup  # noqa: E402

_names = itertools.count()


def pytest_unconfigure(config):
    shutil.rmtree(_root, ignore_errors=True)


@pytest.fixture
def group(request):
    """A fresh device group with its space "origin" selected."""
    name = f"{request.node.name[:40]}-{next(_names)}".replace("[", "-").replace("]", "")
    CloudGroup.create_group(name, "test group", 1)
    return CloudGroup(name, "origin")


def scan(group, points, title="rabi"):
    """A Rabi amplitude scan of `points` points measuring I and Q."""
    exp = group.create_exp(title, "amplitude scan")
    exp.sweep("/q0/drive/amp", [i / max(points - 1, 1) for i in range(points)])
    exp.measure_quantities(["I", "Q"])
    return exp
