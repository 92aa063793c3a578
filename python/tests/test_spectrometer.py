import sys
import threading

import numpy as np
import pytest

import kavrel
from kavrel import sim
from kavrel.sim import Fault

CM2, NIR = "KSIM0001", "KSIM0002"  # the simulator's default pair


def open_count():
    return kavrel.load(True).cdll.kavrel_direct_get_open_device_count()


@pytest.mark.parametrize(
    "serial, protocol, expected, points",
    [(CM2, "auto", "cm2", 2048), (NIR, "auto", "nir", 256), (CM2, "cm2", "cm2", 2048), (NIR, "NIR", "nir", 256)],
)
def test_open_acquire_close(serial, protocol, expected, points):
    with kavrel.open(serial=serial, protocol=protocol, simulated=True) as spec:
        assert (spec.protocol, spec.info.protocol) == (expected, expected)
        spectrum = spec.spectrum()
        assert spec.wavelengths().dtype == np.float64 and spectrum.counts.dtype == np.uint16
        assert len(spectrum.counts) == len(spectrum.wavelengths) == spec.wavelength_count == points
        assert spectrum.counts.max() > 1000 and open_count() == 1
    assert open_count() == 0
    with pytest.raises(kavrel.NotOpenError):
        spec.spectrum()


def test_a_forced_protocol_is_not_probed():
    with kavrel.open(serial=NIR, protocol="cm2", simulated=True) as spec:
        assert spec.protocol == "cm2"
        with pytest.raises(kavrel.InstrumentTimeoutError):
            spec.temperature_c  # a NIR instrument does not answer CM2 packets


def test_open_by_index_first_available_and_the_four_slot_limit():
    for i in range(3, 8):
        sim.attach(f"KSIM000{i}")
    with kavrel.open(index=1, simulated=True) as second:
        assert second.chip_serial == "KSIM0004"
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


@pytest.mark.parametrize("shift_nm, slope", [(0.0, 0.45), (-12.0, 0.43)])
def test_lines_sit_where_the_wavelength_table_says(shift_nm, slope):
    coefficients = (190.0 + shift_nm, slope, -1e-6, 0.0)
    sim.attach("KSIMCAL", coefficients=coefficients, model="BENCH-7", serial_number="B7-0042")
    sim.set_scene(continuum_level=0.0)
    with kavrel.open(serial="KSIMCAL", simulated=True) as spec:
        assert (spec.info.model, spec.info.serial_number) == ("BENCH-7", "B7-0042")
        wavelengths = spec.wavelengths()
        np.testing.assert_allclose(wavelengths, np.polyval(coefficients[::-1], np.arange(2048)), rtol=1e-6)
        counts = spec.spectrum().counts.astype(float)
    step = slope * 1.5
    for line_nm in (253.65, 435.83, 546.07):  # mercury
        near = np.abs(wavelengths - line_nm) < 5
        assert abs(wavelengths[near][np.argmax(counts[near])] - line_nm) < step
    assert abs(wavelengths[np.argmax(counts)] - 546.07) < step


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
        assert spec.spectrum().integration_time_us == 5000
        assert spec.selection is None
        selection = spec.select_range(500, 600)
        wavelengths = spec.selected_wavelengths()
        assert len(wavelengths) == len(spec.selected_spectrum()) == selection.count > 100
        assert 500 <= wavelengths[0] == selection.actual_start_nm and wavelengths[-1] <= 600
        spec.reset()  # back to the stored settings, no range selected
        assert spec.selection is None and spec.spectrum().integration_time_us == 30000


SETTINGS = [
    ("integration_time_us", 25000), ("average", 4), ("level_output", 3), ("xenon_mode", 2), ("dac_value", 0x123),
    ("usb_baud_rate", 7), ("stored_integration_time_us", 30000), ("stored_average", 8),
    ("stored_smoothing_width", 5), ("xenon_pulse", (10, 70000)), ("external_trigger_config", (1, 2, 3)),
    ("serial_number", "SN-42"),
]  # fmt: skip


@pytest.mark.parametrize("name, value", SETTINGS)
def test_settings_read_back(name, value):
    with kavrel.open(serial=CM2, simulated=True) as spec:
        setattr(spec, name, value)
        assert getattr(spec, name) == value


def test_settings_that_do_not_fit_are_refused_before_sending():
    with kavrel.open(serial=CM2, simulated=True) as spec:
        spec.average = 3
        with pytest.raises(kavrel.InvalidArgumentError):
            spec.average = 256
        assert spec.average == 3


@pytest.mark.parametrize("serial", [CM2, NIR])
def test_flash_round_trip(serial):
    data = bytes(range(7, 17))  # not whole words
    with kavrel.open(serial=serial, simulated=True) as spec:
        spec.write_flash(3, data)
        assert spec.read_flash(3, len(data)) == data


def read_temperature(spec):
    return spec.temperature_c


def read_flash(spec):
    return spec.read_flash(1, 16)


