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
#include <vector>

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
    Input in{data, size};
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
        const kavrel_sim_fault fault{in.byte() % 13u, in.byte() % 4u, in.be(2), 0};
        line.faulty = sim::Faults::valid(fault);
        if (line.faulty) instrument->faults().add(fault);
    }
    while (in.left > 0) {
        line.now += chunk_delay_ms(in.byte());
        size_t n = in.be(2);
        const uint8_t *bytes = in.take(n);
        instrument->receive(bytes, n, line.now);
    }
    return 0;
}
