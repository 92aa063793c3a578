"""The kavrel program run as a user runs it, against the simulated instruments
in virtual time: KSIM0001 speaks CM2 (2048 points), KSIM0002 NIR (256).

    /usr/bin/python3 tests/kavrel_cli_test.py build/tools/kavrel/kavrel
"""
import csv
import io
import json
import os
import pathlib
import pty
import random
import re
import subprocess
import sys
import tempfile
import unittest
import zlib

KAVREL = None
SIM = ["--sim", "--sim-virtual-time"]
DEVICES = {"CM2": "KSIM0001", "NIR": "KSIM0002"}


def run(*args, sim=True, stdin=None):
    return subprocess.run([KAVREL] + (SIM if sim else []) + list(args), input=stdin,
                          capture_output=True, timeout=60)


def ok(*args, **kw):
    r = run(*args, **kw)
    assert r.returncode == 0, f"kavrel {' '.join(args)} -> {r.returncode}\n{r.stderr.decode()}"
    return r.stdout.decode()


def polynomial(c, i):
    return c[0] + c[1] * i + c[2] * i * i + c[3] * i * i * i


def csv_rows(text):
    """The data rows of kavrel's CSV, keyed by its header row."""
    lines = [line for line in text.splitlines() if not line.startswith("#")]
    return list(csv.DictReader(io.StringIO("\n".join(lines))))


def cm2_query(register, address, words):
    """A CM2 query packet built here from the wire format, not by the library."""
    body = bytes([0xCC, 0x00, 0x01, 0x00, 0x02, 0x0D, 0xEE, 0x00, words, 0x00, 0x00, 0x01, 0x01, register,
                  address >> 16 & 0xFF, address >> 8 & 0xFF, address & 0xFF, 0x00, 0x00, 0x00])
    return bytes([0xAA] * 7 + [0xAB]) + body + zlib.crc32(body).to_bytes(4, "big")


def ftdi_on_bus():
    return any(p.read_text().strip() == "0403" for p in pathlib.Path("/sys/bus/usb/devices").glob("*/idVendor"))


class Listing(unittest.TestCase):
    def test_scan_lists_both_instruments_in_every_format(self):
        text = ok("scan")
        self.assertRegex(text, r"\[0\] .* \(SN: KSIM0001\)\n\[1\] .* \(SN: KSIM0002\)\n")
        self.assertEqual([r["chip_serial"] for r in csv_rows(ok("scan", "--format", "csv"))], ["KSIM0001", "KSIM0002"])
        rows = json.loads(ok("scan", "--probe", "--format", "json"))
        self.assertEqual([(r["index"], r["chip_serial"], r["protocol"]) for r in rows],
                         [(0, "KSIM0001", "UVVIS_CM2"), (1, "KSIM0002", "NIR_LEGACY")])

    def test_info_per_protocol(self):
        for protocol, points, name in (("CM2", 2048, "UVVIS_CM2"), ("NIR", 256, "NIR_LEGACY")):
            with self.subTest(protocol):
                info = json.loads(ok("-d", DEVICES[protocol], "info", "--format", "json"))
                self.assertEqual((info["chip_serial"], info["protocol"], info["points"]),
                                 (DEVICES[protocol], name, points))
                self.assertLess(info["wavelength_first_nm"], info["wavelength_last_nm"])
                self.assertEqual(info["usb_status"] is None, protocol == "NIR")


class Settings(unittest.TestCase):
    CASES = [  # device, name, values set, text read back
        ("CM2", "integration_time", ["2500us"], "2500"),
        ("CM2", "average_number", ["7"], "7"),
        ("CM2", "xenon_pulse", ["12", "0x22"], "12 34"),
        ("CM2", "serial_number", ["KV-123456789"], "KV-123456789"),  # the longest
        ("CM2", "stored_integration_time", ["1.5s"], "1500000"),
        ("NIR", "integration_time", ["20ms"], "20000"),
        ("NIR", "average_number", ["3"], "3"),
        ("NIR", "flash_write_protect", ["open"], "open"),
    ]

    def test_set_then_get_round_trip(self):
        for protocol, name, values, expected in self.CASES:
            with self.subTest(protocol=protocol, name=name):
                out = ok("-d", DEVICES[protocol], "set", name, *values, "get", name)
                self.assertEqual(out, expected + "\n")

    def test_list_names_every_setting_with_its_unit(self):
        listed = {r["name"]: r for r in json.loads(ok("get", "--list", "--format", "json"))}
        self.assertEqual(listed["integration_time"]["unit"], "us")
        self.assertTrue(listed["integration_time"]["settable"])
        self.assertFalse(listed["temperature"]["settable"])


