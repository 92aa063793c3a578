"""Instruments as objects: listing, opening, and every device operation."""
import ctypes
import os
import sys
import tempfile
from ctypes import byref, c_double, c_float, c_uint8, c_uint16, c_uint32, c_uint64
from dataclasses import dataclass
from typing import Optional

import numpy as np

from . import _native
from ._native import LOCK, load
from .errors import GenericError, InvalidArgumentError, NoDeviceError, NotOpenError, OpenFailedError

PROTOCOLS = {"auto": _native.PROTOCOL_AUTO, "cm2": _native.PROTOCOL_CM2, "nir": _native.PROTOCOL_NIR}
PROTOCOL_NAMES = {_native.PROTOCOL_CM2: "cm2", _native.PROTOCOL_NIR: "nir"}

# The detector's converter reports full scale as the largest 16-bit count.
SATURATION_COUNTS = 65535


@dataclass(frozen=True)
class DeviceEntry:
    """One attached USB bridge as listed."""

    index: int
    chip_serial: str
    description: str


@dataclass(frozen=True)
class DeviceInfo:
    protocol: str  # "cm2" or "nir"
    capabilities: int
    protocol_name: str  # "UVVIS_CM2" or "NIR_LEGACY"
    model: str  # empty when the instrument did not tell
    serial_number: str
    hardware_version: str


@dataclass(frozen=True)
class Selection:
    """A selected wavelength range: the bounds asked for and the points that
    lie inside them."""

    requested_start_nm: float
    requested_end_nm: float
    actual_start_nm: float
    actual_end_nm: float
    start_index: int
    end_index: int
    count: int


@dataclass(frozen=True)
class Spectrum:
    """One acquisition. `raw` holds the samples as read (uint16); `counts` is
    `raw`, or with a dark spectrum `raw - dark` as float64. `saturated` marks
    the points at full scale in `raw`."""

    counts: np.ndarray
    wavelengths: np.ndarray
    saturated: np.ndarray
    integration_time_us: int
    average: int
    raw: np.ndarray
    dark_subtracted: bool = False

    def __array__(self, dtype=None, copy=None):
        return np.array(self.counts, dtype=dtype, copy=bool(copy))

    def __len__(self):
        return len(self.counts)


def _text(buffer):
    """A C text: a string buffer, or a char-array field that ctypes hands out
    as bytes already cut at the NUL."""
    raw = buffer if isinstance(buffer, bytes) else buffer.value
    return raw.decode("utf-8", "replace")


def _fit(value, ctype, what):
    """An integer that fits the C parameter, or InvalidArgumentError: ctypes
    would otherwise cut it silently."""
    bits = 8 * ctypes.sizeof(ctype)
    value = int(value)
    if not 0 <= value < (1 << bits):
        raise InvalidArgumentError(f"{what} must be 0 to {(1 << bits) - 1}, not {value}")
    return value


def _chip_serial(lib, index):
    buffer = ctypes.create_string_buffer(64)
    lib.call("kavrel_direct_get_chip_serial_by_index", index, buffer, len(buffer))
    return _text(buffer)


def _serials(lib):
    serials = []
    while True:
        try:
            serials.append(_chip_serial(lib, len(serials)))
        except NoDeviceError:
            return serials


def _captured_stdout(function):
    """Calls function with the process's standard output sent to a temporary
    file; returns its result and what it printed. The C library prints through
    the C runtime's buffered stdout, which is flushed before the descriptor is
    put back."""
    libc = ctypes.CDLL(None)
    sys.stdout.flush()
    libc.fflush(None)
    saved = os.dup(1)
    with tempfile.TemporaryFile() as sink:
        os.dup2(sink.fileno(), 1)
        try:
            result = function()
            libc.fflush(None)
        finally:
            os.dup2(saved, 1)
            os.close(saved)
        sink.seek(0)
        return result, sink.read().decode("utf-8", "replace")


def _descriptions(lib, serials):
    """Descriptions, which the C interface gives only in the listing it
    prints. On Windows the DLL prints through its own C runtime, whose
    descriptors a Python process cannot redirect: nothing is listed there
    and the descriptions stay empty."""
    if sys.platform == "win32":
        return [""] * len(serials)
    _, text = _captured_stdout(lib.cdll.kavrel_direct_scan_devices)
    lines = text.splitlines()
    found = []
    for index, serial in enumerate(serials):
        prefix, suffix = f"[{index}] ", f" (SN: {serial})"
        line = lines[index] if index < len(lines) else ""
        found.append(line[len(prefix) : -len(suffix)] if line.startswith(prefix) and line.endswith(suffix) else "")
    return found


