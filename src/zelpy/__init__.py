"""zelpy: digital image correlation data files in Python.

Read, write and analyse the data files of a DIC measurement (one file per
image, a grid of points with named float32 variables per area of interest),
keep them in HDF5 files, find them in directories and project archives, and
receive them live from a running application.

Everything is defined in the compiled module ``zelpyx.zelpy.zelpy`` and
re-exported here, so ``import zelpy`` and ``from zelpyx.zelpy import zelpy``
give the same classes.
"""

from zelpyx.zelpy import zelpy as _core
from zelpyx.zelpy.zelpy import *  # noqa: F401,F403

__all__ = [name for name in dir(_core) if not name.startswith("_") and name not in ("np",)]
globals().update({name: getattr(_core, name) for name in __all__})

__version__ = "0.1.0"