class Acquisition(unittest.TestCase):
    def test_csv_rows_match_the_wavelength_table(self):
        for protocol, points in (("CM2", 2048), ("NIR", 256)):
            with self.subTest(protocol):
                device = ["-d", DEVICES[protocol]]
                c = json.loads(ok(*device, "wavelengths", "--coefficients", "--format", "json"))["coefficients"]
                with tempfile.TemporaryDirectory() as tmp:
                    path = os.path.join(tmp, "spectrum.csv")
                    ok(*device, "acquire", "-o", path)
                    rows = csv_rows(pathlib.Path(path).read_text())
                self.assertEqual(len(rows), points)
                for i, row in enumerate(rows):
                    self.assertEqual(int(row["index"]), i)
                    self.assertAlmostEqual(float(row["wavelength_nm"]), polynomial(c, i), delta=1e-3)
                    self.assertTrue(0 <= int(row["counts"]) <= 65535)
                self.assertGreater(max(int(r["counts"]) for r in rows), 1000)  # the lamp is seen

    def test_selected_range_keeps_detector_indices(self):
        c = json.loads(ok("wavelengths", "--coefficients", "--format", "json"))["coefficients"]
        rows = csv_rows(ok("select", "400", "700", "acquire", "--selected"))
        indices = [int(r["index"]) for r in rows]
        self.assertEqual(indices, list(range(indices[0], indices[0] + len(rows))))
        self.assertLess(polynomial(c, indices[0] - 1), 400)
        self.assertGreater(polynomial(c, indices[-1] + 1), 700)
        for r in rows:
            self.assertTrue(400 <= float(r["wavelength_nm"]) <= 700)

    def test_json_parses_and_records_the_settings_used(self):
        data = json.loads(ok("acquire", "-n", "2", "--integration", "20ms", "--average", "4", "--format", "json"))
        self.assertEqual((data["integration_us"], data["averages"], len(data["spectra"])), (20000, 4, 2))
        self.assertTrue(all(len(s) == len(data["wavelength_nm"]) == 2048 for s in data["spectra"]))

    def test_dark_is_subtracted_only_with_the_same_settings(self):
        for kind in ("csv", "json"):
            with self.subTest(kind), tempfile.TemporaryDirectory() as tmp:
                dark = os.path.join(tmp, "dark." + kind)
                ok("acquire", "--integration", "20ms", "--format", kind, "-o", dark)
                same = csv_rows(ok("acquire", "--integration", "20ms", "--dark", dark))
                # The simulated instrument is seeded: a second spectrum is the same.
                self.assertEqual([int(r["counts"]) for r in same], [0] * 2048)
                for args, reason in ((["--integration", "10ms"], "20000 us, this acquisition uses 10000 us"),
                                     (["--integration", "20ms", "--average", "2"], "averaging 1 spectra"),
                                     (["--integration", "20ms", "--selected"], "covers 2048 points from index 0")):
                    r = run("select", "400", "700", "acquire", "--dark", dark, *args)
                    self.assertEqual(r.returncode, 4, r.stderr)
                    self.assertIn(reason, r.stderr.decode())

    def test_plot_labels_the_brightest_peaks_in_ascii_or_utf8(self):
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "spectrum.csv")
            env = dict(os.environ, LC_ALL="C", COLUMNS="100")
            plot = subprocess.run([KAVREL] + SIM + ["acquire", "--plot", "-o", path], env=env,
                                  capture_output=True, timeout=60).stdout.decode("ascii")
            counts = [int(r["counts"]) for r in csv_rows(pathlib.Path(path).read_text())]
            wavelengths = [float(r["wavelength_nm"]) for r in csv_rows(pathlib.Path(path).read_text())]
        lines = plot.splitlines()
        axis = next(i for i, line in enumerate(lines) if line.strip().startswith("++"))
        drawing = "\n".join(lines[:axis])
        self.assertIn("KSIM0001", drawing.strip().splitlines()[0])  # the title
        self.assertRegex(drawing, r"\n%d \+" % max(counts))  # the top of the counts axis
        self.assertRegex(lines[axis + 1], r"^ +%.1f .* %.1f nm$" % (wavelengths[0], wavelengths[-1]))
        peaks = re.findall(r"([\d.]+) nm \((\d+)\)", lines[-1])
        self.assertEqual(len(peaks), 5)
        for nm, height in peaks:
            i = min(range(len(wavelengths)), key=lambda k: abs(wavelengths[k] - float(nm)))
            self.assertEqual(counts[i], int(height))
            self.assertEqual(counts[i], max(counts[max(0, i - 3):i + 4]))
            self.assertRegex(drawing, r"(?m)(^|[ |])%s( |$)" % re.escape(nm))  # labelled in the drawing too
        env["LC_ALL"] = "C.UTF-8"
        utf8 = subprocess.run([KAVREL] + SIM + ["acquire", "--plot", "-o", os.devnull], env=env,
                              capture_output=True, timeout=60).stdout.decode()
        self.assertIn("\u2588", utf8)

    def test_progress_bar_only_on_a_terminal(self):
        master, slave = pty.openpty()
        r = subprocess.run([KAVREL] + SIM + ["acquire", "-n", "3"], stdout=subprocess.DEVNULL, stderr=slave,
                           timeout=60)
        os.close(slave)
        # A terminal hands its buffer over a piece a read: read to its end
        # (EIO once the writer is gone).
        chunks = []
        while True:
            try:
                chunk = os.read(master, 65536)
            except OSError:
                break
            if not chunk:
                break
            chunks.append(chunk)
        shown = b"".join(chunks).decode()
        os.close(master)
        self.assertEqual(r.returncode, 0)
        self.assertRegex(shown, r"\d/3 +\d+:\d\d left")
        drawn = [int(n) for n in re.findall(r"(\d)/3", shown)]
        self.assertEqual((drawn[0], drawn[-1]), (0, 3))
        self.assertEqual(drawn, sorted(drawn))
        self.assertNotIn(b"left", run("acquire", "-n", "3").stderr)


