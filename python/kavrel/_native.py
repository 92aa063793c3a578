"""Loading the C library, its records and the signature of every function.

Two libraries export the same kavrel_direct_* functions: kavrel_direct drives
real bridges, kavrel_direct_sim simulated ones and adds kavrel_sim_*. Each has
its own device table, so a process may load both.
"""
import ctypes
import ctypes.util
import os
import sys
import threading
import weakref
from ctypes import POINTER, c_char, c_char_p, c_double, c_float, c_int32, c_uint8, c_uint16, c_uint32, c_uint64

from .errors import error_for

# "select, then operate" must not interleave with another thread's pair: the
# C library's own lock covers one call, and the active device is process-wide.
LOCK = threading.RLock()

MAX_DEVICES = 4

PROTOCOL_AUTO, PROTOCOL_CM2, PROTOCOL_NIR = 0, 1, 2


class DeviceInfoRecord(ctypes.Structure):
    _fields_ = [
        ("protocol", c_uint32),
        ("capabilities", c_uint32),
        ("protocol_name", c_char * 32),
        ("model", c_char * 32),
        ("serial_number", c_char * 32),
        ("hardware_version", c_char * 64),
    ]


class SelectionRecord(ctypes.Structure):
    _fields_ = [
        ("requested_start", c_double),
        ("requested_end", c_double),
        ("actual_start", c_double),
        ("actual_end", c_double),
        ("start_index", c_uint16),
        ("end_index", c_uint16),
        ("selected_count", c_uint16),
    ]


class Cm2PacketRecord(ctypes.Structure):
    _fields_ = [
        ("raw", c_uint8 * 16384),
        ("raw_len", c_int32),
        ("pre", c_uint8 * 8),
        ("ver", c_uint8),
        ("ta", c_uint16),
        ("sa", c_uint16),
        ("srv", c_uint8),
        ("fsn", c_uint8),
        ("file_len", c_uint16),
        ("data_len", c_uint16),
        ("sn_packets", c_uint16),
        ("sn_index", c_uint16),
        ("pio_reg", c_uint8),
        ("pio_addr", c_uint32),
        ("ans_status", c_uint8),
        ("ans_reply", c_uint8),
        ("data", c_uint8 * 8192),
        ("data_size", c_int32),
        ("crc", c_uint32),
        ("preamble_ok", c_int32),
        ("crc_ok", c_int32),
    ]


class SimConfigRecord(ctypes.Structure):
    _fields_ = [
        ("instrument", c_uint32),
        ("bridge_speed", c_uint32),
        ("chip_serial", c_char * 16),
        ("description", c_char * 64),
        ("model", c_char * 32),
        ("serial_number", c_char * 32),
        ("hardware_version", c_char * 32),
        ("point_count", c_uint32),
        ("reserved", c_uint32),
        ("coefficients", c_double * 4),
        ("temperature_c", c_double),
        ("seed", c_uint64),
    ]


class SimFaultRecord(ctypes.Structure):
    _fields_ = [("kind", c_uint32), ("count", c_uint32), ("parameter", c_uint32), ("reserved", c_uint32)]


class SimSceneRecord(ctypes.Structure):
    _fields_ = [
        ("lamp_lines", c_int32),
        ("shutter_closed", c_int32),
        ("continuum_level", c_double),
        ("line_level", c_double),
    ]


# The sizes the C compiler gives these records on every supported platform
# (natural alignment, no packing): a mismatch means a field is wrong here.
for _record, _size in [
    (DeviceInfoRecord, 168),
    (SelectionRecord, 40),
    (Cm2PacketRecord, 24632),
    (SimConfigRecord, 240),
    (SimFaultRecord, 16),
    (SimSceneRecord, 24),
]:
    assert ctypes.sizeof(_record) == _size, f"{_record.__name__} is {ctypes.sizeof(_record)} bytes, C has {_size}"

_i32, _u32, _u16, _u8, _u64 = c_int32, c_uint32, c_uint16, c_uint8, c_uint64
_text_out = POINTER(c_char)


def _p(t):
    return POINTER(t)


