#include "cm2_instrument.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol/byte_order.h"
#include "protocol/cm2_codec.h"

namespace kavrel::sim {

enum class Cm2Instrument::Item : uint8_t {
    integration_time,
    xenon_pulse,
    xenon_mode,
    average_number,
    level_output,
    write_protection,
    reset,
    coefficients,
    temperature,
    hardware_version,
    usb_baud_rate,
    detector_serial,
    model,
    flash_block,
    external_block,
    usb_status,
    trigger,
    capture_status,
    dac,
    stored_integration_time,
    stored_average,
    stored_smoothing,
    slit_width,
    serial_number,
    point_count,
};

namespace {

using Item = Cm2Instrument::Item;

constexpr uint8_t kRegControl = 0xC1;
constexpr uint8_t kRegStored = 0xC2;
constexpr uint8_t kRegWavelength = 0xC5;
constexpr uint8_t kRegSpectrum = 0xC6;
constexpr uint8_t kRegPageBuffer = 0xC7;

constexpr uint8_t kPreambleByte = 0xAA;
constexpr uint8_t kPreambleLast = 0xAB;
constexpr size_t kPreambleBytes = 8;
// The largest packet either side accepts: 16384 bytes.
constexpr uint32_t kMaxWords = (cm2::kMaxPacketBytes - cm2::kMinPacketBytes) / 4;
constexpr uint32_t kPageBufferWords = kFlashPageBytes / 4;

// Status nibbles of a reply's ANS field.
constexpr uint8_t kStatusNormal = 0x0;
constexpr uint8_t kStatusForbidden = 0xE;
constexpr uint8_t kStatusFailed = 0xB;

// Command blocks: byte 1 as the host writes it and as the instrument reports.
constexpr uint8_t kPending = 0xDD;
constexpr uint8_t kDone = 0xAA;
constexpr uint8_t kFailed = 0xEE;
constexpr uint8_t kReadPage = 0xC0;
constexpr uint8_t kWritePage = 0xCF;
// Copying a page between flash and buffer, and programming one.
constexpr double kPageReadMs = 30.0;
constexpr double kPageWriteMs = 80.0;
// Short answers made ready after integrating or after reading held data.
constexpr double kHeldSpectrumMs = 0.5;

constexpr uint8_t kWriteOpen = 0xEA;
constexpr uint8_t kResetCommand = 0xAA;
constexpr uint8_t kUsbStatusSet = 0xAA;

// The register map: where each item sits, how many words it spans and
// whether the host may write it.
struct MapEntry {
    uint8_t reg;
    uint32_t address;
    uint32_t words;
    bool writable;
    Item item;
};

constexpr MapEntry kRegisterMap[] = {
    {kRegControl, 0x00, 1, true, Item::integration_time},
    {kRegControl, 0x01, 2, true, Item::xenon_pulse},
    {kRegControl, 0x03, 1, true, Item::xenon_mode},
    {kRegControl, 0x10, 1, true, Item::average_number},
    {kRegControl, 0x11, 1, true, Item::level_output},
    {kRegControl, 0x12, 1, true, Item::write_protection},
    {kRegControl, 0x13, 1, true, Item::reset},
    {kRegControl, 0x20, 8, false, Item::coefficients},
    {kRegControl, 0x40, 1, false, Item::temperature},
    {kRegControl, 0x41, 2, false, Item::hardware_version},
    {kRegControl, 0x43, 1, true, Item::usb_baud_rate},
    {kRegControl, 0x44, 2, false, Item::detector_serial},
    {kRegControl, 0x46, 4, false, Item::model},
    {kRegControl, 0x4A, 2, true, Item::flash_block},
    {kRegControl, 0x4C, 2, true, Item::external_block},
    {kRegControl, 0x50, 1, false, Item::usb_status},
    {kRegControl, 0x51, 1, true, Item::trigger},
    {kRegControl, 0x52, 2, false, Item::capture_status},
    {kRegControl, 0x64, 1, true, Item::dac},
    {kRegStored, 0x00, 1, true, Item::stored_integration_time},
    {kRegStored, 0x01, 1, true, Item::stored_average},
    {kRegStored, 0x02, 1, true, Item::stored_smoothing},
    {kRegStored, 0x03, 1, false, Item::slit_width},
    {kRegStored, 0x04, 3, true, Item::serial_number},
    {kRegStored, 0x0B, 1, false, Item::point_count},
};

const MapEntry *find_entry(uint8_t reg, uint32_t address) {
    for (const MapEntry &e : kRegisterMap)
        if (e.reg == reg && address >= e.address && address < e.address + e.words) return &e;
    return nullptr;
}

bool parse_version(const char *text, uint8_t (&out)[4]) {
    std::fill(std::begin(out), std::end(out), 0);
    const char *p = text;
    for (int part = 0; part < 4; ++part) {
        char *end = nullptr;
        const unsigned long value = std::strtoul(p, &end, 16);
        if (end == p || value > 0xFF) return false;
        out[part] = static_cast<uint8_t>(value);
        if (*end == '\0') return true;
        if (*end != '.') return false;
        p = end + 1;
    }
    return false;
}

std::vector<uint8_t> one_byte_word(uint8_t value) {
    return {0, 0, 0, value};
}

std::vector<uint8_t> be_word(uint32_t value) {
    std::vector<uint8_t> w(4);
    store_be32(w.data(), value);
    return w;
}

// The preamble's first byte, or the longest tail that may still become one.
size_t preamble_start(const std::vector<uint8_t> &b) {
    for (size_t i = 0; i + kPreambleBytes <= b.size(); ++i) {
        if (b[i + kPreambleBytes - 1] != kPreambleLast) continue;
        if (std::all_of(b.begin() + static_cast<std::ptrdiff_t>(i),
                        b.begin() + static_cast<std::ptrdiff_t>(i + kPreambleBytes - 1),
                        [](uint8_t x) { return x == kPreambleByte; }))
            return i;
    }
    size_t tail = 0;
    while (tail < kPreambleBytes - 1 && tail < b.size() && b[b.size() - 1 - tail] == kPreambleByte) ++tail;
    return b.size() - tail;
}

std::vector<uint8_t> build_reply(const uint8_t *request, uint8_t code, const std::vector<uint8_t> &data) {
    const size_t words = (data.size() + 3) / 4;
    std::vector<uint8_t> out(cm2::kMinPacketBytes + 4 * words, 0);
    std::fill(out.begin(), out.begin() + kPreambleBytes - 1, kPreambleByte);
    out[7] = kPreambleLast;
    out[8] = request[8];
    // The reply goes back: target and source swap.
    std::memcpy(&out[9], request + 11, 2);
    std::memcpy(&out[11], request + 9, 2);
    out[13] = request[13] == cm2::kSrvQuery ? cm2::kSrvResponseData : cm2::kSrvResponseWriteAck;
    out[14] = request[14];
    store_be16(&out[15], static_cast<uint16_t>(words));
    store_be16(&out[17], static_cast<uint16_t>(words));
    out[19] = out[20] = 1;
    std::memcpy(&out[21], request + 21, 4);
    const uint8_t status = code == cm2::kReplyAck            ? kStatusNormal
                           : code == cm2::kReplyWriteProtect ? kStatusForbidden
                                                             : kStatusFailed;
    out[25] = static_cast<uint8_t>(status << 4);
    out[27] = code;
    std::copy(data.begin(), data.end(), out.begin() + cm2::kHeadBytes);
    const auto crc_at = static_cast<int32_t>(out.size() - 4);
    store_be32(&out[static_cast<size_t>(crc_at)], kavrel_direct_crc32(&out[8], crc_at - 8));
    return out;
}

}  // namespace

Cm2Instrument::Cm2Instrument(const kavrel_sim_config &config, LineSink &line)
    : Instrument(config, line), page_buffer_(kFlashPageBytes, 0) {
    parse_version(config.hardware_version, version_);
}

bool Cm2Instrument::valid(const kavrel_sim_config &c) {
    uint8_t version[4];
    return c.instrument == KAVREL_SIM_CM2 && c.point_count >= 1 && c.point_count <= 4096 &&
           std::strlen(c.model) <= 16 && std::strlen(c.serial_number) <= sizeof Stored{}.serial &&
           parse_version(c.hardware_version, version);
}

void Cm2Instrument::parse(std::vector<uint8_t> &pending, double at_ms) {
    for (;;) {
        pending.erase(pending.begin(),
                      pending.begin() + static_cast<std::ptrdiff_t>(preamble_start(pending)));
        if (pending.size() < static_cast<size_t>(cm2::kHeadBytes)) return;
        const uint32_t words = load_be16(&pending[cm2::kDataLenOffset]);
        if (words > kMaxWords) {
            pending.erase(pending.begin());  // not a header after all
            continue;
        }
        const size_t length = cm2::kMinPacketBytes + 4 * words;
        if (pending.size() < length) return;
        handle(pending.data(), length, at_ms);
        pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(length));
    }
}