def list_devices(simulated=False):
    """The attached USB bridges. Listing opens and closes nothing: instruments
    open in this process stay open and keep their state."""
    lib = load(simulated)
    with LOCK:
        serials = _serials(lib)
        descriptions = _descriptions(lib, serials) if serials else []
    return [DeviceEntry(i, s, d) for i, (s, d) in enumerate(zip(serials, descriptions))]


def open(serial=None, index=None, protocol="auto", simulated=False):
    """Opens an instrument by the chip serial of its USB bridge or by its
    position in list_devices(); with neither, the first one this process has
    not opened yet. protocol "auto" probes CM2, then NIR; "cm2" or "nir" skip
    the probe."""
    if serial is not None and index is not None:
        raise InvalidArgumentError("give a serial or an index, not both")
    try:
        preference = PROTOCOLS[protocol.lower()]
    except (KeyError, AttributeError):
        raise InvalidArgumentError(f"protocol must be one of {', '.join(PROTOCOLS)}, not {protocol!r}") from None
    lib = load(simulated)
    with LOCK:
        if serial is None and index is None:
            return _open_first(lib, preference)
        if serial is None:
            serial = _chip_serial(lib, index)
        return _open_serial(lib, serial, preference)


def _open_first(lib, preference):
    failure = None
    for serial in _serials(lib):
        if serial in lib.serials and lib.owner(lib.serials.index(serial)) is not None:
            continue
        try:
            return _open_serial(lib, serial, preference)
        except OpenFailedError as error:  # in use by another program: try the next
            failure = error
    raise failure or NoDeviceError("no attached instrument that this process has not opened already")


def _open_serial(lib, serial, preference):
    if not serial:
        raise InvalidArgumentError("the chip serial is empty")
    if serial in lib.serials:
        held = lib.serials.index(serial)
        if lib.owner(held) is not None:
            raise OpenFailedError(f"{serial} is open already in this process (slot {held}); use that Spectrometer")
    before = lib.open_slots()
    lib.call("kavrel_direct_set_protocol_preference", preference)
    lib.call("kavrel_direct_open_device_by_chip_serial", serial.encode())
    opened = lib.open_slots() - before
    if opened:
        slot = opened.pop()
    elif serial in lib.serials:
        # A Spectrometer dropped without close() left its slot open; the C
        # library made that slot active again instead of opening anew.
        slot = lib.serials.index(serial)
    else:
        raise OpenFailedError(f"{serial} was opened through the C interface directly; its slot is unknown here")
    spectrometer = Spectrometer(lib, slot, serial)
    lib.claim(slot, serial, spectrometer)
    return spectrometer


def close_all(simulated=False):
    """Closes every instrument of the library, also those opened outside this
    package; their Spectrometer objects raise NotOpenError from then on."""
    lib = load(simulated)
    with LOCK:
        lib.cdll.kavrel_direct_close_all_devices()
        for slot in range(_native.MAX_DEVICES):
            lib.release(slot)


def _setting(getter, setter, ctype, doc):
    def get(self):
        return self._get(getter, ctype)

    def put(self, value):
        self._call(setter, _fit(value, ctype, setter[len("kavrel_direct_set_") :]))

    return property(get, put if setter else None, doc=doc)


def _reading(getter, ctype, doc, convert=None):
    def get(self):
        value = self._get(getter, ctype)
        return convert(value) if convert else value

    return property(get, doc=doc)


def _identity(getter, doc, size=64):
    def get(self):
        return self._text(getter, size)

    return property(get, doc=doc)


