"""The CM2 packet helpers: CRC-32, the packet parser and the trace. They need
no instrument; they use the library for real instruments unless told."""
import ctypes
import sys
from ctypes import byref, c_uint8
from dataclasses import dataclass

from ._native import Cm2PacketRecord, load
from .errors import GenericError

MAX_PACKET = 16384


@dataclass(frozen=True)
class Packet:
    """A CM2 packet taken apart. Fields are those of the wire header."""

    raw: bytes
    preamble: bytes
    ver: int
    ta: int
    sa: int
    srv: int
    fsn: int
    file_len: int
    data_len: int
    sn_packets: int
    sn_index: int
    pio_reg: int
    pio_addr: int
    ans_status: int
    ans_reply: int
    data: bytes
    crc: int
    preamble_ok: bool
    crc_ok: bool


def _bytes(data):
    data = bytes(data)
    return (c_uint8 * max(len(data), 1)).from_buffer_copy(data or b"\0"), len(data)


def crc32(data, simulated=False):
    """CRC-32 (IEEE 802.3) as the instruments compute it."""
    buffer, length = _bytes(data)
    return load(simulated).cdll.kavrel_direct_crc32(buffer, length)


def _record(data, simulated):
    buffer, length = _bytes(data)
    record = Cm2PacketRecord()
    result = load(simulated).cdll.kavrel_direct_parse_response(buffer, length, byref(record))
    return result, record


def parse_response(data, simulated=False):
    """Takes a received packet apart. A packet with a wrong preamble comes
    back with preamble_ok False; one shorter than 24 bytes or longer than
    16384 raises GenericError."""
    result, record = _record(data, simulated)
    if result < 0 and record.raw_len == 0:
        raise GenericError(f"a packet of {len(bytes(data))} bytes is refused", function="kavrel_direct_parse_response")
    r = record
    return Packet(
        bytes(r.raw[: r.raw_len]), bytes(r.pre), r.ver, r.ta, r.sa, r.srv, r.fsn, r.file_len, r.data_len,
        r.sn_packets, r.sn_index, r.pio_reg, r.pio_addr, r.ans_status, r.ans_reply,
        bytes(r.data[: r.data_size]), r.crc, bool(r.preamble_ok), bool(r.crc_ok),
    )  # fmt: skip


def service_name(code, simulated=False):
    return load(simulated).cdll.kavrel_direct_srv_name(code).decode()


def reply_name(code, simulated=False):
    return load(simulated).cdll.kavrel_direct_ans_reply_name(code).decode()


def _flushed(function, *arguments):
    # The library prints through the C runtime's stdout, after what Python has
    # buffered and before what it prints next.
    sys.stdout.flush()
    function(*arguments)
    if sys.platform != "win32":
        ctypes.CDLL(None).fflush(None)


def dump_hex(data, simulated=False):
    """Prints the bytes in hex, 16 a line, on standard output."""
    buffer, length = _bytes(data)
    _flushed(load(simulated).cdll.kavrel_direct_dump_hex, buffer, length)


def print_parsed(data, simulated=False):
    """Prints the field tree of a packet on standard output."""
    _, record = _record(data, simulated)
    _flushed(load(simulated).cdll.kavrel_direct_print_parsed, byref(record))
