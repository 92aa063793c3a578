#include "plot.h"

#include <algorithm>
#include <cmath>

#include "output.h"

namespace kavrel::cli {

std::vector<size_t> find_peaks(const std::vector<double> &values, size_t how_many, double min_prominence) {
    const size_t n = values.size();
    std::vector<std::pair<double, size_t>> found;  // prominence, index
    for (size_t i = 0; i < n; ++i) {
        const double v = values[i];
        // The first point of a plateau stands for it.
        if (i > 0 && values[i - 1] >= v) continue;
        if (i + 1 < n && values[i + 1] > v) continue;
        // Lowest point on each side before the ground rises above the peak.
        double left = v, right = v;
        for (size_t j = i; j-- > 0 && values[j] <= v;) left = std::min(left, values[j]);
        size_t k = i + 1;
        while (k < n && values[k] == v) ++k;
        for (; k < n && values[k] <= v; ++k) right = std::min(right, values[k]);
        // At an edge of the data the ground may fall further unseen: only the
        // inner side counts there.
        const bool at_left_edge = i == 0, at_right_edge = k == n && right == v;
        double base = std::max(left, right);
        if (at_left_edge) base = right;
        if (at_right_edge) base = left;
        const double prominence = v - base;
        if (prominence >= min_prominence && prominence > 0) found.emplace_back(prominence, i);
    }
    std::stable_sort(found.begin(), found.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
    std::vector<size_t> peaks;
    for (size_t p = 0; p < found.size() && p < how_many; ++p) peaks.push_back(found[p].second);
    return peaks;
}

namespace {

// One cell of the drawing: a glyph that may take several bytes in UTF-8.
using Grid = std::vector<std::vector<std::string>>;

std::string axis_number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f", value);
    return text;
}

std::string wavelength_label(double nm) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", nm);
    return text;
}

}  // namespace

