// What a simulated spectrometer sees and how its detector turns it into
// counts.
//
// The wavelength of detector point i is a cubic in i from the instrument's
// four calibration coefficients. The light is a mercury-argon calibration
// lamp over a halogen continuum: emission lines at their true wavelengths,
// widened to the instrument's line width, on a 3000 K blackbody, seen through
// the detector's response curve. The detector adds a dark offset and a dark
// current that grows with integration time and doubles every few degrees,
// shot noise and read noise from a seeded generator; averaging n scans
// divides the noise by the square root of n, and counts clip at 65535.
#ifndef KAVREL_SIM_OPTICS_H
#define KAVREL_SIM_OPTICS_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace kavrel::sim {

// One emission line of the lamp: its wavelength in air and its strength
// relative to the lamp's other lines.
struct EmissionLine {
    double nm;
    double relative;
};

// The mercury and argon lines of the calibration lamp, in nanometres.
const std::vector<EmissionLine> &mercury_argon_lines();

// What reaches the detector.
struct Scene {
    bool lamp_lines = true;
    bool shutter_closed = false;
    double continuum_level = 250.0;  // counts per ms at the continuum's peak
    double line_level = 4000.0;      // counts per ms at the strongest line's peak
};

// The detector behind the grating: silicon for the UV-visible instruments,
// InGaAs for the near infrared.
struct Detector {
    enum class Kind { silicon, ingaas };
    Kind kind;
    double line_fwhm_nm;     // the instrument's line width
    double dark_offset;      // counts at zero integration time
    double dark_per_ms_25c;  // dark current, counts per ms at 25 degrees
    double dark_doubling_c;  // degrees per doubling of the dark current
    double electrons_per_count;
    double read_noise;  // counts rms per scan
    double readout_ms_per_point;

    static Detector silicon();
    static Detector ingaas();
    // Relative response at a wavelength, at most 1.
    double response(double nm) const;
    // Time to read the detector out once.
    double readout_ms(uint32_t points) const { return 1.0 + readout_ms_per_point * points; }
};

struct Exposure {
    double integration_ms;
    uint32_t averages;  // 0 counts as 1
    double temperature_c;
};

class Optics {
public:
    Optics(const double (&coefficients)[4], uint32_t points, const Detector &detector);

    uint32_t points() const { return static_cast<uint32_t>(wavelength_.size()); }
    const Detector &detector() const { return detector_; }
    double wavelength(uint32_t point) const { return wavelength_[point]; }
    // The counts a scan would give without noise.
    double mean_counts(uint32_t point, const Exposure &exposure, const Scene &scene) const;
    // One spectrum: the mean of exposure.averages noisy scans.
    std::vector<uint16_t> acquire(const Exposure &exposure, const Scene &scene, std::mt19937_64 &noise) const;

private:
    double dark_rate_per_ms(double temperature_c) const;

    Detector detector_;
    std::vector<double> wavelength_;
    std::vector<double> continuum_;  // blackbody through the response, peak 1
    std::vector<double> lines_;      // lamp lines through the response, strongest 1
};

}  // namespace kavrel::sim

#endif
