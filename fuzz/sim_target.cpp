// The simulated CM2 and NIR instruments fed arbitrary request bytes: served
// on a byte stream (kavrel-sim), they face whatever a host program writes.
//
// The input is a byte choosing the instrument (bit 0: NIR) and whether it
// commits a fault (bit 1: then a fault kind, a count and a 16-bit parameter
// follow), then the request stream: chunks as in fuzz_bridge.h, each
// reaching the instrument d * d / 4 ms after the previous one. Without a
// fault every reply must be one the host can take: a CM2 packet whose
// preamble, length and CRC are right, or an NIR acknowledge or refusal with
// its CRC-16.
#include <memory>

#include "fuzz_bridge.h"
#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "protocol/cm2_codec.h"
#include "sim/cm2_instrument.h"
#include "sim/nir_instrument.h"
#include "transport/nir_exchange.h"

using namespace kavrel;
using namespace kavrel::fuzz;

namespace {

class CheckedLine : public sim::LineSink {
public:
    bool nir = false;
    bool faulty = false;
    double now = 0;  // when the bytes being handled reached the instrument

    double byte_ms() const override { return 0.01; }
    void emit(std::vector<uint8_t> bytes, double first_ms, double spacing_ms) override {
        require(!bytes.empty() && first_ms >= now && spacing_ms > 0);
        if (faulty) return;
        if (nir) {
            require(bytes.size() >= 3 && (bytes[0] == kNirAck || bytes[0] == 0x15));
            require(load_be16(&bytes[bytes.size() - 2]) == nir_crc16(bytes.data(), bytes.size() - 2));
            return;
        }
        require(bytes.size() >= static_cast<size_t>(cm2::kMinPacketBytes) &&
                bytes.size() == cm2::kMinPacketBytes + 4u * load_be16(&bytes[cm2::kDataLenOffset]));
        const auto parsed = std::make_unique<cm2_packet>();
        require(kavrel_direct_parse_response(bytes.data(), static_cast<int32_t>(bytes.size()),
                                             parsed.get()) == 0 &&
                parsed->crc_ok == 1);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in(data, size);
    const uint8_t setup = in.byte();
    CheckedLine line;
    line.nir = (setup & 1) != 0;
    kavrel_sim_config config;
    kavrel_sim_default_config(line.nir ? KAVREL_SIM_NIR : KAVREL_SIM_CM2, &config);
    std::unique_ptr<sim::Instrument> instrument;
    if (line.nir)
        instrument = std::make_unique<sim::NirInstrument>(config, line);
    else
        instrument = std::make_unique<sim::Cm2Instrument>(config, line);
    if ((setup & 2) != 0) {
        kavrel_sim_fault fault{};
        fault.kind = in.byte() % 13;
        fault.count = in.byte() % 4;
        fault.parameter = in.be16();
        if (sim::Faults::valid(fault)) {
            instrument->faults().add(fault);
            line.faulty = true;
        }
    }
    while (!in.empty()) {
        const double delay_ms = chunk_delay_ms(in.byte());
        size_t n = in.be16();
        const uint8_t *bytes = in.take(n);
        line.now += delay_ms;
        instrument->receive(bytes, n, line.now);
    }
    return 0;
}

namespace {

// Requests, each its own chunk; the first one split in two with garbage before it.
Bytes stream(uint8_t setup, std::initializer_list<Bytes> requests) {
    Bytes out{setup};
    put_chunk(out, {0x00, 0x13, 0xAA}, 0);
    const Bytes &first = *requests.begin();
    const auto half = first.begin() + static_cast<long>(first.size() / 2);
    put_chunk(out, Bytes(first.begin(), half), 2);
    put_chunk(out, Bytes(half, first.end()), 2);
    for (auto request = requests.begin() + 1; request != requests.end(); ++request)
        put_chunk(out, *request, 40);
    return out;
}

}  // namespace

std::vector<Seed> kavrel::fuzz::seeds() {
    constexpr uint8_t kCm2 = 0, kNir = 1, kWithFault = 2;
    Bytes faulty = stream(kCm2 | kWithFault, {cm2_query(0xC1, 0x46, 4)});
    faulty.insert(faulty.begin() + 1, {KAVREL_SIM_FAULT_TRUNCATE, 1, 0, 20});
    return {
        {"cm2_identity",
         stream(kCm2, {cm2_query(0xC1, 0x46, 4), cm2_query(0xC1, 0x40, 1), cm2_query(0xC2, 0x04, 3)})},
        {"cm2_spectral",
         stream(kCm2, {cm2_query(0xC2, 0x0B, 1), cm2_query(0xC5, 0, 2048), cm2_query(0xC6, 0, 1024)})},
        {"cm2_flash", stream(kCm2, {cm2_write(0xC1, 0x12, {0, 0, 0, 0xEA}), cm2_write(0xC7, 0, {1, 2, 3, 4}),
                                    cm2_write(0xC1, 0x4A, {0xCF, 0xDD, 0, 3, 0xB6, 0x3C, 0xFB, 0xCD}),
                                    cm2_query(0xC1, 0x4A, 2)})},
        {"cm2_settings", stream(kCm2, {cm2_write(0xC1, 0, {0, 0, 0x4E, 0x20}), cm2_query(0xC1, 0, 1),
                                       cm2_write(0xC1, 0x13, {0, 0, 0, 0xAA})})},
        {"cm2_fault", faulty},
        {"nir_identity",
         stream(kNir, {nir_frame({'V'}), nir_frame({0x74}), nir_frame({0xBB}), nir_frame({'x'})})},
        {"nir_spectral",
         stream(kNir, {nir_frame({0x3F, 'S'}), nir_frame({'S'}), nir_frame({'i', 0, 0, 0x27, 0x10})})},
        {"nir_flash", stream(kNir, {nir_frame({0xA5, 0xEA}), nir_frame({0xAF, 0, 3, 1, 2, 3, 4}),
                                    nir_frame({0x3F, 0xAF, 0, 3})})},
    };
}
