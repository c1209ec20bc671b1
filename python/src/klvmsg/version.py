"""The version, the same as the C++ library's."""

__version__ = "1.0.0"
