import csv
import sys
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import kavrel
from kavrel import sim
from kavrel.__main__ import main
from kavrel.sim import Fault

CM2, NIR = "KSIM0001", "KSIM0002"  # the simulator's default pair


def open_count():
    return kavrel.load(True).cdll.kavrel_direct_get_open_device_count()


@pytest.mark.parametrize("serial, protocol, expected, points",
                         [(CM2, "auto", "cm2", 2048), (NIR, "auto", "nir", 256), (NIR, "NIR", "nir", 256)])
def test_open_acquire_list_close(serial, protocol, expected, points, capfd):
    with kavrel.open(serial=serial, protocol=protocol, simulated=True) as spec:
        assert (spec.protocol, spec.info.protocol) == (expected, expected)
        spec.integration_time_us = 12345
        # Listing opens and closes nothing: the open instrument keeps its state.
        assert [(d.chip_serial, d.description) for d in kavrel.list_devices(simulated=True)] == [
            (CM2, "Kavrel simulated CM2 spectrometer"), (NIR, "Kavrel simulated NIR spectrometer")]
        spectrum, config = spec.spectrum(), sim.default_config(expected)
        assert spectrum.integration_time_us == spec.integration_time_us == 12345 and open_count() == 1
        table = np.polyval(config["coefficients"][::-1], np.arange(points))
        np.testing.assert_allclose(spectrum.wavelengths, table, rtol=1e-6)
        assert spec.wavelengths().dtype == np.float64 and spectrum.counts.dtype == np.uint16
        assert len(spectrum.counts) == len(spectrum.wavelengths) == spec.wavelength_count == points
        assert spectrum.counts.max() > 1000 and spec.info.model == config["model"]
    assert open_count() == 0 and "SN:" not in capfd.readouterr().out
    with pytest.raises(kavrel.NotOpenError):
        spec.spectrum()


def test_open_by_index_first_available_and_the_four_slot_limit():
    for i in range(3, 8):
        sim.attach(f"KSIM000{i}", model=f"M{i}", coefficients=(100.0 * i, 1.0, 0.0, 0.0))
    with kavrel.open(index=1, simulated=True) as second:
        assert (second.chip_serial, second.info.model, second.wavelengths()[0]) == ("KSIM0004", "M4", 400.0)
        with pytest.raises(kavrel.OpenFailedError):
            kavrel.open(serial="KSIM0004", simulated=True)
        first = kavrel.Spectrometer.first_available(simulated=True)
        third, fourth = kavrel.open(simulated=True), kavrel.open(simulated=True)
        assert [s.chip_serial for s in (first, third, fourth)] == ["KSIM0003", "KSIM0005", "KSIM0006"]
        with pytest.raises(kavrel.OpenFailedError):
            kavrel.open(simulated=True)
        fourth.close()
        assert kavrel.open(simulated=True).chip_serial == "KSIM0006"
    assert open_count() == 3


def test_dark_subtraction_and_saturation():
    sim.set_scene(CM2, shutter_closed=True)
    with kavrel.open(serial=CM2, simulated=True) as spec:
        dark = spec.spectrum()
        sim.set_scene(CM2, line_level=1e6)
        spectrum = spec.spectrum(dark=dark.counts)
        with pytest.raises(kavrel.InvalidArgumentError):
            spec.spectrum(dark=dark.counts[1:])
    assert not dark.saturated.any() and 0 < spectrum.saturated.sum() < 500
    assert (spectrum.raw[spectrum.saturated] == 65535).all()
    np.testing.assert_array_equal(spectrum.counts, spectrum.raw - dark.counts.astype(float))


def test_selected_range_and_reset():
    with kavrel.open(serial=CM2, simulated=True) as spec:
        spec.stored_integration_time_us, spec.integration_time_us = 30000, 5000
        assert spec.spectrum().integration_time_us == 5000 and spec.selection is None
        selection = spec.select_range(500, 600)
        wavelengths = spec.selected_wavelengths()
        assert len(wavelengths) == len(spec.selected_spectrum()) == selection.count > 100
        assert 500 <= wavelengths[0] == selection.actual_start_nm and wavelengths[-1] <= 600
        spec.reset()  # back to the stored settings, no range selected
        assert spec.selection is None and spec.spectrum().integration_time_us == 30000


