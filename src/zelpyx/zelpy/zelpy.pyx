# cython: language_level=3, embedsignature=True, binding=True, c_string_type=bytes
# distutils: language = c++
"""Digital image correlation data files: reading, writing, streaming and analysis.

Every public name of zelpy lives in this one compiled module. The library
underneath (``nimbra``) never raises for bad data; the classes here turn its
failure results into Python exceptions with fixed messages.
"""

import enum
import sys
import os
import os.path
import glob
import re
import io
import csv
import zipfile
import socket
import select
import threading

import numpy as np
cimport numpy as cnp

from libc.stdint cimport int32_t, int64_t, intptr_t, uint8_t, uint32_t, uint64_t
from libc.string cimport memcpy
from libcpp cimport bool as cbool
from libcpp.string cimport string
from libcpp.vector cimport vector

cimport nimbra

cnp.import_array()


# --------------------------------------------------------------------- enums

class ZelDataVariableType(enum.Enum):
    """Physical kind of a variable (same numbers as the library and the file)."""
    PixelCoordinate = 0
    GlobalCoordinate = 1
    PixelDisplacement = 2
    GlobalDisplacement = 3
    Strain = 4
    Correlation = 5
    Unknown = 6
    Disparity = 7
    CylinderCoordinate = 8
    CylinderDisplacement = 9
    PixelVelocity = 10
    GlobalVelocity = 11
    StrainRate = 12
    Curvature = 13
    Angle = 14
    AngularVelocity = 15
    GlobalAcceleration = 16
    PixelAcceleration = 17
    Stress = 18
    AngularAcceleration = 19


class TensorType(enum.Enum):
    """Kind of strain tensor computed by :meth:`ZelDataSet.compute_strain`."""
    LagrangeStrainTensor = 0
    HenckyStrainTensor = 1
    EulerStrainTensor = 2
    LogarithmicEulerTensor = 3
    EngineeringStrain = 4
    BiotStrainTensor = 5


class AngleType(enum.Enum):
    """Unit of angles for :class:`Rotation` and :class:`RigidTransformation`."""
    Rad = 0
    Deg = 1


class RTClientMessageType(enum.Enum):
    """Message kinds a :class:`RTClient` hands to registered handlers."""
    DATA = 0
    ANALOG_DATA = 1


# ------------------------------------------------------------ shared helpers

cdef inline bytes _utf8(str text):
    return text.encode("utf-8")


cdef inline str _str(const string& text):
    return text.decode("utf-8", "replace")


cdef object _add_note(exc, str note):
    # Exception notes keep a fixed message intact while saying more; before
    # Python 3.11 they are stored the same way but not printed.
    try:
        exc.add_note(note)
    except AttributeError:
        exc.__notes__ = getattr(exc, "__notes__", []) + [note]
    return exc


# --------------------------------------------------------------------- areas

include "data.pxi"
include "hdf5.pxi"
include "analysis.pxi"
include "surface.pxi"
include "geometry.pxi"
include "calibration.pxi"
include "polygon.pxi"
include "archive.pxi"
include "project.pxi"
include "dataio.pxi"
include "rtclient.pxi"


# ------------------------------------------------------------ logger set-up

nimbra.log_init(nimbra.log_error)
