"""The kavrel program run as a user runs it, against the simulated instruments
in virtual time: KSIM0001 speaks CM2 (2048 points), KSIM0002 NIR (256).

    /usr/bin/python3 tests/kavrel_cli_test.py build/tools/kavrel/kavrel
    KAVREL_CLI_UNDER_TEST=build/tools/kavrel/kavrel /usr/bin/python3 -m pytest tests/kavrel_cli_test.py
"""
import contextlib
import csv
import json
import os
import pathlib
import pty
import re
import select
import subprocess
import sys
import zlib

import pytest

KAVREL, SERVER = os.environ.get("KAVREL_CLI_UNDER_TEST"), os.environ.get("KAVREL_SIM_SERVER")
SIM = ["--sim", "--sim-virtual-time"]
CM2, NIR = "KSIM0001", "KSIM0002"


def run(*args, sim=True, stdin=None, env=None):
    return subprocess.run([KAVREL] + (SIM if sim else []) + [str(a) for a in args], input=stdin, env=env,
                          capture_output=True, timeout=60)


def ok(*args, **kw):
    r = run(*args, **kw)
    assert r.returncode == 0, r.stderr.decode()
    return r.stdout.decode()


def csv_rows(text):
    """The data rows of kavrel's CSV, keyed by its header row."""
    return list(csv.DictReader(t for t in text.splitlines() if not t.startswith("#")))


def wavelength_of(*device):
    """The wavelength of a detector index by the instrument's own calibration polynomial."""
    c = json.loads(ok(*device, "wavelengths", "--coefficients", "--format", "json"))["coefficients"]
    return lambda i: c[0] + c[1] * i + c[2] * i * i + c[3] * i * i * i


def cm2_query(register, address, words):
    """A CM2 query packet built here from the wire format, not by the library."""
    body = bytes([0xCC, 0x00, 0x01, 0x00, 0x02, 0x0D, 0xEE, 0x00, words, 0x00, 0x00, 0x01, 0x01, register,
                  address >> 16 & 0xFF, address >> 8 & 0xFF, address & 0xFF, 0x00, 0x00, 0x00])
    return bytes([0xAA] * 7 + [0xAB]) + body + zlib.crc32(body).to_bytes(4, "big")


def drain(fd, enough=1 << 20):
    """A terminal's bytes, a piece a read, until enough came, it ended (EIO once its writer is gone)
    or 10 s passed."""
    data = b""
    with contextlib.suppress(OSError):
        while len(data) < enough and select.select([fd], [], [], 10)[0] and (chunk := os.read(fd, 65536)):
            data += chunk
    os.close(fd)
    return data


def test_scan_doctor_and_settings_lists():
    assert re.search(r"\[0\] .* \(SN: KSIM0001\)\n\[1\] .* \(SN: KSIM0002\)\n", ok("scan"))
    assert [r["chip_serial"] for r in csv_rows(ok("scan", "--format", "csv"))] == [CM2, NIR]
    rows = json.loads(ok("scan", "--probe", "--format", "json"))
    assert [(r["index"], r["chip_serial"], r["protocol"]) for r in rows] == [
        (0, CM2, "UVVIS_CM2"), (1, NIR, "NIR_LEGACY")]
    doctor = ok("doctor")
    assert re.search(r"KSIM0001 .*answers CM2", doctor) and re.search(r"KSIM0002 .*answers NIR", doctor)
    assert (run().returncode, run("--help").returncode) == (2, 0)
    settings = {r["name"]: r for r in json.loads(ok("get", "--list", "--format", "json"))}
    time, temperature = settings["integration_time"], settings["temperature"]
    assert (time["unit"], time["settable"], temperature["settable"]) == ("us", True, False)


