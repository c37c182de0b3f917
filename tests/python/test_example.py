"""examples/python/rabi.py run as a user runs it, on a fresh embedded store."""
import importlib.util
import os
import re
import subprocess
import sys
from pathlib import Path

EXAMPLE = Path(__file__).resolve().parents[2] / "examples" / "python" / "rabi.py"

# The fit image, read back from the store by another process: its stored bytes as hex.
READ_BACK = """
import sys
from korvalin_client.com import minio, oss
info = oss.get_resource_info([int(i) for i in sys.argv[1:]])
print(*(minio.get_minio_client(r["organization_id"]).download(r["uri"]).hex() for r in info["list"]))
"""


def test_rabi_example_fits_the_simulated_qubit_and_stores_its_plot(tmp_path):
    # The children find the package where this process does, and use a store of their own.
    package = Path(importlib.util.find_spec("korvalin_client").origin).parents[1]
    env = {k: v for k, v in os.environ.items() if k not in ("KORVALIN_SERVICE_URL", "KORVALIN_TOKEN")}
    env.update(PYTHONPATH=str(package), KORVALIN_STORAGE_DIR=str(tmp_path / "store"),
               KORVALIN_CACHE_DIR=str(tmp_path / "cache"))
    run = subprocess.run([sys.executable, str(EXAMPLE), "--out", str(tmp_path / "out")], env=env,
                         capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stdout + run.stderr
    out = run.stdout

    # Followed live: every update printed, the last one finished with all 101 points.
    updates = re.findall(r"(\d+) items, finished=(True|False)", out)
    assert updates and updates[-1] == ("101", "True"), out

    # The device gives I = 1 - 2 sin^2(pi a / (2 * 0.5)) = cos(2 pi a), with noise sigma 0.01.
    fit = {k: float(v) for k, v in re.findall(r"(\w+)=(-?[\d.]+)", re.search(r"fit: (.*)", out)[1])}
    assert abs(fit["A"] - 1) < 0.03 and abs(fit["f"] - 1) < 0.01, out
    assert abs(fit["phi"]) < 0.03 and abs(fit["c"]) < 0.02, out
    assert abs(float(re.search(r"pi-pulse amplitude: ([\d.]+)", out)[1]) - 0.5) < 0.005, out

    exp_id = re.search(r"submitted experiment (\d+)", out)[1]
    png = tmp_path / "out" / f"rabi_{exp_id}.png"
    assert re.search(r"plot: (.*)", out)[1] == str(png)
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"

    # Both images are stored: the plot itself and a smaller PNG copy.
    ids = re.search(r"fit image resources: big=(\d+) small=(\d+)", out).groups()
    back = subprocess.run([sys.executable, "-c", READ_BACK, *ids], env=env, capture_output=True,
                          text=True, timeout=60)
    assert back.returncode == 0, back.stderr
    big, small = (bytes.fromhex(h) for h in back.stdout.split())
    assert big == png.read_bytes()
    assert small[:8] == big[:8] and len(small) < len(big)