class Spectrometer:
    """An open instrument. Use it in a `with` block, or call close().

    Each object owns one slot of the C library's device table and makes it
    the active device before every call, under a process-wide lock, so
    several instruments can be driven side by side from one thread or many.
    Integer settings are the instrument's raw values unless the name carries
    a unit."""

    def __init__(self, lib, slot, chip_serial):
        self._lib = lib
        self._slot = slot
        self.chip_serial = chip_serial
        self.simulated = lib.simulated
        self._wavelengths = None
        self._selected_wavelengths = None  # (Selection, array)
        self._acquisition = None  # (integration time, average) the instrument has
        self._info = None

    # -- opening and closing -------------------------------------------------
    @classmethod
    def first_available(cls, protocol="auto", simulated=False):
        """The first listed instrument not open in this process yet."""
        return open(protocol=protocol, simulated=simulated)

    @classmethod
    def from_serial(cls, serial, protocol="auto", simulated=False):
        return open(serial=serial, protocol=protocol, simulated=simulated)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __repr__(self):
        state = f"slot {self._slot}" if self.is_open else "closed"
        return f"<Spectrometer {self.chip_serial} {state}{' simulated' if self.simulated else ''}>"

    @property
    def is_open(self):
        return self._slot is not None and self._lib.owner(self._slot) is self

    @property
    def slot(self):
        return self._slot

    def close(self):
        """Closes the instrument; closing twice does nothing."""
        with LOCK:
            if self.is_open and self._lib.cdll.kavrel_direct_select_device(self._slot) == 0:
                self._lib.cdll.kavrel_direct_close_device()
            if self.is_open:
                self._lib.release(self._slot)
            self._slot = None

    # -- calling -------------------------------------------------------------
    def _call(self, name, *arguments):
        with LOCK:
            if not self.is_open:
                raise NotOpenError(f"{self.chip_serial} is closed", function=name)
            self._lib.call("kavrel_direct_select_device", self._slot)
            return self._lib.call(name, *arguments)

    def _get(self, name, ctype):
        value = ctype()
        self._call(name, byref(value))
        return value.value

    def _text(self, name, size=64):
        buffer = ctypes.create_string_buffer(size)
        self._call(name, buffer, size)
        return _text(buffer)

    # -- identity ------------------------------------------------------------
    @property
    def protocol(self):
        """"cm2" or "nir", as settled when the instrument was opened."""
        return PROTOCOL_NAMES[self._get("kavrel_direct_get_device_protocol", c_uint32)]

    capabilities = _reading("kavrel_direct_get_capabilities", c_uint32, "Capability mask (0x7FFF CM2, 0x1FF NIR).")

    @property
    def info(self):
        """Protocol, model, serial number and hardware version; read once."""
        if self._info is None:
            record = _native.DeviceInfoRecord()
            self._call("kavrel_direct_get_device_info", byref(record))
            self._info = DeviceInfo(
                PROTOCOL_NAMES.get(record.protocol, "unknown"),
                record.capabilities,
                *(_text(getattr(record, f)) for f in ("protocol_name", "model", "serial_number", "hardware_version")),
            )
        return self._info

    model = _identity("kavrel_direct_get_device_model", "Model text.")
    hardware_version = _identity("kavrel_direct_get_hardware_version", "Hardware version text.")
    detector_serial_number = _identity("kavrel_direct_get_detector_serial_number", "Detector serial (CM2).")

    @property
    def serial_number(self):
        """The instrument's own serial number (CM2 writable, up to 12 characters)."""
        return self._text("kavrel_direct_get_serial_number")

    @serial_number.setter
    def serial_number(self, text):
        self._call("kavrel_direct_set_serial_number", text.encode("ascii"))
        self._info = None

    temperature_c = _reading("kavrel_direct_get_temperature", c_float, "Detector temperature in degrees Celsius.")
    usb_status = _reading("kavrel_direct_get_usb_status", c_uint32, "USB status flag (CM2).", bool)
    spectrum_capture_status = _reading(
        "kavrel_direct_get_spectrum_capture_status", c_uint64, "64-bit capture status word (CM2)."
    )
    slit_width = _reading("kavrel_direct_get_slit_width", c_uint8, "Slit width code (CM2).")

    # -- settings ------------------------------------------------------------
    @property
    def integration_time_us(self):
        """Integration time in microseconds."""
        with LOCK:
            value = self._get("kavrel_direct_get_integration_time", c_uint32)
            if self._acquisition:
                self._acquisition = (value, self._acquisition[1])
            return value

    @integration_time_us.setter
    def integration_time_us(self, value):
        with LOCK:
            self._call("kavrel_direct_set_integration_time", _fit(value, c_uint32, "integration_time_us"))
            if self._acquisition:
                self._acquisition = (int(value), self._acquisition[1])

    @property
    def average(self):
        """Spectra averaged per acquisition (0 acts as 1)."""
        with LOCK:
            value = self._get("kavrel_direct_get_average_number", c_uint8)
            if self._acquisition:
                self._acquisition = (self._acquisition[0], value)
            return value

    @average.setter
    def average(self, value):
        with LOCK:
            self._call("kavrel_direct_set_average_number", _fit(value, c_uint8, "average"))
            if self._acquisition:
                self._acquisition = (self._acquisition[0], int(value))

    level_output = _setting("kavrel_direct_get_level_output", "kavrel_direct_set_level_output", c_uint8, "Level output.")
    xenon_mode = _setting("kavrel_direct_get_xenon_mode", "kavrel_direct_set_xenon_mode", c_uint8, "Xenon lamp mode (CM2).")
    dac_value = _setting(
        "kavrel_direct_get_dac_voltage", "kavrel_direct_set_dac_voltage", c_uint16, "12-bit DAC code (CM2)."
    )
    usb_baud_rate = _setting(
        "kavrel_direct_get_usb_baud_rate", "kavrel_direct_set_usb_baud_rate", c_uint16, "USB baud-rate value (CM2)."
    )
    stored_integration_time_us = _setting(
        "kavrel_direct_get_stored_integration_time",
        "kavrel_direct_set_stored_integration_time",
        c_uint32,
        "Integration time the instrument starts with, in microseconds (CM2).",
    )
    stored_average = _setting(
        "kavrel_direct_get_stored_average_number",
        "kavrel_direct_set_stored_average_number",
        c_uint8,
        "Average number the instrument starts with (CM2).",
    )
    stored_smoothing_width = _setting(
        "kavrel_direct_get_stored_smoothing_width",
        "kavrel_direct_set_stored_smoothing_width",
        c_uint8,
        "Stored smoothing width in points (CM2).",
    )

    @property
    def xenon_pulse(self):
        """The two xenon lamp pulse parameters (CM2)."""
        first, second = c_uint32(), c_uint32()
        self._call("kavrel_direct_get_xenon_pulse", byref(first), byref(second))
        return first.value, second.value

    @xenon_pulse.setter
    def xenon_pulse(self, values):
        first, second = (_fit(v, c_uint32, "xenon_pulse") for v in values)
        self._call("kavrel_direct_set_xenon_pulse", first, second)

    @property
    def external_trigger_config(self):
        """The three external trigger values (CM2)."""
        values = [c_uint8() for _ in range(3)]
        self._call("kavrel_direct_get_external_trigger_config", *(byref(v) for v in values))
        return tuple(v.value for v in values)

    @external_trigger_config.setter
    def external_trigger_config(self, values):
        first, second, third = (_fit(v, c_uint8, "external_trigger_config") for v in values)
        self._call("kavrel_direct_set_external_trigger_config", first, second, third)

    @property
    def flash_write_protect_open(self):
        return bool(self._get("kavrel_direct_get_flash_write_protect", c_uint32))

    def open_flash_write_protect(self):
        """Opens the flash write protection; nothing closes it again."""
        self._call("kavrel_direct_set_flash_write_protect")

    def reset(self):
        """Resets the instrument; the wavelength table is read again and the
        selected range is gone."""
        with LOCK:
            self._call("kavrel_direct_reset_device")
            self._wavelengths = self._selected_wavelengths = self._acquisition = None

    # -- wavelengths ---------------------------------------------------------
    @property
    def calibration_coefficients(self):
        """The four calibration coefficients as the instrument stores them."""
        values = (c_double * 4)()
        self._call("kavrel_direct_get_calibration_coefficients", values)
        return tuple(values)

    wavelength_count = _reading("kavrel_direct_get_wavelength_count", c_uint16, "Number of detector points.")

    @property
    def wavelength_range_nm(self):
        """The table's two end values, smaller first."""
        first, last = c_double(), c_double()
        self._call("kavrel_direct_get_full_wavelength_range", byref(first), byref(last))
        return first.value, last.value

    def wavelengths(self):
        """The wavelength of every detector point (float64, nm). The table is
        read from the instrument once and kept until reset()."""
        with LOCK:
            if self._wavelengths is None:
                count = self.wavelength_count
                table = np.zeros(count, dtype=np.float64)
                self._call("kavrel_direct_get_full_wavelength_data", _pointer(table, c_double), count)
                table.flags.writeable = False
                self._wavelengths = table
            return self._wavelengths

    def select_range(self, start_nm, end_nm):
        """Selects the points whose wavelengths lie in [start_nm, end_nm]."""
        with LOCK:
            self._selected_wavelengths = None
            self._call("kavrel_direct_set_selected_wavelength_range", float(start_nm), float(end_nm))
            return self.selection

    @property
    def selection(self) -> Optional[Selection]:
        """The selected range, or None when none is selected."""
        record = _native.SelectionRecord()
        try:
            self._call("kavrel_direct_get_selected_wavelength_range", byref(record))
        except GenericError:
            return None
        return Selection(
            record.requested_start,
            record.requested_end,
            record.actual_start,
            record.actual_end,
            record.start_index,
            record.end_index,
            record.selected_count,
        )

    def _current_selection(self, function):
        selection = self.selection
        if selection is None:
            raise GenericError("no wavelength range is selected: call select_range() first", function=function)
        return selection

    def selected_wavelengths(self):
        """Wavelengths of the selected points (float64, nm)."""
        with LOCK:
            selection = self._current_selection("kavrel_direct_get_selected_wavelength_data")
            if self._selected_wavelengths is None or self._selected_wavelengths[0] != selection:
                table = np.zeros(selection.count, dtype=np.float64)
                self._call("kavrel_direct_get_selected_wavelength_data", _pointer(table, c_double), selection.count)
                table.flags.writeable = False
                self._selected_wavelengths = (selection, table)
            return self._selected_wavelengths[1]

    # -- spectra -------------------------------------------------------------
    def _settings(self):
        if self._acquisition is None:
            self._acquisition = (
                self._get("kavrel_direct_get_integration_time", c_uint32),
                self._get("kavrel_direct_get_average_number", c_uint8),
            )
        return self._acquisition

    def _result(self, raw, wavelengths, dark):
        saturated = raw >= SATURATION_COUNTS
        counts = raw
        if dark is not None:
            dark = np.asarray(dark, dtype=np.float64)
            if dark.shape != raw.shape:
                raise InvalidArgumentError(f"dark has shape {dark.shape}, the spectrum {raw.shape}")
            counts = raw.astype(np.float64) - dark
        time_us, average = self._settings()
        return Spectrum(counts, wavelengths, saturated, time_us, average, raw, dark is not None)

    def spectrum(self, dark=None):
        """Acquires a whole spectrum. dark: an array of the same length (e.g.
        counts taken with the light blocked) to subtract."""
        with LOCK:
            wavelengths = self.wavelengths()
            raw = np.zeros(len(wavelengths), dtype=np.uint16)
            self._call("kavrel_direct_get_full_spectrum_data", _pointer(raw, c_uint16), len(raw))
            return self._result(raw, wavelengths, dark)

    def selected_spectrum(self, dark=None):
        """Acquires a spectrum and keeps the points of the selected range."""
        with LOCK:
            wavelengths = self.selected_wavelengths()
            raw = np.zeros(len(wavelengths), dtype=np.uint16)
            self._call("kavrel_direct_get_selected_spectrum_data", _pointer(raw, c_uint16), len(raw))
            return self._result(raw, wavelengths, dark)

    def external_spectrum(self, control, count):
        """Starts an externally controlled spectrum with the control word and
        returns up to count values (CM2)."""
        if count < 1:
            raise InvalidArgumentError(f"count must be at least 1, not {count}")
        values = np.zeros(count, dtype=np.uint16)
        stored = self._call(
            "kavrel_direct_external_spectrum_control", _fit(control, c_uint16, "control"), _pointer(values, c_uint16), count
        )
        return values[: stored // 2]

    # -- flash ---------------------------------------------------------------
    def read_flash(self, page, n):
        """Reads n bytes of a flash page (fewer if the instrument sends fewer)."""
        if n < 0:
            raise InvalidArgumentError(f"n must not be negative, not {n}")
        if n == 0:
            return b""
        # CM2 reads whole 4-byte words, so the buffer has room for n rounded up.
        buffer = (c_uint8 * ((n + 3) // 4 * 4))()
        stored = self._call("kavrel_direct_flash_read", _fit(page, c_uint16, "page"), buffer, n)
        return bytes(buffer[: min(stored, n)])

    def write_flash(self, page, data):
        """Writes bytes to a flash page, opening the write protection first."""
        data = bytes(data)
        buffer = (c_uint8 * max(len(data), 1)).from_buffer_copy(data or b"\0")
        with LOCK:
            # The CM2 form opens the protection itself; a NIR instrument
            # refuses the page unless it was opened before.
            if self.protocol == "nir":
                self.open_flash_write_protect()
            self._call("kavrel_direct_flash_write", _fit(page, c_uint16, "page"), buffer, len(data))


def _pointer(array, ctype):
    return array.ctypes.data_as(ctypes.POINTER(ctype))