void plot_spectrum(std::FILE *out, const std::vector<double> &wavelengths, const std::vector<double> &counts,
                   const PlotStyle &style) {
    const size_t n = std::min(wavelengths.size(), counts.size());
    if (n == 0) return;
    // Points in ascending wavelength, whatever the detector's order.
    std::vector<size_t> order(n);
    for (size_t i = 0; i < n; ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return wavelengths[a] < wavelengths[b]; });
    std::vector<double> wl(n), v(n);
    for (size_t i = 0; i < n; ++i) {
        wl[i] = wavelengths[order[i]];
        v[i] = counts[order[i]];
    }
    const double lo = std::min(0.0, *std::min_element(v.begin(), v.end()));
    double hi = *std::max_element(v.begin(), v.end());
    if (hi <= lo) hi = lo + 1;

    const std::string top_label = axis_number(hi), mid_label = axis_number((hi + lo) / 2), low_label = axis_number(lo);
    const size_t margin = std::max({top_label.size(), mid_label.size(), low_label.size()}) + 1;
    const int columns = std::max(10, std::min(style.width, 240) - static_cast<int>(margin) - 1);
    const size_t width = std::min(static_cast<size_t>(columns), n);
    const int height = std::max(4, style.height);
    const double w0 = wl.front(), w1 = wl.back();
    const double span = w1 > w0 ? w1 - w0 : 1.0;

    // Each column shows the highest point that falls into it, so that a
    // narrow line is never averaged away.
    std::vector<double> column(width, lo);
    std::vector<bool> filled(width, false);
    auto column_of = [&](double w) {
        const auto c = static_cast<size_t>((w - w0) / span * static_cast<double>(width));
        return std::min(c, width - 1);
    };
    for (size_t i = 0; i < n; ++i) {
        const size_t c = column_of(wl[i]);
        column[c] = filled[c] ? std::max(column[c], v[i]) : v[i];
        filled[c] = true;
    }
    for (size_t c = 1; c < width; ++c)
        if (!filled[c]) column[c] = column[c - 1];

    // Eighths of a row, so block characters draw the top of each column.
    const std::vector<std::string> blocks =
        style.utf8 ? std::vector<std::string>{" ", "\u2581", "\u2582", "\u2583", "\u2584", "\u2585", "\u2586",
                                              "\u2587", "\u2588"}
                   : std::vector<std::string>{" ", ".", ".", ".", ":", ":", ":", ":", "#"};
    constexpr int kLabelRows = 2;  // above the chart, for the labels of the tallest peaks
    const int rows = height + kLabelRows;
    Grid grid(static_cast<size_t>(rows), std::vector<std::string>(width, " "));
    std::vector<int> top_row(width);
    for (size_t c = 0; c < width; ++c) {
        const int level = static_cast<int>(std::lround((column[c] - lo) / (hi - lo) * height * 8));
        top_row[c] = rows;
        for (int r = 0; r < height; ++r) {
            const int fill = std::clamp(level - (height - 1 - r) * 8, 0, 8);
            grid[static_cast<size_t>(r + kLabelRows)][c] = blocks[static_cast<size_t>(fill)];
            if (fill > 0) top_row[c] = std::min(top_row[c], r + kLabelRows);
        }
    }

    // Peaks labelled with their wavelength just above their column, moved up
    // when the place is taken.
    const std::vector<size_t> peaks = find_peaks(v, style.peaks, (hi - lo) * 0.05);
    std::vector<std::string> legend;
    for (size_t p : peaks) {
        const std::string label = wavelength_label(wl[p]);
        legend.push_back(label + " nm (" + axis_number(v[p]) + ")");
        const size_t c = column_of(wl[p]);
        if (label.size() > width) continue;
        // Every place that keeps the label over its column, nearest the
        // middle first, in the lowest row where one is free.
        std::vector<size_t> starts;
        const size_t lowest = c + 1 >= label.size() ? c + 1 - label.size() : 0;
        const size_t centred = std::min(c >= label.size() / 2 ? c - label.size() / 2 : 0, width - label.size());
        for (size_t shift = 0; shift < label.size(); ++shift) {
            for (const size_t start : {centred - std::min(centred, shift), centred + shift})
                if (start >= lowest && start <= c && start + label.size() <= width &&
                    std::find(starts.begin(), starts.end(), start) == starts.end())
                    starts.push_back(start);
        }
        bool placed = false;
        for (int r = top_row[c] - 1; r >= 0 && !placed; --r) {
            auto &row = grid[static_cast<size_t>(r)];
            for (const size_t start : starts) {
                bool free = true;
                // One blank on each side keeps neighbouring labels apart.
                for (size_t k = start == 0 ? 0 : start - 1; k < std::min(width, start + label.size() + 1); ++k)
                    free = free && row[k] == " ";
                if (!free) continue;
                for (size_t k = 0; k < label.size(); ++k) row[start + k] = std::string(1, label[k]);
                placed = true;
                break;
            }
        }
    }

    const char *axis = style.utf8 ? "\u2502" : "|";
    const char *tick = style.utf8 ? "\u2524" : "+";
    if (!style.title.empty()) std::fprintf(out, "%s\n", style.title.c_str());
    for (int r = 0; r < rows; ++r) {
        const int chart_row = r - kLabelRows;
        std::string label;
        if (chart_row == 0) label = top_label;
        if (chart_row == height / 2) label = mid_label;
        if (chart_row == height - 1) label = low_label;
        std::string line(margin - 1 - label.size(), ' ');
        line += label + " ";
        line += chart_row < 0 ? " " : (label.empty() ? axis : tick);
        for (const std::string &cell : grid[static_cast<size_t>(r)]) line += cell;
        while (!line.empty() && line.back() == ' ') line.pop_back();
        std::fprintf(out, "%s\n", line.c_str());
    }
    // The wavelength axis: ticks at both ends and in the middle.
    std::string axis_line(margin, ' ');
    axis_line += style.utf8 ? "\u2514" : "+";
    for (size_t c = 0; c < width; ++c) {
        const bool is_tick = c == 0 || c == width / 2 || c == width - 1;
        axis_line += is_tick ? (style.utf8 ? "\u252C" : "+") : (style.utf8 ? "\u2500" : "-");
    }
    std::fprintf(out, "%s\n", axis_line.c_str());
    const std::string left = wavelength_label(w0), middle = wavelength_label(w0 + span / 2),
                      right = wavelength_label(w1) + " nm";
    std::string labels(margin + 1 + width + 4, ' ');
    auto put = [&](size_t at, const std::string &text) {
        at = std::min(at, labels.size() - text.size());
        labels.replace(at, text.size(), text);
    };
    put(margin + 1, left);
    put(margin + 1 + width / 2 - std::min(width / 2, middle.size() / 2), middle);
    put(margin + 1 + width - std::min(width, right.size() - 3), right);
    while (!labels.empty() && labels.back() == ' ') labels.pop_back();
    std::fprintf(out, "%s\n", labels.c_str());
    if (!legend.empty()) {
        std::string text = "peaks:";
        for (size_t i = 0; i < legend.size(); ++i) text += (i == 0 ? " " : ", ") + legend[i];
        std::fprintf(out, "%s\n", text.c_str());
    }
}

}  // namespace kavrel::cli