@pytest.mark.parametrize("serial, protocol, points", [(CM2, "UVVIS_CM2", 2048), (NIR, "NIR_LEGACY", 256)])
def test_info_and_csv_rows_match_the_wavelength_table(serial, protocol, points, tmp_path):
    info = json.loads(ok("-d", serial, "info", "--format", "json"))
    assert (info["chip_serial"], info["protocol"], info["points"]) == (serial, protocol, points)
    assert info["wavelength_first_nm"] < info["wavelength_last_nm"]
    assert (info["usb_status"] is None) == (serial == NIR)
    readings = json.loads(ok("-d", serial, "get", "--all", "--format", "json"))
    assert readings["integration_time"] == 10000 and ("xenon_mode" in readings) == (serial == CM2)
    wavelength = wavelength_of("-d", serial)
    ok("-d", serial, "acquire", "-o", tmp_path / "spectrum.csv")
    rows = csv_rows((tmp_path / "spectrum.csv").read_text())
    assert [int(r["index"]) for r in rows] == list(range(points))
    for i, r in enumerate(rows):
        assert abs(float(r["wavelength_nm"]) - wavelength(i)) < 1e-3 and 0 <= int(r["counts"]) <= 65535
    assert max(int(r["counts"]) for r in rows) > 1000  # the lamp is seen


@pytest.mark.parametrize("serial, name, values, shown", [
    (CM2, "integration_time", ["2500us"], "2500"),
    (CM2, "average_number", ["7"], "7"),
    (CM2, "xenon_pulse", ["12", "0x22"], "12 34"),
    (CM2, "serial_number", ["KV-123456789"], "KV-123456789"),  # the longest
    (CM2, "stored_integration_time", ["1.5s"], "1500000"),
    (CM2, "external_trigger", ["1", "2", "3"], "1 2 3"),
    (NIR, "integration_time", ["20ms"], "20000"),
    (NIR, "average_number", ["3"], "3"),
    (NIR, "flash_write_protect", ["open"], "open"),
])
def test_set_then_get_round_trip(serial, name, values, shown):
    assert ok("-d", serial, "set", name, *values, "get", name) == shown + "\n"


def test_selected_range_csv_and_json():
    wavelength = wavelength_of()
    rows = csv_rows(ok("select", "400", "700", "acquire", "--selected"))
    indices = [int(r["index"]) for r in rows]
    assert indices == list(range(indices[0], indices[0] + len(rows)))
    assert wavelength(indices[0] - 1) < 400 and wavelength(indices[-1] + 1) > 700
    assert all(400 <= float(r["wavelength_nm"]) <= 700 for r in rows)
    data = json.loads(ok("acquire", "-n", "2", "--integration", "20ms", "--average", "4", "--format", "json"))
    assert (data["integration_us"], data["averages"], len(data["spectra"])) == (20000, 4, 2)
    assert all(len(s) == len(data["wavelength_nm"]) == 2048 for s in data["spectra"])


@pytest.mark.parametrize("kind", ["csv", "json"])
def test_dark_is_subtracted_only_with_the_same_settings(kind, tmp_path):
    dark = tmp_path / ("dark." + kind)
    ok("acquire", "--integration", "20ms", "--format", kind, "-o", dark)
    # The simulated instrument is seeded: a second spectrum is the same.
    same = csv_rows(ok("acquire", "--integration", "20ms", "--dark", dark))
    assert [int(r["counts"]) for r in same] == [0] * 2048
    selected = ["select", "400", "700", "acquire", "--integration", "20ms", "--selected"]
    ok(*selected, "--format", kind, "-o", tmp_path / ("selected." + kind))
    subtracted = csv_rows(ok(*selected, "--dark", tmp_path / ("selected." + kind)))
    assert {int(r["counts"]) for r in subtracted} == {0}
    for args, reason in ((["--integration", "10ms"], "20000 us, this acquisition uses 10000 us"),
                         (["--integration", "20ms", "--average", "2"], "averaging 1 spectra"),
                         (["--integration", "20ms", "--selected"], "covers 2048 points from index 0")):
        r = run("select", "400", "700", "acquire", "--dark", dark, *args)
        assert r.returncode == 4 and reason in r.stderr.decode()


