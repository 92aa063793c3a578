#include "nir_instrument.h"

#include <cstdlib>
#include <algorithm>
#include <cstring>

#include "protocol/byte_order.h"
#include "transport/nir_exchange.h"

namespace kavrel::sim {
namespace {

constexpr uint8_t kAck = 0x06;
constexpr uint8_t kRefuse = 0x15;
constexpr size_t kCrcBytes = 2;

constexpr uint8_t kQuery = 0x3F;  // '?', then the byte of the matching set command
constexpr uint8_t kVersion = 0x56;
constexpr uint8_t kTemperature = 0x74;
constexpr uint8_t kModel = 0xBB;
constexpr uint8_t kCoefficients = 0x78;
constexpr uint8_t kSpectrum = 0x53;  // '?S' is the wavelength table
constexpr uint8_t kReset = 0x52;
constexpr uint8_t kIntegration = 0x69;
constexpr uint8_t kAverages = 0x41;
constexpr uint8_t kLevel = 0x40;
constexpr uint8_t kWriteProtect = 0xA5;
constexpr uint8_t kFlashPage = 0xAF;
constexpr uint8_t kWriteOpen = 0xEA;

constexpr size_t kPageWriteHead = 3;  // command byte, page number
// The longest command the host can send, with its CRC.
constexpr size_t kMaxFrame = static_cast<size_t>(kNirMaxCommand) + kCrcBytes;
constexpr size_t kMaxVersionText = 20;

// Spectra travel between a start and an end mark.
constexpr uint8_t kStartMark[] = {0xAA, 0x55, 0xBB, 0x44, 0xCC, 0x33, 0xDD, 0x22};
constexpr uint8_t kEndMark[] = {0xDD, 0xDD, 0xAA, 0xAA};

// Command bytes of a frame with a fixed length, 0 for an unknown command, -1
// when more bytes must come to tell.
long command_length(const std::vector<uint8_t> &b) {
    switch (b[0]) {
        case kVersion:
        case kTemperature:
        case kModel:
        case kCoefficients:
        case kSpectrum:
        case kReset: return 1;
        case kLevel:
        case kWriteProtect: return 2;
        case kAverages: return 3;
        case kIntegration: return 5;
        case kQuery:
            if (b.size() < 2) return -1;
            switch (b[1]) {
                case kIntegration:
                case kAverages:
                case kLevel:
                case kWriteProtect:
                case kSpectrum: return 2;
                case kFlashPage: return 4;
                default: return 0;
            }
        default: return 0;
    }
}

bool crc_matches(const uint8_t *frame, size_t command_bytes) {
    const uint16_t crc = nir_crc16(frame, command_bytes);
    return load_be16(frame + command_bytes) == crc;
}

// A page write has no length of its own: it ends with the host's write, where
// the last two bytes received are the CRC of those before them. 0 while they
// are not.
size_t page_write_length(const std::vector<uint8_t> &b) {
    if (b.size() < kPageWriteHead + 1 + kCrcBytes || b.size() > kMaxFrame) return 0;
    return crc_matches(b.data(), b.size() - kCrcBytes) ? b.size() : 0;
}

bool parse_model(const char *text, unsigned &type, unsigned &number) {
    if (std::strncmp(text, "NIR-T", 5) != 0) return false;
    char *end = nullptr;
    const unsigned long t = std::strtoul(text + 5, &end, 10);
    if (end == text + 5 || t > 15 || *end != '-') return false;
    const char *hex = end + 1;
    const unsigned long n = std::strtoul(hex, &end, 16);
    if (end == hex || end - hex > 4 || *end != '\0') return false;
    type = static_cast<unsigned>(t);
    number = static_cast<unsigned>(n);
    return true;
}

std::vector<uint8_t> framed(uint8_t first, const std::vector<uint8_t> &data) {
    // Sized once and filled: g++ 12 at -O3 takes push_back after insert
    // for a free of a non-heap pointer (-Wfree-nonheap-object).
    std::vector<uint8_t> out(data.size() + 3);
    out[0] = first;
    std::copy(data.begin(), data.end(), out.begin() + 1);
    const uint16_t crc = nir_crc16(out.data(), data.size() + 1);
    out[data.size() + 1] = static_cast<uint8_t>(crc >> 8);
    out[data.size() + 2] = static_cast<uint8_t>(crc);
    return out;
}

}  // namespace

NirInstrument::NirInstrument(const kavrel_sim_config &config, LineSink &line) : Instrument(config, line) {
    parse_model(config.model, model_type_, model_number_);
}

bool NirInstrument::valid(const kavrel_sim_config &c) {
    unsigned type, number;
    return c.instrument == KAVREL_SIM_NIR && c.point_count >= 1 && c.point_count <= 1024 &&
           std::strlen(c.hardware_version) <= kMaxVersionText && parse_model(c.model, type, number);
}

void NirInstrument::parse(std::vector<uint8_t> &pending, double at_ms) {
    while (!pending.empty()) {
        size_t frame;
        bool crc_ok = true;
        if (pending[0] == kFlashPage) {
            frame = page_write_length(pending);
            if (frame == 0) {
                if (pending.size() < kMaxFrame) return;
                pending.erase(pending.begin());  // no frame can be that long
                continue;
            }
        } else {
            const long n = command_length(pending);
            if (n < 0) return;
            if (n == 0) {
                pending.erase(pending.begin());
                continue;
            }
            frame = static_cast<size_t>(n) + kCrcBytes;
            if (pending.size() < frame) return;
            crc_ok = crc_matches(pending.data(), frame - kCrcBytes);
        }
        handle(pending.data(), frame - kCrcBytes, crc_ok, at_ms);
        pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(frame));
    }
}