void Cm2Instrument::handle(const uint8_t *packet, size_t length, double at_ms) {
    const ReplyFaults f = faults().next_request();
    const double now = begin(at_ms);
    if (f.no_answer) {
        swallow(now);
        return;
    }
    const uint8_t srv = packet[13];
    const uint8_t reg = packet[21];
    const uint32_t address = (static_cast<uint32_t>(packet[22]) << 16) | load_be16(packet + 23);
    const auto crc_at = static_cast<int32_t>(length - 4);
    std::vector<uint8_t> data;
    double ready = now;
    uint8_t code;
    if (load_be32(packet + crc_at) != kavrel_direct_crc32(packet + 8, crc_at - 8))
        code = cm2::kReplyCrcMismatch;
    else if (f.reply_code)
        code = *f.reply_code;  // refused before it is carried out
    else if (srv == cm2::kSrvQuery)
        code = query(reg, address, load_be16(packet + 15), data, now, ready);
    else if (srv == cm2::kSrvWriteAck || srv == cm2::kSrvWriteNoAck)
        code = write(reg, address, packet + cm2::kHeadBytes, load_be16(packet + cm2::kDataLenOffset), now);
    else
        code = cm2::kReplyInvalidCommand;
    if (code != cm2::kReplyAck) data.clear();

    if (srv == cm2::kSrvWriteNoAck && code == cm2::kReplyAck) {
        swallow(now);
    } else {
        std::vector<uint8_t> reply = build_reply(packet, code, data);
        if (f.bad_preamble) reply[kPreambleBytes - 1] = kPreambleByte;
        send(std::move(reply), ready, f);
    }
    if (reset_requested_) reset();
}

