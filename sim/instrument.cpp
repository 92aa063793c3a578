#include "instrument.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kavrel::sim {
namespace {

// Decoding a request and preparing a short answer.
constexpr double kCommandMs = 0.2;
// A request cut off by this much silence is abandoned.
constexpr double kReceiveTimeoutMs = 50.0;
constexpr double kCm2DegreesPerCount = 0.0625;

Detector detector_for(const kavrel_sim_config &config) {
    return config.instrument == KAVREL_SIM_NIR ? Detector::ingaas() : Detector::silicon();
}

}  // namespace

Instrument::Instrument(const kavrel_sim_config &config, LineSink &line)
    : config_(config),
      line_(line),
      optics_(config.coefficients, config.point_count, detector_for(config)),
      noise_(config.seed) {
    // A 12-byte field, zero-padded, with no terminator when full.
    const char *serial = config.serial_number;
    std::copy(serial, std::find(serial, serial + sizeof stored_.serial, '\0'), stored_.serial);
}

void Instrument::receive(const uint8_t *bytes, size_t count, double at_ms) {
    if (!pending_.empty() && at_ms - last_byte_ms_ > kReceiveTimeoutMs) pending_.clear();
    pending_.insert(pending_.end(), bytes, bytes + count);
    last_byte_ms_ = at_ms;
    parse(pending_, at_ms);
}

double Instrument::begin(double at_ms) const {
    return std::max(at_ms, busy_until_) + kCommandMs;
}

void Instrument::send(std::vector<uint8_t> reply, double ready_ms, const ReplyFaults &f) {
    if (f.no_answer) {
        swallow(ready_ms);
        return;
    }
    ready_ms += f.delay_ms;
    if (f.bad_crc && !reply.empty()) reply.back() ^= 0x5A;
    if (f.truncate_to && *f.truncate_to < reply.size()) reply.resize(*f.truncate_to);
    const double spacing = f.trickle_ms && *f.trickle_ms > 0 ? *f.trickle_ms : line_.byte_ms();
    const size_t count = reply.size();
    if (count > 0) line_.emit(std::move(reply), ready_ms + line_.byte_ms(), spacing);
    busy_until_ = ready_ms + static_cast<double>(count) * spacing;
}

std::vector<uint16_t> Instrument::acquire(double start_ms, double &done_ms) {
    const Exposure exposure{settings_.integration_us / 1000.0, settings_.averages, config_.temperature_c};
    const double scans = settings_.averages == 0 ? 1 : settings_.averages;
    done_ms = start_ms + exposure.integration_ms * scans + optics_.detector().readout_ms(optics_.points());
    ++spectra_taken_;
    return optics_.acquire(exposure, scene_, noise_);
}

std::vector<uint8_t> Instrument::wavelength_bytes(uint32_t first, uint32_t count) const {
    std::vector<uint8_t> out(4 * static_cast<size_t>(count));
    for (uint32_t i = 0; i < count; ++i) {
        const auto value = static_cast<float>(optics_.wavelength(first + i));
        uint32_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        for (int b = 0; b < 4; ++b) out[4 * i + b] = static_cast<uint8_t>(bits >> (8 * b));
    }
    return out;
}

std::vector<uint8_t> Instrument::coefficient_bytes() const {
    std::vector<uint8_t> out(32);
    for (int k = 0; k < 4; ++k) {
        uint64_t bits;
        std::memcpy(&bits, &config_.coefficients[k], sizeof bits);
        for (int b = 0; b < 8; ++b) out[8 * k + b] = static_cast<uint8_t>(bits >> (56 - 8 * b));
    }
    return out;
}

void Instrument::reset() {
    settings_ = Settings{};
    settings_.integration_us = stored_.integration_us;
    settings_.averages = stored_.averages == 0 ? 1 : stored_.averages;
}

std::vector<uint8_t> &Instrument::page(uint16_t number) {
    auto it = flash_.find(number);
    if (it == flash_.end())
        it = flash_.emplace(number, std::vector<uint8_t>(kFlashPageBytes, kErasedFlash)).first;
    return it->second;
}

uint16_t Instrument::cm2_temperature() const {
    const double counts = std::round(config_.temperature_c / kCm2DegreesPerCount);
    return static_cast<uint16_t>(std::clamp(counts, 0.0, 65535.0));
}

uint16_t Instrument::nir_temperature() const {
    const auto counts = static_cast<int32_t>(std::lround(config_.temperature_c / kCm2DegreesPerCount));
    if (counts >= 0) return static_cast<uint16_t>(std::min(counts, 0x7FF));
    // Below zero: the two's complement, whose top five bits are then all set
    // down to -128 degrees.
    return static_cast<uint16_t>(65536 + std::max(counts, -2048));
}

}  // namespace kavrel::sim
