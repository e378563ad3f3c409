"""Compiled core of zelpy; import :mod:`zelpy` instead."""
