"""Control of the simulated instruments of kavrel_direct_sim.

Open simulated instruments with kavrel.open(..., simulated=True). Until the
first attach() the list holds a CM2 instrument ("KSIM0001") and a NIR one
("KSIM0002"); the first attach() replaces them. These calls do not take the
package's device lock, so a fault can be injected while another thread waits
in an acquisition.
"""
import enum
from ctypes import byref

from ._native import SimConfigRecord, SimFaultRecord, SimSceneRecord, load
from .errors import InvalidArgumentError

INSTRUMENTS = {"silent": 0, "cm2": 1, "nir": 2}
SPEEDS = {"full": 0, "high": 1}


class Fault(enum.IntEnum):
    NO_ANSWER = 1  # the request is swallowed
    DELAY = 2  # the reply comes parameter ms late
    TRUNCATE = 3  # only the first parameter bytes of the reply
    BAD_CRC = 4
    BAD_PREAMBLE = 5  # CM2
    REPLY_CODE = 6  # CM2: the reply carries code parameter (0xE0 to 0xE3)
    TRICKLE = 7  # a byte at a time, parameter ms apart
    HANDSHAKE_FAILED = 8  # CM2: command blocks end in 0xEE
    HANDSHAKE_STUCK = 9  # CM2: command blocks never complete
    NIR_REFUSE = 10  # NIR: no acknowledge
    READ_FAILURE = 11  # the bridge's read fails
    WRITE_FAILURE = 12  # the bridge's write fails


def _call(name, *arguments):
    return load(True).call(name, *arguments)


def _serial(chip_serial):
    return None if chip_serial is None else chip_serial.encode("ascii")


def _fill(record, fields):
    names = {name for name, _ in record._fields_}
    for name, value in fields.items():
        if name not in names or name == "reserved":
            raise TypeError(f"{type(record).__name__} has no field {name!r}")
        if isinstance(value, str):
            value = value.encode("ascii")
        elif name == "coefficients":
            value = type(record.coefficients)(*value)
        setattr(record, name, value)
    return record


def default_config(instrument="cm2"):
    """The default configuration of an instrument kind as a dict."""
    record = SimConfigRecord()
    _call("kavrel_sim_default_config", INSTRUMENTS[instrument], byref(record))
    config = {name: getattr(record, name) for name, _ in record._fields_ if name != "reserved"}
    config = {k: v.decode() if isinstance(v, bytes) else v for k, v in config.items()}
    config["coefficients"] = tuple(record.coefficients)
    return config


def attach(chip_serial, instrument="cm2", bridge_speed="full", **fields):
    """Plugs in a bridge with an instrument ("cm2", "nir" or "silent") behind
    it. Other fields (model, serial_number, point_count, coefficients,
    temperature_c, seed, ...) change the kind's defaults."""
    if instrument not in INSTRUMENTS or bridge_speed not in SPEEDS:
        raise InvalidArgumentError(f"unknown instrument {instrument!r} or bridge speed {bridge_speed!r}")
    record = SimConfigRecord()
    _call("kavrel_sim_default_config", INSTRUMENTS[instrument], byref(record))
    _fill(record, dict(fields, chip_serial=chip_serial, bridge_speed=SPEEDS[bridge_speed]))
    _call("kavrel_sim_attach", byref(record))


def detach(chip_serial):
    """Unplugs a bridge: an instrument open on it fails every exchange."""
    _call("kavrel_sim_detach", _serial(chip_serial))


def inject_fault(chip_serial, kind, count=0, parameter=0):
    """The fault for the next count requests (0: until clear_faults)."""
    kind = Fault[kind.upper()] if isinstance(kind, str) else Fault(kind)
    _call("kavrel_sim_inject_fault", _serial(chip_serial), byref(SimFaultRecord(kind, count, parameter, 0)))


def clear_faults(chip_serial):
    _call("kavrel_sim_clear_faults", _serial(chip_serial))


def set_virtual_time(enabled=True):
    """In virtual time every wait passes at once and the clock jumps."""
    _call("kavrel_sim_set_virtual_time", 1 if enabled else 0)


def now_ms():
    """The simulated clock in milliseconds."""
    return load(True).cdll.kavrel_sim_now_ms()


def sleep_ms(milliseconds):
    """Lets time pass on the simulated clock (at once in virtual time), e.g.
    until a reply delayed past the library's read limit has arrived: until
    then the next exchange would read it as its own answer."""
    load(True).cdll.kavrel_sim_sleep_ms(int(milliseconds))


def default_scene():
    record = SimSceneRecord()
    _call("kavrel_sim_default_scene", byref(record))
    return {name: getattr(record, name) for name, _ in record._fields_}


def set_scene(chip_serial=None, **fields):
    """Changes what one instrument (or every one) looks at: lamp_lines,
    shutter_closed, continuum_level and line_level (counts per ms of
    integration); fields not given keep their default."""
    record = SimSceneRecord()
    _call("kavrel_sim_default_scene", byref(record))
    _fill(record, {k: int(v) if isinstance(v, bool) else v for k, v in fields.items()})
    _call("kavrel_sim_set_scene", _serial(chip_serial), byref(record))


def reset():
    """Back to the world at load: the default pair, real time, no faults."""
    load(True).cdll.kavrel_sim_reset()
