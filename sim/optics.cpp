#include "optics.h"

#include <algorithm>
#include <cmath>

namespace kavrel::sim {
namespace {

// Second radiation constant hc/k in nm K, and the halogen filament.
constexpr double kPlanckC2 = 1.438777e7;
constexpr double kHalogenKelvin = 3000.0;
constexpr double kFwhmPerSigma = 2.3548200450309493;  // 2 sqrt(2 ln 2)
// A line's wings are negligible beyond this many sigma.
constexpr double kLineReachSigma = 6.0;
constexpr double kFullScale = 65535.0;

double logistic(double x) {
    return 1.0 / (1.0 + std::exp(-x));
}

double blackbody(double nm) {
    return 1.0 / (std::pow(nm, 5) * (std::exp(kPlanckC2 / (nm * kHalogenKelvin)) - 1.0));
}

void normalise_peak(std::vector<double> &values) {
    const double peak = values.empty() ? 0.0 : *std::max_element(values.begin(), values.end());
    if (peak > 0)
        for (double &v : values) v /= peak;
}

}  // namespace

const std::vector<EmissionLine> &mercury_argon_lines() {
    // Air wavelengths of Hg I and Ar I. The strengths are those of a small
    // pen-ray lamp relative to Hg 546.07 nm, rounded; the near-infrared ones
    // relative to each other matter more than to the visible ones.
    static const std::vector<EmissionLine> lines = {
        {253.652, 0.80},   {296.728, 0.04},   {302.150, 0.03},   {313.155, 0.12},   {334.148, 0.03},
        {365.015, 0.35},   {404.656, 0.30},   {407.783, 0.04},   {435.833, 0.75},   {546.074, 1.00},
        {576.960, 0.10},   {579.066, 0.11},   {696.543, 0.06},   {706.722, 0.02},   {714.704, 0.005},
        {727.294, 0.012},  {738.398, 0.015},  {750.387, 0.05},   {751.465, 0.02},   {763.511, 0.06},
        {772.376, 0.03},   {794.818, 0.015},  {800.616, 0.012},  {801.479, 0.01},   {810.369, 0.015},
        {811.531, 0.04},   {826.452, 0.025},  {840.821, 0.01},   {842.465, 0.02},   {852.144, 0.008},
        {866.794, 0.002},  {912.297, 0.03},   {922.450, 0.006},  {965.779, 0.01},   {978.450, 0.002},
        {1013.976, 0.02},  {1047.005, 0.006}, {1067.357, 0.008}, {1128.741, 0.006}, {1148.811, 0.01},
        {1166.871, 0.004}, {1211.233, 0.006}, {1243.932, 0.006}, {1270.228, 0.008}, {1295.666, 0.01},
        {1300.826, 0.008}, {1327.264, 0.012}, {1331.321, 0.008}, {1336.711, 0.012}, {1350.419, 0.01},
        {1357.021, 0.004}, {1367.351, 0.006}, {1371.858, 0.008}, {1395.055, 0.004}, {1409.364, 0.006},
        {1504.650, 0.006}, {1529.582, 0.01},  {1694.058, 0.004},
    };
    return lines;
}

Detector Detector::silicon() {
    return {Kind::silicon, 1.2, 1000.0, 0.4, 6.0, 2.0, 6.0, 0.002};
}

Detector Detector::ingaas() {
    return {Kind::ingaas, 7.0, 2000.0, 30.0, 7.0, 4.0, 12.0, 0.01};
}

double Detector::response(double nm) const {
    if (kind == Kind::silicon) {
        // A broad hump over the visible; the optics cut the deep UV and
        // silicon stops absorbing towards 1100 nm.
        const double hump = std::exp(-0.5 * std::pow((nm - 600.0) / 280.0, 2));
        return hump * logistic((nm - 220.0) / 15.0) * logistic((1030.0 - nm) / 22.0);
    }
    // InGaAs: a sharp onset near 940 nm, a slow rise, the cut-off near 1670.
    return logistic((nm - 940.0) / 12.0) * logistic((1670.0 - nm) / 14.0) *
           (0.75 + 0.25 * (nm - 900.0) / 800.0);
}

Optics::Optics(const double (&c)[4], uint32_t points, const Detector &detector)
    : detector_(detector), wavelength_(points), continuum_(points), lines_(points, 0.0) {
    for (uint32_t i = 0; i < points; ++i) {
        const double x = i;
        wavelength_[i] = c[0] + x * (c[1] + x * (c[2] + x * c[3]));
        continuum_[i] = blackbody(wavelength_[i]) * detector_.response(wavelength_[i]);
    }
    normalise_peak(continuum_);

    const double sigma = detector_.line_fwhm_nm / kFwhmPerSigma;
    const auto [lo, hi] = std::minmax_element(wavelength_.begin(), wavelength_.end());
    double strongest = 0.0;
    for (const EmissionLine &line : mercury_argon_lines()) {
        if (points == 0 || line.nm < *lo - kLineReachSigma * sigma || line.nm > *hi + kLineReachSigma * sigma)
            continue;
        const double seen = line.relative * detector_.response(line.nm);
        strongest = std::max(strongest, seen);
        for (uint32_t i = 0; i < points; ++i) {
            const double d = (wavelength_[i] - line.nm) / sigma;
            if (std::fabs(d) < kLineReachSigma) lines_[i] += seen * std::exp(-0.5 * d * d);
        }
    }
    if (strongest > 0)
        for (double &v : lines_) v /= strongest;
}

double Optics::dark_rate_per_ms(double temperature_c) const {
    return detector_.dark_per_ms_25c * std::exp2((temperature_c - 25.0) / detector_.dark_doubling_c);
}

double Optics::mean_counts(uint32_t point, const Exposure &e, const Scene &scene) const {
    double light = 0.0;
    if (!scene.shutter_closed) {
        light = scene.continuum_level * continuum_[point];
        if (scene.lamp_lines) light += scene.line_level * lines_[point];
    }
    return detector_.dark_offset + e.integration_ms * (light + dark_rate_per_ms(e.temperature_c));
}

std::vector<uint16_t> Optics::acquire(const Exposure &e, const Scene &scene, std::mt19937_64 &noise) const {
    const double scans = e.averages == 0 ? 1.0 : e.averages;
    const double read_variance = detector_.read_noise * detector_.read_noise;
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::vector<uint16_t> counts(wavelength_.size());
    for (uint32_t i = 0; i < points(); ++i) {
        const double mean = mean_counts(i, e, scene);
        // Shot noise follows the collected charge, light and dark current
        // alike; the offset is electronic and carries only read noise.
        const double charge = std::max(0.0, mean - detector_.dark_offset);
        const double sigma = std::sqrt((charge / detector_.electrons_per_count + read_variance) / scans);
        const double value = std::round(mean + sigma * gauss(noise));
        counts[i] = static_cast<uint16_t>(std::clamp(value, 0.0, kFullScale));
    }
    return counts;
}

}  // namespace kavrel::sim