# name: (result type, argument types), as in kavrel_direct.h.
SIGNATURES = {
    "kavrel_direct_crc32": (_u32, [_p(_u8), _i32]),
    "kavrel_direct_parse_response": (_i32, [_p(_u8), _i32, _p(Cm2PacketRecord)]),
    "kavrel_direct_dump_hex": (None, [_p(_u8), _i32]),
    "kavrel_direct_srv_name": (c_char_p, [_u8]),
    "kavrel_direct_ans_reply_name": (c_char_p, [_u8]),
    "kavrel_direct_print_parsed": (None, [_p(Cm2PacketRecord)]),
    "kavrel_direct_close_device": (None, []),
    "kavrel_direct_close_all_devices": (None, []),
    "kavrel_direct_is_open": (_i32, []),
    "kavrel_direct_get_open_device_count": (_i32, []),
    "kavrel_direct_select_device": (_i32, [_i32]),
    "kavrel_direct_set_protocol_preference": (_i32, [_i32]),
    "kavrel_direct_get_device_protocol": (_i32, [_p(_u32)]),
    "kavrel_direct_get_capabilities": (_i32, [_p(_u32)]),
    "kavrel_direct_scan_devices": (_u32, []),
    "kavrel_direct_get_chip_serial_by_index": (_i32, [_i32, _text_out, _i32]),
    "kavrel_direct_open_device": (_i32, [_i32]),
    "kavrel_direct_open_device_by_chip_serial": (_i32, [c_char_p]),
    "kavrel_direct_set_integration_time": (_i32, [_u32]),
    "kavrel_direct_get_integration_time": (_i32, [_p(_u32)]),
    "kavrel_direct_set_average_number": (_i32, [_u8]),
    "kavrel_direct_get_average_number": (_i32, [_p(_u8)]),
    "kavrel_direct_set_level_output": (_i32, [_u8]),
    "kavrel_direct_get_level_output": (_i32, [_p(_u8)]),
    "kavrel_direct_set_xenon_pulse": (_i32, [_u32, _u32]),
    "kavrel_direct_get_xenon_pulse": (_i32, [_p(_u32), _p(_u32)]),
    "kavrel_direct_set_xenon_mode": (_i32, [_u8]),
    "kavrel_direct_get_xenon_mode": (_i32, [_p(_u8)]),
    "kavrel_direct_set_external_trigger_config": (_i32, [_u8, _u8, _u8]),
    "kavrel_direct_get_external_trigger_config": (_i32, [_p(_u8), _p(_u8), _p(_u8)]),
    "kavrel_direct_set_dac_voltage": (_i32, [_u16]),
    "kavrel_direct_get_dac_voltage": (_i32, [_p(_u16)]),
    "kavrel_direct_get_spectrum_capture_status": (_i32, [_p(_u64)]),
    "kavrel_direct_get_temperature": (_i32, [_p(c_float)]),
    "kavrel_direct_get_hardware_version": (_i32, [_text_out, _i32]),
    "kavrel_direct_get_detector_serial_number": (_i32, [_text_out, _i32]),
    "kavrel_direct_get_device_model": (_i32, [_text_out, _i32]),
    "kavrel_direct_set_usb_baud_rate": (_i32, [_u16]),
    "kavrel_direct_get_usb_baud_rate": (_i32, [_p(_u16)]),
    "kavrel_direct_get_usb_status": (_i32, [_p(_u32)]),
    "kavrel_direct_set_serial_number": (_i32, [c_char_p]),
    "kavrel_direct_get_serial_number": (_i32, [_text_out, _i32]),
    "kavrel_direct_get_device_info": (_i32, [_p(DeviceInfoRecord)]),
    "kavrel_direct_set_stored_integration_time": (_i32, [_u32]),
    "kavrel_direct_get_stored_integration_time": (_i32, [_p(_u32)]),
    "kavrel_direct_set_stored_average_number": (_i32, [_u8]),
    "kavrel_direct_get_stored_average_number": (_i32, [_p(_u8)]),
    "kavrel_direct_set_stored_smoothing_width": (_i32, [_u8]),
    "kavrel_direct_get_stored_smoothing_width": (_i32, [_p(_u8)]),
    "kavrel_direct_get_slit_width": (_i32, [_p(_u8)]),
    "kavrel_direct_set_flash_write_protect": (_i32, []),
    "kavrel_direct_get_flash_write_protect": (_i32, [_p(_u32)]),
    "kavrel_direct_reset_device": (_i32, []),
    "kavrel_direct_get_calibration_coefficients": (_i32, [_p(c_double)]),
    "kavrel_direct_get_wavelength_count": (_i32, [_p(_u16)]),
    "kavrel_direct_get_full_wavelength_data": (_i32, [_p(c_double), _i32]),
    "kavrel_direct_get_full_wavelength_range": (_i32, [_p(c_double), _p(c_double)]),
    "kavrel_direct_set_selected_wavelength_range": (_i32, [c_double, c_double]),
    "kavrel_direct_get_selected_wavelength_range": (_i32, [_p(SelectionRecord)]),
    "kavrel_direct_get_selected_wavelength_data": (_i32, [_p(c_double), _i32]),
    "kavrel_direct_get_full_spectrum_data": (_i32, [_p(_u16), _i32]),
    "kavrel_direct_get_selected_spectrum_data": (_i32, [_p(_u16), _i32]),
    "kavrel_direct_flash_read": (_i32, [_u16, _p(_u8), _i32]),
    "kavrel_direct_flash_write": (_i32, [_u16, _p(_u8), _i32]),
    "kavrel_direct_external_spectrum_control": (_i32, [_u16, _p(_u16), _i32]),
}