@pytest.mark.parametrize("name, value", [
    ("integration_time_us", 25000), ("average", 4), ("level_output", 3), ("xenon_mode", 2),
    ("dac_value", 0x123), ("usb_baud_rate", 7), ("stored_integration_time_us", 30000), ("stored_average", 8),
    ("stored_smoothing_width", 5), ("xenon_pulse", (10, 70000)), ("external_trigger_config", (1, 2, 3)),
    ("serial_number", "SN-42"),
])  # fmt: skip
def test_settings_read_back(name, value):
    with kavrel.open(serial=CM2, simulated=True) as spec:
        setattr(spec, name, value)
        assert getattr(spec, name) == value


@pytest.mark.parametrize("serial", [CM2, NIR])
def test_flash_round_trip(serial):
    data = bytes(range(7, 17))  # not whole words
    with kavrel.open(serial=serial, simulated=True) as spec:
        spec.write_flash(3, data)
        assert spec.read_flash(3, len(data)) == data


@pytest.mark.parametrize("serial, fault, parameter, exception", [
    (CM2, Fault.DELAY, 400, kavrel.InstrumentTimeoutError),
    (CM2, Fault.BAD_CRC, 0, kavrel.CrcError),
    (CM2, Fault.REPLY_CODE, 0xE3, kavrel.WriteProtectError),
    (NIR, Fault.NIR_REFUSE, 0, kavrel.InstrumentIOError),
])
def test_each_fault_raises_its_exception_once(serial, fault, parameter, exception):
    with kavrel.open(serial=serial, simulated=True) as spec:
        sim.inject_fault(serial, fault, count=1, parameter=parameter)
        with pytest.raises(exception) as caught:
            spec.temperature_c
        assert caught.value.code == exception.code and caught.value.function.startswith("kavrel_direct_")
        sim.sleep_ms(1000)  # a late reply arrives and is purged
        spec.temperature_c  # the fault was for one request


@pytest.mark.parametrize("serial, misuse, exception", [
    (NIR, lambda spec: spec.xenon_mode, kavrel.UnsupportedError),
    (CM2, lambda spec: spec.selected_spectrum(), kavrel.GenericError),
    (CM2, lambda spec: spec.select_range(600, 500), kavrel.InvalidArgumentError),
    (CM2, lambda spec: setattr(spec, "average", 256), kavrel.InvalidArgumentError),  # refused before sending
    (CM2, lambda spec: (sim.detach(CM2), spec.temperature_c), kavrel.InstrumentIOError),
    (CM2, lambda spec: kavrel.open(serial="NOSUCH", simulated=True), kavrel.NoDeviceError),
    # A forced protocol is not probed: a NIR instrument does not answer CM2 packets.
    (CM2, lambda spec: kavrel.open(serial=NIR, protocol="cm2", simulated=True).temperature_c,
     kavrel.InstrumentTimeoutError),
])
def test_misuse_raises(serial, misuse, exception):
    with kavrel.open(serial=serial, simulated=True) as spec, pytest.raises(exception):
        misuse(spec)


def test_two_instruments_from_two_threads():
    def drive(spec, points):
        for i in range(20000):
            assert spec.protocol == ("cm2" if points == 2048 else "nir")
            if i % 4000 == 0:
                spec.integration_time_us = 1000 + i + points
                spectrum = spec.spectrum()
                assert (spectrum.integration_time_us, len(spectrum)) == (1000 + i + points, points)

    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-6)  # let the threads interleave between any two calls
    try:
        with kavrel.open(serial=CM2, simulated=True) as cm2, kavrel.open(serial=NIR, simulated=True) as nir:
            with ThreadPoolExecutor(2) as pool:
                for job in [pool.submit(drive, cm2, 2048), pool.submit(drive, nir, 256)]:
                    job.result()
    finally:
        sys.setswitchinterval(interval)


def test_command_line_writes_csv_and_plot(tmp_path, capsys):
    out, png = tmp_path / "s.csv", tmp_path / "s.png"
    # At the default 10 ms no point saturates; at 20 ms the strongest lines do.
    args = ["acquire", "--sim", "--integration-time-us", "20000", "-o", str(out), "--plot", str(png)]
    assert main(args) == 0
    rows = list(csv.DictReader(out.open()))
    assert len(rows) == 2048 and rows[0].keys() == {"wavelength_nm", "counts", "saturated"}
    assert 0 < sum(row["saturated"] == "1" for row in rows) < 100 and float(rows[0]["wavelength_nm"]) < 200
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n" and png.stat().st_size > 20000
    assert main(["acquire", "--sim", "--serial", "NOSUCH"]) == 1
    assert "KAVREL_DIRECT_ERR_NO_DEVICE" in capsys.readouterr().err