def test_plot_labels_the_brightest_peaks_in_ascii_or_utf8(tmp_path):
    env = dict(os.environ, LC_ALL="C", COLUMNS="100")
    lines = ok("acquire", "--plot", "-o", tmp_path / "s.csv", env=env).encode().decode("ascii").splitlines()
    rows = csv_rows((tmp_path / "s.csv").read_text())
    counts, nm = [int(r["counts"]) for r in rows], [float(r["wavelength_nm"]) for r in rows]
    axis = next(i for i, line in enumerate(lines) if line.strip().startswith("++"))
    drawing = "\n".join(lines[:axis])
    assert "KSIM0001" in drawing.strip().splitlines()[0]  # the title
    assert re.search(r"\n%d \+" % max(counts), drawing)  # the top of the counts axis
    assert re.search(r"^ +%.1f .* %.1f nm$" % (nm[0], nm[-1]), lines[axis + 1])
    peaks = re.findall(r"([\d.]+) nm \((\d+)\)", lines[-1])
    assert len(peaks) == 5
    for label, height in peaks:
        i = min(range(len(nm)), key=lambda k: abs(nm[k] - float(label)))
        assert counts[i] == int(height) == max(counts[max(0, i - 3):i + 4])
        assert re.search(r"(?m)(^|[ |])%s( |$)" % re.escape(label), drawing)  # labelled in the drawing too
    env["LC_ALL"] = "C.UTF-8"
    assert "\u2588" in ok("acquire", "--plot", "-o", os.devnull, env=env)


def test_progress_bar_only_on_a_terminal():
    master, slave = pty.openpty()
    status = subprocess.run([KAVREL, *SIM, "acquire", "-n", "3"], stdout=subprocess.DEVNULL, stderr=slave,
                            timeout=60).returncode
    os.close(slave)
    shown = drain(master).decode()
    assert status == 0 and re.search(r"\d/3 +\d+:\d\d left", shown)
    drawn = [int(n) for n in re.findall(r"(\d)/3", shown)]
    assert (drawn[0], drawn[-1]) == (0, 3) and drawn == sorted(drawn)
    assert b"left" not in run("acquire", "-n", "3").stderr


@pytest.mark.parametrize("args, status, message", [
    (["--sim-fault", "no_answer", "get", "integration_time"], 19,
     "timeout: the instrument did not answer within 200 ms"),
    (["-d", NIR, "--sim-fault", "no_answer", "get", "average_number"], 19,
     "timeout: the instrument did not answer within 500 ms"),
    (["--sim-fault", "bad_crc:1", "get", "temperature"], 17, "crc: "),
    (["-d", "NOPE", "info"], 12,
     'no_device: no bridge has the chip serial "NOPE"; found: KSIM0001, KSIM0002'),
    (["-d", "5", "info"], 12, "no_device: no bridge at index 5"),
    (["--sim-fault", "reply_code:1:0xE3", "get", "level_output"], 20, "write_protect: "),
    (["-d", NIR, "get", "xenon_mode"], 21, "unsupported: "),
    (["-d", NIR, "external", "1"], 21, "unsupported: "),
    (["-d", NIR, "flash", "write", "9", "-"], 14,
     "io: the instrument refused the write: its flash write protection is closed"),
    (["acquire", "--selected"], 11, "generic: no wavelength range is selected"),
    (["acquire", "--integration", "20"], 2, "--integration: expected a duration such as 10ms"),
    (["set", "xenon_pulse", "1"], 2, "xenon_pulse takes 2 values"),
    (["set", "serial_number", "KV-1234567890"], 2, "serial_number: at most 12 characters"),
    (["flash", "read", "9", "--length", "1025"], 2, "--length: from 1 to 1024 bytes"),
    (["parse", "AA", "AB"], 11, "generic: not a CM2 packet: 2 bytes, a packet has at least 24"),
])
def test_each_failure_has_its_status_and_says_why(args, status, message):
    r = run(*args, stdin=b"page data")
    assert (r.returncode, r.stdout) == (status, b"") and "kavrel: " + message in r.stderr.decode()


@pytest.mark.skipif(any(p.read_text() == "0403\n"
                        for p in pathlib.Path("/sys/bus/usb/devices").glob("*/idVendor")),
                    reason="a bridge is attached")
def test_without_hardware_points_to_doctor_and_sim():
    r = run("scan", sim=False)
    assert r.returncode == 12 and b"kavrel doctor" in r.stderr and b"--sim" in r.stderr
    r = run("doctor", sim=False)
    assert r.returncode == 1
    for missing in ("libftd2xx.so", "no FTDI device (vendor id 0403) on the USB bus", "kavrel --sim"):
        assert missing in r.stdout.decode()


