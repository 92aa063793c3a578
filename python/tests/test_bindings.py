"""The package against the C headers: each function's ctypes signature, each result code's exception."""
import pathlib
import re
from ctypes import POINTER, c_char, c_char_p, c_double, c_float, c_int32, c_uint8, c_uint16, c_uint32, c_uint64

import pytest

import kavrel
from kavrel import _native, codec

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCALARS = {
    "int32_t": c_int32, "uint32_t": c_uint32, "uint16_t": c_uint16, "uint8_t": c_uint8, "uint64_t": c_uint64,
    "float": c_float, "double": c_double, "void": None,
    "cm2_packet": _native.Cm2PacketRecord, "kavrel_direct_device_info": _native.DeviceInfoRecord,
    "kavrel_direct_wavelength_selection": _native.SelectionRecord, "kavrel_sim_config": _native.SimConfigRecord,
    "kavrel_sim_fault": _native.SimFaultRecord, "kavrel_sim_scene": _native.SimSceneRecord,
}  # fmt: skip


def c_type(declaration):
    """The ctypes type of "const char *name", "double values[4]", "uint32_t"."""
    pointer = "*" in declaration or "[" in declaration
    words = [w for w in re.sub(r"\[.*\]|\*", " ", declaration).split() if w != "const"]
    if words[0] == "char":
        return c_char_p if "const" in declaration else POINTER(c_char)
    return POINTER(SCALARS[words[0]]) if pointer else SCALARS[words[0]]


def prototypes(header):
    text = (ROOT / "include" / header).read_text()
    found = {}
    for result, name, arguments in re.findall(r"KAVREL_DIRECT_API\s+([^;(]*?)\s*(kavrel_\w+)\s*\(([^)]*)\)\s*;", text):
        arguments = [a for a in arguments.split(",") if a.strip() not in ("", "void")]
        found[name] = (c_type(result), [c_type(a) for a in arguments])
    return found


@pytest.mark.parametrize("simulated", [False, True])
def test_every_export_is_declared_as_its_prototype(simulated):
    lists = ["src/kavrel_direct.exports"] + (["sim/kavrel_sim.exports"] if simulated else [])
    lines = [line.strip() for path in lists for line in (ROOT / path).read_text().splitlines()]
    exports = {line for line in lines if line and not line.startswith("#")}
    expected = prototypes("kavrel_direct.h") | (prototypes("kavrel_sim.h") if simulated else {})
    assert exports == set(expected) and len(exports) == (76 if simulated else 65)
    lib = kavrel.load(simulated)
    for name, (result, arguments) in expected.items():
        function = getattr(lib.cdll, name)
        assert (function.restype, list(function.argtypes)) == (result, arguments), name


def test_every_result_code_has_its_exception():
    codes = dict(re.findall(r"(KAVREL_DIRECT_ERR_\w+) = (-\d+)", (ROOT / "include/kavrel_direct.h").read_text()))
    assert {cls.symbol: str(code) for code, cls in kavrel.BY_CODE.items()} == codes and len(codes) == 11


def test_codec_helpers():
    assert codec.crc32(b"123456789", simulated=True) == 0xCBF43926
    assert codec.reply_name(0xE3, simulated=True) == "Write Protect Not Open"
    with pytest.raises(kavrel.GenericError):
        codec.parse_response(b"\x00" * 23, simulated=True)
    # Long enough but with a wrong preamble: taken apart, and flagged.
    assert not codec.parse_response(b"\x00" * 24, simulated=True).preamble_ok