FAULTS = [  # serial, fault and parameter, operation, exception
    (CM2, Fault.NO_ANSWER, 0, read_temperature, kavrel.InstrumentTimeoutError),
    (CM2, Fault.DELAY, 400, read_temperature, kavrel.InstrumentTimeoutError),
    (CM2, Fault.BAD_CRC, 0, read_temperature, kavrel.CrcError),
    (CM2, Fault.BAD_PREAMBLE, 0, read_temperature, kavrel.ParseError),
    (CM2, Fault.TRUNCATE, 20, read_temperature, kavrel.InstrumentTimeoutError),
    (CM2, Fault.REPLY_CODE, 0xE0, read_temperature, kavrel.InstrumentTimeoutError),
    (CM2, Fault.REPLY_CODE, 0xE1, read_temperature, kavrel.CrcError),
    (CM2, Fault.REPLY_CODE, 0xE2, read_temperature, kavrel.InstrumentIOError),
    (CM2, Fault.REPLY_CODE, 0xE3, read_temperature, kavrel.WriteProtectError),
    (CM2, Fault.HANDSHAKE_FAILED, 0, read_flash, kavrel.InstrumentIOError),
    (CM2, Fault.HANDSHAKE_STUCK, 0, read_flash, kavrel.InstrumentTimeoutError),
    (CM2, Fault.READ_FAILURE, 0, read_temperature, kavrel.InstrumentIOError),
    (CM2, Fault.WRITE_FAILURE, 0, read_temperature, kavrel.InstrumentIOError),
    (NIR, Fault.NIR_REFUSE, 0, read_temperature, kavrel.InstrumentIOError),
    (NIR, Fault.NO_ANSWER, 0, read_temperature, kavrel.InstrumentTimeoutError),
    (NIR, Fault.BAD_CRC, 0, read_temperature, kavrel.CrcError),
]


@pytest.mark.parametrize("serial, fault, parameter, operation, exception", FAULTS)
def test_each_fault_raises_its_exception_once(serial, fault, parameter, operation, exception):
    with kavrel.open(serial=serial, simulated=True) as spec:
        sim.inject_fault(serial, fault, count=1, parameter=parameter)
        with pytest.raises(exception) as caught:
            operation(spec)
        assert caught.value.code == exception.code and caught.value.function.startswith("kavrel_direct_")
        sim.sleep_ms(1000)  # a late reply arrives and is purged
        operation(spec)  # the fault was for one request


MISUSE = [  # serial, operation, exception
    (NIR, lambda spec: spec.xenon_mode, kavrel.UnsupportedError),
    (CM2, lambda spec: spec.selected_spectrum(), kavrel.GenericError),
    (CM2, lambda spec: spec.select_range(600, 500), kavrel.InvalidArgumentError),
    (CM2, lambda spec: (sim.detach(CM2), spec.temperature_c), kavrel.InstrumentIOError),
]


@pytest.mark.parametrize("serial, operation, exception", MISUSE)
def test_misuse_raises(serial, operation, exception):
    with kavrel.open(serial=serial, simulated=True) as spec:
        with pytest.raises(exception):
            operation(spec)


def test_unknown_serial():
    with pytest.raises(kavrel.NoDeviceError):
        kavrel.open(serial="NOSUCH", simulated=True)


def test_listing_leaves_open_instruments_alone(capfd):
    sim.attach("KSIMA", description="Bench A")
    sim.attach("KSIMB", "nir", description="Bench B")
    with kavrel.open(serial="KSIMB", simulated=True) as spec:
        spec.integration_time_us = 12345
        spec.select_range(1000, 1200)
        listed = kavrel.list_devices(simulated=True)
        assert listed == [kavrel.DeviceEntry(0, "KSIMA", "Bench A"), kavrel.DeviceEntry(1, "KSIMB", "Bench B")]
        assert spec.integration_time_us == 12345 and spec.selection.requested_start_nm == 1000
        assert len(spec.spectrum()) == 256 and open_count() == 1
    assert "SN:" not in capfd.readouterr().out


def test_two_instruments_alternately():
    with kavrel.open(serial=CM2, simulated=True) as cm2, kavrel.open(serial=NIR, simulated=True) as nir:
        for time_us in (5000, 6000, 7000):
            cm2.integration_time_us, nir.integration_time_us = time_us, time_us + 1
            first, second = cm2.spectrum(), nir.spectrum()
            assert (len(first), len(second)) == (2048, 256)
            assert (first.integration_time_us, second.integration_time_us) == (time_us, time_us + 1)
            assert (cm2.integration_time_us, nir.integration_time_us) == (time_us, time_us + 1)


def test_two_instruments_from_two_threads():
    errors = []

    def drive(spec, expected, points):
        try:
            for i in range(20000):
                assert spec.protocol == expected
                if i % 4000 == 0:
                    spec.integration_time_us = 1000 + i
                    assert spec.spectrum().integration_time_us == 1000 + i
                    assert len(spec.spectrum()) == points
        except Exception as error:  # reported by the main thread
            errors.append(error)

    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-6)  # let the threads interleave between any two calls
    try:
        with kavrel.open(serial=CM2, simulated=True) as cm2, kavrel.open(serial=NIR, simulated=True) as nir:
            threads = [threading.Thread(target=drive, args=a) for a in ((cm2, "cm2", 2048), (nir, "nir", 256))]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
    finally:
        sys.setswitchinterval(interval)
    assert errors == []
