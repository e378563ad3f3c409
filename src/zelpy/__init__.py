"""zelpy: digital image correlation data files in Python.

Read, write and analyse the data files of a DIC measurement (one file per
image, a grid of points with named float32 variables per area of interest),
keep them in HDF5 files, find them in directories and project archives, and
receive them live from a running application.

Everything is defined in the compiled module ``zelpyx.zelpy.zelpy`` and
re-exported here, so ``import zelpy`` and ``from zelpyx.zelpy import zelpy``
give the same classes.
"""

import types as _types

from zelpyx.zelpy import zelpy as _core

# The compiled module also holds the standard modules its classes use (os,
# re, socket ...); only its own classes, enums and functions are re-exported.
__all__ = sorted(name for name, value in vars(_core).items()
                 if not name.startswith("_") and not isinstance(value, _types.ModuleType))
globals().update({name: getattr(_core, name) for name in __all__})

__version__ = "0.1.0"


def __getattr__(name):
    # zelpy.series needs only numpy to import, but pulls in pandas and dask
    # when used; it is loaded on first access rather than with zelpy.
    if name == "series":
        import importlib
        return importlib.import_module("zelpy.series")
    raise AttributeError(f"module 'zelpy' has no attribute '{name}'")
