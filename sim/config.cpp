#include "config.h"

#include <cmath>
#include <cstring>

#include "cm2_instrument.h"
#include "nir_instrument.h"

namespace kavrel::sim {
namespace {

// A device of some other kind behind the bridge: it hears everything and
// answers nothing.
class SilentInstrument : public Instrument {
public:
    using Instrument::Instrument;

protected:
    void parse(std::vector<uint8_t> &pending, double) override { pending.clear(); }
};

template <size_t N>
void put(char (&field)[N], const char *text) {
    std::strncpy(field, text, N - 1);
    field[N - 1] = '\0';
}

template <size_t N>
bool terminated(const char (&field)[N]) {
    return std::memchr(field, '\0', N) != nullptr;
}

}  // namespace

bool default_config(uint32_t instrument, kavrel_sim_config &c) {
    c = kavrel_sim_config{};
    c.instrument = instrument;
    c.bridge_speed = KAVREL_SIM_FULL_SPEED;
    switch (instrument) {
        case KAVREL_SIM_CM2: {
            put(c.description, "Kavrel simulated CM2 spectrometer");
            put(c.model, "KSIM-CM2-2048");
            put(c.serial_number, "KSIM-C0001");
            put(c.hardware_version, "01.04.00.02");
            c.point_count = 2048;
            // About 190 to 1100 nm, the dispersion falling slightly towards
            // the red as a grating's does.
            const double coefficients[4] = {189.7, 0.49, -2.5e-5, 1.5e-9};
            std::memcpy(c.coefficients, coefficients, sizeof coefficients);
            c.temperature_c = 25.0;
            c.seed = 1;
            return true;
        }
        case KAVREL_SIM_NIR: {
            put(c.description, "Kavrel simulated NIR spectrometer");
            put(c.model, "NIR-T1-0256");
            put(c.serial_number, "KSIM-N0002");
            put(c.hardware_version, "KSIM NIR 2.3");
            c.point_count = 256;
            // About 900 to 1700 nm.
            const double coefficients[4] = {899.2, 3.41, -1.2e-3, 5e-7};
            std::memcpy(c.coefficients, coefficients, sizeof coefficients);
            // A cooled InGaAs detector.
            c.temperature_c = -10.0;
            c.seed = 2;
            return true;
        }
        case KAVREL_SIM_SILENT: put(c.description, "Kavrel simulated silent device"); return true;
        default: return false;
    }
}

bool valid_config(const kavrel_sim_config &c) {
    if (!terminated(c.chip_serial) || !terminated(c.description) || !terminated(c.model) ||
        !terminated(c.serial_number) || !terminated(c.hardware_version))
        return false;
    if (c.chip_serial[0] == '\0' || c.bridge_speed > KAVREL_SIM_HIGH_SPEED || c.reserved != 0) return false;
    for (double k : c.coefficients)
        if (!std::isfinite(k)) return false;
    if (!std::isfinite(c.temperature_c) || c.temperature_c < -128.0 || c.temperature_c > 127.0) return false;
    switch (c.instrument) {
        case KAVREL_SIM_CM2: return Cm2Instrument::valid(c);
        case KAVREL_SIM_NIR: return NirInstrument::valid(c);
        case KAVREL_SIM_SILENT: return true;
        default: return false;
    }
}

std::unique_ptr<Instrument> make_instrument(const kavrel_sim_config &config, LineSink &line) {
    switch (config.instrument) {
        case KAVREL_SIM_CM2: return std::make_unique<Cm2Instrument>(config, line);
        case KAVREL_SIM_NIR: return std::make_unique<NirInstrument>(config, line);
        default: {
            kavrel_sim_config none = config;
            none.point_count = 0;
            return std::make_unique<SilentInstrument>(none, line);
        }
    }
}

Scene scene_from(const kavrel_sim_scene &s) {
    Scene scene;
    scene.lamp_lines = s.lamp_lines != 0;
    scene.shutter_closed = s.shutter_closed != 0;
    scene.continuum_level = s.continuum_level;
    scene.line_level = s.line_level;
    return scene;
}

kavrel_sim_scene scene_record(const Scene &scene) {
    return {scene.lamp_lines ? 1 : 0, scene.shutter_closed ? 1 : 0, scene.continuum_level, scene.line_level};
}

}  // namespace kavrel::sim