uint8_t Cm2Instrument::query(uint8_t reg, uint32_t address, uint32_t words, std::vector<uint8_t> &data,
                             double now, double &ready) {
    words = std::min(words, kMaxWords);
    const uint32_t points = optics().points();
    switch (reg) {
        case kRegControl:
        case kRegStored: return query_items(reg, address, words, data, now);
        case kRegWavelength: {
            // A query at entry i returns the entries from i on.
            if (address >= points) return cm2::kReplyInvalidCommand;
            data = wavelength_bytes(address, std::min(words, points - address));
            return cm2::kReplyAck;
        }
        case kRegSpectrum: {
            // Two samples a word: address w starts at sample 2w.
            if (2ull * address >= points) return cm2::kReplyInvalidCommand;
            std::vector<uint16_t> samples;
            if (!held_spectrum_.empty()) {
                samples = std::move(held_spectrum_);
                held_spectrum_.clear();
                ready = now + kHeldSpectrumMs;
            } else {
                samples = acquire(now, ready);
            }
            const uint32_t first = 2 * address;
            const uint32_t n = std::min(words, (points - first + 1) / 2);
            data.assign(4 * static_cast<size_t>(n), 0);
            for (uint32_t i = 0; i < 2 * n && first + i < points; ++i)
                store_be16(&data[2 * i], samples[first + i]);
            return cm2::kReplyAck;
        }
        case kRegPageBuffer: {
            if (address >= kPageBufferWords) return cm2::kReplyInvalidCommand;
            const uint32_t n = std::min(words, kPageBufferWords - address);
            const auto from = page_buffer_.begin() + 4 * static_cast<std::ptrdiff_t>(address);
            data.assign(from, from + 4 * static_cast<std::ptrdiff_t>(n));
            return cm2::kReplyAck;
        }
        default: return cm2::kReplyInvalidCommand;
    }
}

uint8_t Cm2Instrument::write(uint8_t reg, uint32_t address, const uint8_t *data, uint32_t words, double now) {
    switch (reg) {
        case kRegControl:
        case kRegStored: return write_items(reg, address, data, words, now);
        case kRegPageBuffer:
            if (address + words > kPageBufferWords) return cm2::kReplyInvalidCommand;
            if (!settings_.write_open) return cm2::kReplyWriteProtect;
            std::copy(data, data + 4 * words,
                      page_buffer_.begin() + 4 * static_cast<std::ptrdiff_t>(address));
            page_buffer_fill_ = 4 * static_cast<size_t>(address + words);
            return cm2::kReplyAck;
        default: return cm2::kReplyInvalidCommand;  // wavelengths and spectra are only read
    }
}