SIM_SIGNATURES = {
    "kavrel_sim_default_config": (_i32, [_u32, _p(SimConfigRecord)]),
    "kavrel_sim_attach": (_i32, [_p(SimConfigRecord)]),
    "kavrel_sim_detach": (_i32, [c_char_p]),
    "kavrel_sim_inject_fault": (_i32, [c_char_p, _p(SimFaultRecord)]),
    "kavrel_sim_clear_faults": (_i32, [c_char_p]),
    "kavrel_sim_set_virtual_time": (_i32, [_i32]),
    "kavrel_sim_now_ms": (c_double, []),
    "kavrel_sim_sleep_ms": (None, [_u32]),
    "kavrel_sim_set_scene": (_i32, [c_char_p, _p(SimSceneRecord)]),
    "kavrel_sim_default_scene": (_i32, [_p(SimSceneRecord)]),
    "kavrel_sim_reset": (None, []),
}

LIBRARY_NAMES = {False: "kavrel_direct", True: "kavrel_direct_sim"}
ENVIRONMENT = {False: "KAVREL_DIRECT_LIBRARY", True: "KAVREL_DIRECT_SIM_LIBRARY"}
BUNDLED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "_lib")


class LibraryNotFoundError(OSError):
    """The C library is in none of the places the package looks."""


def _file_names(base):
    if sys.platform == "win32":
        return [f"{base}.dll", f"lib{base}.dll"]
    if sys.platform == "darwin":
        return [f"lib{base}.dylib"]
    return [f"lib{base}.so"]


def candidates(simulated):
    """Where the library is looked for, in order: next to the package, the
    environment variable, the system's search."""
    base = LIBRARY_NAMES[simulated]
    found = [os.path.join(BUNDLED, name) for name in _file_names(base)]
    found = [path for path in found if os.path.exists(path)]
    if os.environ.get(ENVIRONMENT[simulated]):
        found.append(os.environ[ENVIRONMENT[simulated]])
    system = ctypes.util.find_library(base)
    if system:
        found.append(system)
    return found


class Library:
    """One loaded C library with its functions declared, and which of its
    four slots this package's Spectrometer objects own."""

    def __init__(self, path, simulated):
        self.path = path
        self.simulated = simulated
        self.cdll = ctypes.CDLL(path)
        table = dict(SIGNATURES, **(SIM_SIGNATURES if simulated else {}))
        for name, (result, arguments) in table.items():
            try:
                function = getattr(self.cdll, name)
            except AttributeError:
                raise LibraryNotFoundError(f"{path} does not export {name}: not a KavrelDirect library of this version") from None
            function.restype = result
            function.argtypes = arguments
        self.owners = [None] * MAX_DEVICES  # weak references to Spectrometer objects
        self.serials = [None] * MAX_DEVICES

    def call(self, name, *arguments):
        """Calls a function that returns a result code (or a count) and
        raises for a negative one."""
        result = getattr(self.cdll, name)(*arguments)
        if result < 0:
            raise error_for(result, name)
        return result

    def open_slots(self):
        """The slots that hold an open device. Selecting is the only way the C
        interface tells; it sends nothing, and every Spectrometer selects its
        own slot before each call anyway."""
        return {slot for slot in range(MAX_DEVICES) if self.cdll.kavrel_direct_select_device(slot) == 0}

    def owner(self, slot):
        reference = self.owners[slot]
        return reference() if reference is not None else None

    def claim(self, slot, serial, owner):
        self.owners[slot] = weakref.ref(owner)
        self.serials[slot] = serial

    def release(self, slot):
        self.owners[slot] = None
        self.serials[slot] = None


_loaded = {}


def load(simulated=False):
    """The library for real (False) or simulated (True) instruments, loaded
    and declared on first use."""
    with LOCK:
        if simulated not in _loaded:
            tried = candidates(simulated)
            errors = []
            for path in tried:
                try:
                    _loaded[simulated] = Library(path, simulated)
                    break
                except OSError as error:
                    errors.append(f"{path}: {error}")
            else:
                base = LIBRARY_NAMES[simulated]
                raise LibraryNotFoundError(
                    f"cannot load {base}: put it into {BUNDLED}, name it in the environment variable "
                    f"{ENVIRONMENT[simulated]}, or install it where the system finds libraries"
                    + ("".join("\n  " + line for line in errors))
                )
        return _loaded[simulated]