def dumped(stderr, marker):
    """The bytes of the trace's hex dumps under the lines that carry marker."""
    frames = []
    for line in stderr.splitlines():
        if re.match(r"\[ *[\d.]+ ms\] ", line):
            frames.append(bytearray() if marker in line else None)
        elif frames and frames[-1] is not None and re.fullmatch(r"[0-9A-F]{2}( [0-9A-F]{2})*", line.strip()):
            frames[-1] += bytes.fromhex(line)
    return [bytes(f) for f in frames if f is not None]


def test_trace_shows_each_frame_whole_and_keeps_stdout_clean():
    r = run("--trace", "get", "integration_time")
    err = r.stderr.decode()
    assert r.stdout == b"10000\n" and cm2_query(0xC1, 0x000000, 1) in dumped(err, "-> CM2 request")
    assert "PIO:  C1 000000             (Reg=C1h, Addr=000000h)" in err and "Reply=ACh=Normal ACK" in err
    # Replies arrive in pieces; each is shown whole, CRC and all.
    replies = dumped(err, "<- CM2 reply")
    assert (10000).to_bytes(4, "big") in [r[28:32] for r in replies if len(r) == 36]
    assert all(zlib.crc32(r[8:-4]) == int.from_bytes(r[-4:], "big") for r in replies)
    err = run("-d", NIR, "--trace", "get", "integration_time").stderr.decode()
    assert "-> NIR command" in err
    assert re.search(r"acknowledged \(06\), 4 data bytes, CRC-16 [0-9A-F]{4} \(CRC OK\)", err)


def test_flash_write_then_read_gives_back_the_bytes(tmp_path):
    data = bytes(i * 151 % 256 for i in range(100))
    (tmp_path / "in").write_bytes(data)
    # NIR keeps its write protection until told; CM2 opens it itself.
    write = ["set", "flash_write_protect", "open", "flash", "write", "9"]
    ok("-d", NIR, *write, tmp_path / "in", "flash", "read", "9", "--length", "100", "-o", tmp_path / "out")
    assert (tmp_path / "out").read_bytes() == data
    shown = ok("-d", CM2, *write, "-", "flash", "read", "9", "--length", "100", "--hex", stdin=data)
    assert len(shown.splitlines()) == 1 + 7 and bytes.fromhex(" ".join(shown.splitlines()[1:])) == data


def test_crc_and_parse_need_no_instrument():
    data = bytes(i * 73 % 251 for i in range(1000))
    assert ok("crc", "-", stdin=data, sim=False) == "%08X\n" % zlib.crc32(data)
    packet = cm2_query(0xC1, 0x000012, 1)
    text = ok("parse", packet.hex(" "), sim=False)
    assert "SRV:  0D                    (Read Memory (Query))" in text and "(CRC OK)" in text
    r = run("parse", "-", stdin=(packet[:-1] + bytes([packet[-1] ^ 1])).hex().encode(), sim=False)
    assert r.returncode == 17 and b"(CRC FAIL)" in r.stdout


@pytest.mark.skipif(not SERVER, reason="KAVREL_SIM_SERVER names no kavrel-sim")
def test_sim_server_answers_a_query_split_on_its_terminal():
    # The server makes its terminal raw: a cooked one would hold the reply back until a line end.
    with subprocess.Popen([SERVER, "--pty", "--protocol", "cm2"], stdout=subprocess.PIPE) as server:
        try:
            line = os.open(server.stdout.readline().strip(), os.O_RDWR | os.O_NOCTTY)
            # The model text, in two pieces as a serial line may carry it.
            query = cm2_query(0xC1, 0x000046, 4)
            os.write(line, query[:10]), os.write(line, query[10:])
            reply = drain(line, 48)
        finally:
            server.terminate()
    assert (len(reply), reply[:8], reply[21:25], reply[27]) == (48, query[:8], query[21:25], 0xAC)
    assert reply[28:44] == b"KSIM-CM2-2048\0\0\0"
    assert zlib.crc32(reply[8:-4]) == int.from_bytes(reply[-4:], "big")


if __name__ == "__main__":
    os.environ["KAVREL_CLI_UNDER_TEST"] = os.path.abspath(sys.argv[1])
    sys.exit(pytest.main(["-q", "-p", "no:cacheprovider", __file__]))