uint8_t Cm2Instrument::query_items(uint8_t reg, uint32_t address, uint32_t words, std::vector<uint8_t> &data,
                                   double now) {
    for (uint32_t a = address; a < address + words;) {
        const MapEntry *e = find_entry(reg, a);
        if (e == nullptr) return cm2::kReplyInvalidCommand;
        const std::vector<uint8_t> bytes = item_bytes(e->item, now);
        const uint32_t last = std::min(address + words, e->address + e->words);
        data.insert(data.end(), bytes.begin() + 4 * (a - e->address),
                    bytes.begin() + 4 * (last - e->address));
        a = last;
    }
    return cm2::kReplyAck;
}

uint8_t Cm2Instrument::write_items(uint8_t reg, uint32_t address, const uint8_t *data, uint32_t words,
                                   double now) {
    // Nothing is written unless every word is there to be written.
    for (uint32_t a = address; a < address + words; ++a) {
        const MapEntry *e = find_entry(reg, a);
        if (e == nullptr || !e->writable) return cm2::kReplyInvalidCommand;
    }
    for (uint32_t a = address; a < address + words;) {
        const MapEntry *e = find_entry(reg, a);
        // A write of part of an item keeps its other words.
        std::vector<uint8_t> bytes = item_bytes(e->item, now);
        const uint32_t last = std::min(address + words, e->address + e->words);
        std::copy(data + 4 * (a - address), data + 4 * (last - address),
                  bytes.begin() + 4 * (a - e->address));
        if (const uint8_t code = store_item(e->item, bytes.data(), now); code != cm2::kReplyAck) return code;
        a = last;
    }
    return cm2::kReplyAck;
}

std::vector<uint8_t> Cm2Instrument::item_bytes(Item item, double now) {
    std::vector<uint8_t> b;
    const Settings &s = settings_;
    auto text = [&b](const char *t, size_t n) {
        b.assign(n, 0);
        std::memcpy(b.data(), t, std::min(n, std::strlen(t)));
    };
    switch (item) {
        case Item::integration_time: return be_word(s.integration_us);
        case Item::xenon_pulse:
            b = be_word(s.xenon_pulse[0]);
            for (uint8_t x : be_word(s.xenon_pulse[1])) b.push_back(x);
            return b;
        case Item::xenon_mode: return one_byte_word(s.xenon_mode);
        case Item::average_number: return one_byte_word(static_cast<uint8_t>(s.averages));
        case Item::level_output: return one_byte_word(s.level);
        case Item::write_protection: return one_byte_word(s.write_open ? kWriteOpen : 0);
        case Item::reset: return one_byte_word(0);
        case Item::coefficients: return coefficient_bytes();
        case Item::temperature: return be_word(cm2_temperature());
        case Item::hardware_version:
            b.assign(std::begin(version_), std::end(version_));
            b.resize(8, 0);
            return b;
        case Item::usb_baud_rate: return be_word(s.usb_baud);
        case Item::detector_serial: {
            char serial[16];
            std::snprintf(serial, sizeof serial, "DET%05u", static_cast<unsigned>(config().seed % 100000));
            text(serial, 8);
            return b;
        }
        case Item::model: text(config().model, 16); return b;
        case Item::flash_block:
            advance(flash_block_, true, now);
            return {std::begin(flash_block_.bytes), std::end(flash_block_.bytes)};
        case Item::external_block:
            advance(external_block_, false, now);
            return {std::begin(external_block_.bytes), std::end(external_block_.bytes)};
        case Item::usb_status: return one_byte_word(kUsbStatusSet);
        case Item::trigger: return {s.trigger[0], s.trigger[1], 0, s.trigger[2]};
        case Item::capture_status:
            b = be_word(static_cast<uint32_t>(spectra_taken_ >> 32));
            for (uint8_t x : be_word(static_cast<uint32_t>(spectra_taken_))) b.push_back(x);
            return b;
        case Item::dac: return be_word(static_cast<uint32_t>(s.dac) << 20);
        case Item::stored_integration_time: return be_word(stored_.integration_us);
        case Item::stored_average: return one_byte_word(stored_.averages);
        case Item::stored_smoothing: return one_byte_word(stored_.smoothing);
        case Item::slit_width: return one_byte_word(stored_.slit_um);
        case Item::serial_number: return {std::begin(stored_.serial), std::end(stored_.serial)};
        case Item::point_count: return be_word(optics().points());
    }
    return b;
}