class Failures(unittest.TestCase):
    CASES = [  # arguments, exit status, message
        (["--sim-fault", "no_answer", "get", "integration_time"], 19,
         "timeout: the instrument did not answer within 200 ms"),
        (["-d", "KSIM0002", "--sim-fault", "no_answer", "get", "average_number"], 19,
         "timeout: the instrument did not answer within 500 ms"),
        (["--sim-fault", "bad_crc:1", "get", "temperature"], 17, "crc: "),
        (["-d", "NOPE", "info"], 12, 'no_device: no bridge has the chip serial "NOPE"; found: KSIM0001, KSIM0002'),
        (["-d", "5", "info"], 12, "no_device: no bridge at index 5"),
        (["--sim-fault", "reply_code:1:0xE3", "get", "level_output"], 20, "write_protect: "),
        (["-d", "KSIM0002", "get", "xenon_mode"], 21, "unsupported: "),
        (["-d", "KSIM0002", "external", "1"], 21, "unsupported: "),
        (["-d", "KSIM0002", "flash", "write", "9", "-"], 14, "io: the instrument refused the write: its flash "
         "write protection is closed"),
        (["acquire", "--selected"], 11, "generic: no wavelength range is selected"),
        (["acquire", "--integration", "20"], 2, "--integration: expected a duration such as 10ms"),
        (["set", "xenon_pulse", "1"], 2, "xenon_pulse takes 2 values"),
        (["set", "serial_number", "KV-1234567890"], 2, "serial_number: at most 12 characters"),
        (["flash", "read", "9", "--length", "1025"], 2, "--length: from 1 to 1024 bytes"),
        (["parse", "AA", "AB"], 11, "generic: not a CM2 packet: 2 bytes, a packet has at least 24"),
    ]

    def test_each_failure_has_its_status_and_says_why(self):
        for args, status, message in self.CASES:
            with self.subTest(args=args):
                r = run(*args, stdin=b"page data")
                self.assertEqual(r.returncode, status, r.stderr)
                self.assertIn("kavrel: " + message, r.stderr.decode())
                self.assertEqual(r.stdout, b"")

    @unittest.skipIf(ftdi_on_bus(), "a bridge is attached")
    def test_without_hardware_points_to_doctor_and_sim(self):
        r = run("scan", sim=False)
        self.assertEqual(r.returncode, 12)
        self.assertIn(b"kavrel doctor", r.stderr)
        self.assertIn(b"--sim", r.stderr)


