"""A Rabi amplitude scan of q0, fitted and plotted.

Selects device group "lab-a" and its space "origin" (creating them on a fresh store), sweeps
the drive amplitude of q0 over [0, 1], follows the result live, fits
I(a) = A cos(2 pi f a + phi) + c with NumPy alone, saves a plot of data and fit to
<out>/rabi_<exp_id>.png and uploads it as the experiment's fit image.

    PYTHONPATH=build/python /usr/bin/python3 examples/python/rabi.py [--out DIR]

It runs on the embedded store under KORVALIN_STORAGE_DIR, or on the server named by
KORVALIN_SERVICE_URL and KORVALIN_TOKEN when they are set.
"""
import argparse
import sys
from pathlib import Path

import numpy as np
import matplotlib

matplotlib.use("Agg")  # files only, no display
import matplotlib.pyplot as plt  # noqa: E402

from korvalin_client.group.cloud_group import CloudGroup  # noqa: E402


def fit_cosine(a, y):
    """Least-squares fit of y = A cos(2 pi f a + phi) + c: (A, f, phi, c).

    For a fixed f the model is linear in (A cos phi, -A sin phi, c); scan f on a coarse grid,
    then zoom in around the best frequency."""
    def solve(f):
        x = np.column_stack([np.cos(2 * np.pi * f * a), np.sin(2 * np.pi * f * a), np.ones_like(a)])
        coef, *_ = np.linalg.lstsq(x, y, rcond=None)
        return np.sum((x @ coef - y) ** 2), coef

    span = a.max() - a.min()
    step = 0.25 / span  # a quarter period over the scan: the best frequency cannot slip through
    grid = np.arange(step, 0.5 / np.min(np.diff(np.sort(a))), step)  # up to Nyquist
    for _ in range(6):
        f = min(grid, key=lambda g: solve(g)[0])
        grid = np.linspace(max(f - step, step / 100), f + step, 41)
        step /= 20
    cos_part, sin_part, c = solve(f)[1]
    return np.hypot(cos_part, sin_part), f, np.arctan2(-sin_part, cos_part), c


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", default=".", help="directory of the plot (default: .)")
    out = Path(parser.parse_args().out)
    out.mkdir(parents=True, exist_ok=True)

    # A fresh store has no group: create it, with its space "origin", in the user's
    # organisation.
    groups = CloudGroup.list_groups(page=1, per_page=1000)["list"]
    if not any(g["device_group_name"] == "lab-a" for g in groups):
        CloudGroup.create_group("lab-a", "my device group")

    # Select the group and its space; the space's parameters are synchronised and loaded.
    g = CloudGroup("lab-a", "origin")

    # Sweep the drive amplitude, measure I and Q at each point, file it under a folder path.
    exp = g.create_exp("rabi", "amplitude scan of q0")
    exp.sweep("/q0/drive/amp", np.linspace(0.0, 1.0, 101)).measure_quantities(["I", "Q"])
    exp_id = g.submit_exp(exp, exp_folder_path="AutoCali/rabi/q0")
    print(f"submitted experiment {exp_id}")

    # Follow it live: the callback hears of every update.
    def progress(result, finished, exp_detail):
        print(f"  {len(result)} items, finished={finished}")

    res = g.pull_result(exp_id, update_callback=progress)
    amp, i = res["/q0/drive/amp"], res["I"]

    # Fit. I starts at its maximum (phi near 0, A > 0) when the qubit starts in its ground
    # state; the first minimum, half a period on, is then the pi pulse.
    A, f, phi, c = fit_cosine(amp, i)
    print(f"fit: A={A:.4f} f={f:.4f} phi={phi:.4f} c={c:.4f}")
    if abs(phi) < 0.2:
        print(f"pi-pulse amplitude: {1 / (2 * f):.4f}")
    else:
        print(f"no pi-pulse amplitude: the oscillation starts at phase {phi:.2f}, not at 0")

    # Plot data and fit, and store the plot as the experiment's fit image.
    fine = np.linspace(amp.min(), amp.max(), 500)
    fig, ax = plt.subplots(figsize=(6, 4))
    ax.plot(amp, i, "o", markersize=3, label="I (measured)")
    ax.plot(fine, A * np.cos(2 * np.pi * f * fine + phi) + c, "-",
            label=f"fit: f={f:.3f}, pi amp={1 / (2 * f):.3f}")
    ax.set_xlabel("drive amplitude /q0/drive/amp (a.u.)")
    ax.set_ylabel("I (a.u.)")
    ax.set_title(f"Rabi amplitude scan, experiment {exp_id}")
    ax.legend()
    fig.tight_layout()
    path = out / f"rabi_{exp_id}.png"
    fig.savefig(path, dpi=100)
    plt.close(fig)
    print(f"plot: {path}")

    big_id, small_id = g.upload_fit_image(g.space_id, exp_id, str(path))
    print(f"fit image resources: big={big_id} small={small_id}")
    print(f"experiment {exp_id}: {len(res)} of {exp.item_count()} items")
    return 0 if len(res) == exp.item_count() else 1


if __name__ == "__main__":
    sys.exit(main())