uint8_t Cm2Instrument::store_item(Item item, const uint8_t *b, double now) {
    Settings &s = settings_;
    switch (item) {
        case Item::integration_time: s.integration_us = load_be32(b); break;
        case Item::xenon_pulse:
            s.xenon_pulse[0] = load_be32(b);
            s.xenon_pulse[1] = load_be32(b + 4);
            break;
        case Item::xenon_mode: s.xenon_mode = b[3]; break;
        case Item::average_number: s.averages = b[3]; break;
        case Item::level_output: s.level = b[3]; break;
        case Item::write_protection: s.write_open = b[3] == kWriteOpen; break;
        case Item::reset: reset_requested_ = reset_requested_ || b[3] == kResetCommand; break;
        case Item::usb_baud_rate: s.usb_baud = load_be16(b + 2); break;
        case Item::trigger:
            s.trigger[0] = b[0];
            s.trigger[1] = b[1];
            s.trigger[2] = b[3];
            break;
        case Item::dac: s.dac = static_cast<uint16_t>(load_be32(b) >> 20); break;
        case Item::stored_integration_time: stored_.integration_us = load_be32(b); break;
        case Item::stored_average: stored_.averages = b[3]; break;
        case Item::stored_smoothing: stored_.smoothing = b[3]; break;
        case Item::serial_number: std::memcpy(stored_.serial, b, sizeof stored_.serial); break;
        case Item::flash_block:
            if (b[1] == kPending && b[0] == kWritePage && !s.write_open) return cm2::kReplyWriteProtect;
            std::memcpy(flash_block_.bytes, b, sizeof flash_block_.bytes);
            if (b[1] == kPending) start(flash_block_, now, b[0] == kReadPage ? kPageReadMs : kPageWriteMs);
            break;
        case Item::external_block:
            std::memcpy(external_block_.bytes, b, sizeof external_block_.bytes);
            if (b[1] == kPending) {
                // The trigger starts an acquisition; its spectrum is held
                // until the host reads the spectrum register.
                double done = now;
                held_spectrum_.clear();
                external_capture_ = acquire(now, done);
                start(external_block_, now, done - now);
            }
            break;
        default: return cm2::kReplyInvalidCommand;
    }
    return cm2::kReplyAck;
}

void Cm2Instrument::start(CommandBlock &block, double now, double busy_ms) {
    block.running = true;
    block.done_ms = now + busy_ms;
    block.fault = faults().next_command_block();
    block.bytes[1] = kPending;
}

void Cm2Instrument::advance(CommandBlock &block, bool flash, double now) {
    if (!block.running || block.fault == HandshakeFault::stuck || now < block.done_ms) return;
    block.running = false;
    bool ok = block.fault == HandshakeFault::none;
    if (ok && flash) {
        const uint16_t page_number = load_be16(block.bytes + 2);
        if (block.bytes[0] == kReadPage) {
            page_buffer_ = page(page_number);
            page_buffer_fill_ = page_buffer_.size();
        } else {
            ok = block.bytes[0] == kWritePage && program_page(page_number, load_be32(block.bytes + 4));
        }
    }
    if (ok && !flash) held_spectrum_ = std::move(external_capture_);
    if (!flash) external_capture_.clear();
    block.bytes[1] = ok ? kDone : kFailed;
}

bool Cm2Instrument::program_page(uint16_t number, uint32_t crc) {
    // The buffer holds whole words; the CRC covers the host's bytes without
    // the padding, so the data may end up to three bytes before the fill.
    for (size_t pad = 0; pad < 4 && pad <= page_buffer_fill_; ++pad) {
        const size_t length = page_buffer_fill_ - pad;
        if (kavrel_direct_crc32(page_buffer_.data(), static_cast<int32_t>(length)) != crc) continue;
        std::copy(page_buffer_.begin(), page_buffer_.begin() + static_cast<std::ptrdiff_t>(length),
                  page(number).begin());
        return true;
    }
    return false;
}

void Cm2Instrument::reset() {
    Instrument::reset();
    flash_block_ = CommandBlock{};
    external_block_ = CommandBlock{};
    std::fill(page_buffer_.begin(), page_buffer_.end(), 0);
    page_buffer_fill_ = 0;
    held_spectrum_.clear();
    external_capture_.clear();
    reset_requested_ = false;
}

}  // namespace kavrel::sim
