"""KavrelDirect spectrometers from Python.

    import kavrel
    with kavrel.open(simulated=True) as spec:
        spec.integration_time_us = 20000
        s = spec.spectrum()
        print(s.wavelengths[s.counts.argmax()], s.counts.max())

The C library is loaded on first use: from the package's _lib folder, then
the file named by KAVREL_DIRECT_LIBRARY (KAVREL_DIRECT_SIM_LIBRARY for the
simulated instruments), then the system's library search.
"""
from . import sim
from ._native import LibraryNotFoundError, load
from .errors import (
    BY_CODE,
    CrcError,
    GenericError,
    InstrumentIOError,
    InstrumentTimeoutError,
    InvalidArgumentError,
    KavrelError,
    NoDeviceError,
    NotOpenError,
    OpenFailedError,
    ParseError,
    UnsupportedError,
    WriteProtectError,
)
from .spectrometer import (
    PROTOCOLS,
    SATURATION_COUNTS,
    DeviceEntry,
    DeviceInfo,
    Selection,
    Spectrometer,
    Spectrum,
    close_all,
    list_devices,
    open,
)

__version__ = "0.1.0"
