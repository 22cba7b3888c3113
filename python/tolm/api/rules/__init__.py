"""Rule tables and procedures; ``reduce`` is the native extension module."""

from . import reduce  # noqa: F401

__all__ = ["reduce"]
