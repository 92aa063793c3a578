// A simulated spectrometer: the state both protocols reach, the timing of its
// answers, and the faults it commits on request.
//
// An instrument receives the bytes the host wrote, as a byte stream would
// carry them (split or joined anywhere), and schedules the bytes it sends
// back on its line, each with the time it leaves. It never calls into the
// library, and it has no clock of its own: every input carries its time, so
// the same model runs in real time and in virtual time.
//
// It answers one request at a time, in order: a request that arrives while
// the instrument integrates or still sends an earlier reply waits its turn.
// A partial request followed by a long silence is forgotten, as a real
// instrument's receive timeout would.
#ifndef KAVREL_SIM_INSTRUMENT_H
#define KAVREL_SIM_INSTRUMENT_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include "faults.h"
#include "kavrel_sim.h"
#include "optics.h"

namespace kavrel::sim {

// Where an instrument's bytes go: into a bridge chip's receive buffer in the
// in-process world, onto a byte stream in the server.
class LineSink {
public:
    virtual ~LineSink() = default;
    // Milliseconds one byte takes on the line at its normal rate.
    virtual double byte_ms() const = 0;
    // The bytes leave the instrument one after another: the first is
    // complete at first_ms, each next one spacing_ms later.
    virtual void emit(std::vector<uint8_t> bytes, double first_ms, double spacing_ms) = 0;
};

// Flash memory pages, as both protocols move them.
constexpr size_t kFlashPageBytes = 1024;
constexpr uint8_t kErasedFlash = 0xFF;

class Instrument {
public:
    Instrument(const kavrel_sim_config &config, LineSink &line);
    virtual ~Instrument() = default;
    Instrument(const Instrument &) = delete;
    Instrument &operator=(const Instrument &) = delete;

    // Bytes the host wrote; the last of them reaches the instrument at at_ms.
    void receive(const uint8_t *bytes, size_t count, double at_ms);

    const kavrel_sim_config &config() const { return config_; }
    const Optics &optics() const { return optics_; }
    Faults &faults() { return faults_; }
    void set_scene(const Scene &scene) { scene_ = scene; }

protected:
    // Takes complete requests from the front of the receive buffer; leaves a
    // partial one for later bytes.
    virtual void parse(std::vector<uint8_t> &pending, double at_ms) = 0;

    // When a request that reached the instrument at at_ms has been taken up
    // and decoded.
    double begin(double at_ms) const;
    // Sends a reply ready at ready_ms, damaged as the faults say.
    void send(std::vector<uint8_t> reply, double ready_ms, const ReplyFaults &faults);
    // A request swallowed: no reply, the instrument is free at done_ms.
    void swallow(double done_ms) { busy_until_ = done_ms; }

    // A spectrum with the current settings, integration starting at
    // start_ms; done_ms receives the end of the readout.
    std::vector<uint16_t> acquire(double start_ms, double &done_ms);
    // count wavelength table entries from first on, each a float sent least
    // significant byte first.
    std::vector<uint8_t> wavelength_bytes(uint32_t first, uint32_t count) const;
    // The four calibration coefficients, doubles sent most significant byte
    // first.
    std::vector<uint8_t> coefficient_bytes() const;
    // Back to the power-up state: settings from the stored values, write
    // protection closed, page buffer and command blocks idle.
    virtual void reset();
    std::vector<uint8_t> &page(uint16_t number);
    // Raw temperature words: CM2 counts 1/16 degree, unsigned; NIR keeps 11
    // bits and marks temperatures below zero with the top five bits set.
    uint16_t cm2_temperature() const;
    uint16_t nir_temperature() const;

    // Settings the protocols read and write.
    struct Settings {
        uint32_t integration_us = 10000;
        uint16_t averages = 1;
        uint8_t level = 0;
        uint32_t xenon_pulse[2] = {0, 0};
        uint8_t xenon_mode = 0;
        uint16_t usb_baud = 0x0030;
        uint8_t trigger[3] = {0, 0, 0};
        uint16_t dac = 0;
        bool write_open = false;
    };
    // Kept across resets and power cycles, for the life of the process.
    struct Stored {
        uint32_t integration_us = 10000;
        uint8_t averages = 1;
        uint8_t smoothing = 0;
        uint8_t slit_um = 25;
        char serial[12] = {};
    };
    Settings settings_;
    Stored stored_;
    uint64_t spectra_taken_ = 0;

private:
    kavrel_sim_config config_;
    LineSink &line_;
    Optics optics_;
    Scene scene_;
    Faults faults_;
    std::mt19937_64 noise_;
    std::map<uint16_t, std::vector<uint8_t>> flash_;
    std::vector<uint8_t> pending_;
    double last_byte_ms_ = 0;
    double busy_until_ = 0;
};

}  // namespace kavrel::sim

#endif
