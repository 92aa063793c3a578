import csv

from kavrel.__main__ import main


def test_acquire_writes_csv_and_plot(tmp_path):
    table, image = tmp_path / "spectrum.csv", tmp_path / "spectrum.png"
    # At the default 10 ms no point saturates; at 20 ms the strongest lines do.
    assert main(["acquire", "--sim", "--integration-time-us", "20000", "-o", str(table), "--plot", str(image)]) == 0
    rows = list(csv.DictReader(table.open()))
    assert len(rows) == 2048 and rows[0].keys() == {"wavelength_nm", "counts", "saturated"}
    assert any(row["saturated"] == "1" for row in rows) and float(rows[0]["wavelength_nm"]) < 200
    assert image.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n" and image.stat().st_size > 20000


def test_acquire_reports_failure(capsys):
    assert main(["acquire", "--sim", "--serial", "NOSUCH"]) == 1
    assert "KAVREL_DIRECT_ERR_NO_DEVICE" in capsys.readouterr().err
