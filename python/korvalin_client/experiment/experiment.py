"""Experiment: what a device group is asked to run."""
from korvalin_client._core import Experiment, Sweep

__all__ = ["Experiment", "Sweep"]