void NirInstrument::handle(const uint8_t *command, size_t length, bool crc_ok, double at_ms) {
    const ReplyFaults f = faults().next_request();
    const double now = begin(at_ms);
    if (f.no_answer) {
        swallow(now);
        return;
    }
    std::vector<uint8_t> data;
    double ready = now;
    bool reset_after = false;
    const bool accepted = crc_ok && !f.nir_refuse && execute(command, length, data, now, ready, reset_after);
    send(accepted ? framed(kAck, data) : framed(kRefuse, {}), ready, f);
    if (reset_after) reset();
}

bool NirInstrument::execute(const uint8_t *c, size_t length, std::vector<uint8_t> &data, double now,
                            double &ready, bool &reset_after) {
    Settings &s = settings_;
    switch (c[0]) {
        case kVersion: {
            const char *text = config().hardware_version;
            data.assign(text, text + std::strlen(text));
            return true;
        }
        case kTemperature: {
            const uint16_t raw = nir_temperature();
            data = {static_cast<uint8_t>(raw >> 8), static_cast<uint8_t>(raw)};
            return true;
        }
        case kModel:
            // The type in the low nibble of byte 0, the number in bytes 3-4.
            data = {static_cast<uint8_t>(model_type_),   0, 0, static_cast<uint8_t>(model_number_ >> 8),
                    static_cast<uint8_t>(model_number_), 0, 0, 0};
            return true;
        case kCoefficients: data = coefficient_bytes(); return true;
        case kSpectrum: {
            const std::vector<uint16_t> samples = acquire(now, ready);
            data.assign(std::begin(kStartMark), std::end(kStartMark));
            for (uint16_t v : samples) {
                data.push_back(static_cast<uint8_t>(v >> 8));
                data.push_back(static_cast<uint8_t>(v));
            }
            data.insert(data.end(), std::begin(kEndMark), std::end(kEndMark));
            return true;
        }
        case kReset: reset_after = true; return true;
        case kIntegration: s.integration_us = load_be32(c + 1); return true;
        case kAverages: s.averages = load_be16(c + 1); return true;
        case kLevel: s.level = c[1]; return true;
        case kWriteProtect: s.write_open = c[1] == kWriteOpen; return true;
        case kFlashPage: {
            const size_t bytes = length - kPageWriteHead;
            if (!s.write_open || bytes > kFlashPageBytes) return false;
            std::memcpy(page(load_be16(c + 1)).data(), c + kPageWriteHead, bytes);
            return true;
        }
        default: break;
    }
    // The queries: '?' and the byte of the matching set command.
    switch (c[1]) {
        case kIntegration:
            data.resize(4);
            store_be32(data.data(), s.integration_us);
            return true;
        case kAverages:
            data.resize(2);
            store_be16(data.data(), s.averages);
            return true;
        case kLevel: data = {s.level}; return true;
        case kWriteProtect: data = {static_cast<uint8_t>(s.write_open ? kWriteOpen : 0)}; return true;
        case kSpectrum: data = wavelength_bytes(0, optics().points()); return true;
        case kFlashPage: data = page(load_be16(c + 2)); return true;
        default: return false;
    }
}

}  // namespace kavrel::sim
