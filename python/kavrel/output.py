"""Spectra to CSV and to a figure. matplotlib is imported only to plot."""
import csv

import numpy as np


def write_csv(spectrum, stream):
    """Writes one row per point: wavelength_nm, counts, saturated (0/1)."""
    writer = csv.writer(stream, lineterminator="\n")
    writer.writerow(["wavelength_nm", "counts", "saturated"])
    counts = spectrum.counts
    text = [f"{c:.6g}" for c in counts] if counts.dtype.kind == "f" else [str(c) for c in counts]
    for wavelength, count, saturated in zip(spectrum.wavelengths, text, spectrum.saturated):
        writer.writerow([f"{wavelength:.4f}", count, int(saturated)])


def title(spectrum, info):
    return (
        f"{info.model or 'unknown model'} (SN {info.serial_number or '?'}), "
        f"integration {spectrum.integration_time_us} µs, {spectrum.average} average"
        + ("s" if spectrum.average != 1 else "")
    )


def figure(spectrum, info):
    """A matplotlib Figure of counts against wavelength, saturated points
    marked. Made without pyplot, so no backend is chosen or changed."""
    from matplotlib.figure import Figure

    fig = Figure(figsize=(10, 5), dpi=100, layout="tight")
    ax = fig.add_subplot()
    ax.plot(spectrum.wavelengths, spectrum.counts, linewidth=0.8, color="tab:blue", label="counts")
    if np.any(spectrum.saturated):
        ax.plot(
            spectrum.wavelengths[spectrum.saturated],
            np.asarray(spectrum.counts)[spectrum.saturated],
            "x",
            color="tab:red",
            markersize=5,
            label=f"saturated ({int(np.count_nonzero(spectrum.saturated))} points)",
        )
        ax.legend(loc="upper right")
    ax.set_xlabel("Wavelength (nm)")
    ax.set_ylabel("Counts (dark subtracted)" if spectrum.dark_subtracted else "Counts")
    ax.set_title(title(spectrum, info), fontsize=10)
    ax.grid(True, alpha=0.3)
    return fig


def save_plot(spectrum, info, path):
    """Writes the figure as an image; the format follows the file's suffix."""
    figure(spectrum, info).savefig(path)
