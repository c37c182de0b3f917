"""Experiments and their results."""
