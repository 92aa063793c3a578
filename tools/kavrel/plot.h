// --plot: a spectrum drawn in the terminal, counts against wavelength, with
// the axis ranges and the brightest peaks labelled.
#ifndef KAVREL_TOOLS_PLOT_H
#define KAVREL_TOOLS_PLOT_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace kavrel::cli {

struct PlotStyle {
    int width = 80;   // columns in all, axis labels included
    int height = 16;  // rows of the chart itself
    bool utf8 = true; // block characters; plain ASCII otherwise
    size_t peaks = 5;
    std::string title;
};

// Indices of up to how_many peaks, the most prominent first: a peak stands
// out from the lowest points between it and any higher point by at least
// min_prominence.
std::vector<size_t> find_peaks(const std::vector<double> &values, size_t how_many, double min_prominence);

void plot_spectrum(std::FILE *out, const std::vector<double> &wavelengths, const std::vector<double> &counts,
                   const PlotStyle &style);

}  // namespace kavrel::cli

#endif
