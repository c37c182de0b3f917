"""Device groups: CloudGroup and its base Group."""