class Trace(unittest.TestCase):
    def dumped(self, stderr, marker):
        """The byte strings of the trace's hex dumps that follow marker lines."""
        frames, current = [], None
        for line in stderr.splitlines():
            if re.match(r"\[ *[\d.]+ ms\] ", line):
                current = [] if marker in line else None
                if current is not None:
                    frames.append(current)
            elif current is not None and re.fullmatch(r"[0-9A-F]{2}( [0-9A-F]{2})*", line.strip()):
                current.extend(int(h, 16) for h in line.split())
        return [bytes(f) for f in frames]

    def test_cm2_trace_shows_the_request_packet_and_keeps_stdout_clean(self):
        r = run("--trace", "get", "integration_time")
        self.assertEqual(r.stdout, b"10000\n")
        err = r.stderr.decode()
        self.assertIn(cm2_query(0xC1, 0x000000, 1), self.dumped(err, "-> CM2 request"))
        self.assertIn("PIO:  C1 000000             (Reg=C1h, Addr=000000h)", err)
        self.assertIn("Reply=ACh=Normal ACK", err)
        # Replies arrive in pieces; each is shown whole, CRC and all.
        replies = self.dumped(err, "<- CM2 reply")
        self.assertIn((10000).to_bytes(4, "big"), [r[28:32] for r in replies if len(r) == 36])
        for reply in replies:
            self.assertEqual(zlib.crc32(reply[8:-4]), int.from_bytes(reply[-4:], "big"))

    def test_nir_trace_shows_frames_with_their_crc(self):
        err = run("-d", "KSIM0002", "--trace", "get", "integration_time").stderr.decode()
        self.assertIn("-> NIR command", err)
        self.assertRegex(err, r"acknowledged \(06\), 4 data bytes, CRC-16 [0-9A-F]{4} \(CRC OK\)")


class FlashAndCodec(unittest.TestCase):
    def test_flash_write_then_read_gives_back_the_bytes(self):
        data = bytes(random.Random(7).randrange(256) for _ in range(100))
        for protocol in ("CM2", "NIR"):
            with self.subTest(protocol), tempfile.TemporaryDirectory() as tmp:
                source, back = os.path.join(tmp, "in.bin"), os.path.join(tmp, "out.bin")
                pathlib.Path(source).write_bytes(data)
                # NIR keeps its write protection until told; CM2 opens it itself.
                ok("-d", DEVICES[protocol], "set", "flash_write_protect", "open", "flash", "write", "9", source,
                   "flash", "read", "9", "--length", "100", "-o", back)
                self.assertEqual(pathlib.Path(back).read_bytes(), data)
        shown = ok("set", "flash_write_protect", "open", "flash", "write", "9", "-", "flash", "read", "9",
                   "--length", "100", "--hex", stdin=data)
        self.assertEqual(bytes.fromhex(" ".join(shown.splitlines()[1:])), data)

    def test_crc_matches_ieee_crc32(self):
        data = bytes(random.Random(3).randrange(256) for _ in range(1000))
        self.assertEqual(ok("crc", "-", stdin=data, sim=False), "%08X\n" % zlib.crc32(data))

    def test_parse_decodes_a_packet_and_flags_a_bad_crc(self):
        packet = cm2_query(0xC1, 0x000012, 1)
        text = ok("parse", packet.hex(" "), sim=False)
        self.assertIn("SRV:  0D                    (Read Memory (Query))", text)
        self.assertIn("(CRC OK)", text)
        damaged = packet[:-1] + bytes([packet[-1] ^ 1])
        r = run("parse", "-", stdin=damaged.hex().encode(), sim=False)
        self.assertEqual(r.returncode, 17)
        self.assertIn(b"(CRC FAIL)", r.stdout)


class Doctor(unittest.TestCase):
    @unittest.skipIf(ftdi_on_bus(), "a bridge is attached")
    def test_names_the_missing_pieces_here(self):
        r = run("doctor", sim=False)
        out = r.stdout.decode()
        self.assertEqual(r.returncode, 1)
        self.assertIn("libftd2xx.so", out)
        self.assertIn("no FTDI device (vendor id 0403) on the USB bus", out)
        self.assertIn("kavrel --sim", out)

    def test_simulated_instruments_pass(self):
        out = ok("doctor")
        self.assertRegex(out, r"KSIM0001 .*answers CM2")
        self.assertRegex(out, r"KSIM0002 .*answers NIR")


if __name__ == "__main__":
    KAVREL = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=1)
