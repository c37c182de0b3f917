"""Helpers beside CloudGroup: the parameter cache, the status vocabulary, local directories."""
