"""The service layer: one module per service module of the library, and the connection."""
