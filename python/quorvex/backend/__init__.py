"""Backends of the client library."""
