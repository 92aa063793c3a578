// The way back from an instrument to the host through a USB bridge chip.
//
// The instrument's bytes fill the chip's receive buffer at the line rate. The
// chip hands them to the host in USB packets whose first two bytes are its
// modem status, so a full-speed packet of 64 bytes carries 62 of the
// instrument's bytes and a high-speed one of 512 carries 510. A full packet
// goes as soon as it is full; a partial one waits for the latency timer,
// which expires every latency_ms, so the tail of every reply arrives up to
// one latency period late.
#ifndef KAVREL_SIM_USB_LINE_H
#define KAVREL_SIM_USB_LINE_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "instrument.h"
#include "platform/timing_engine.h"

namespace kavrel::sim {

class UsbLine : public LineSink {
public:
    UsbLine(platform::Inbox &inbox, uint32_t bridge_speed);

    double byte_ms() const override { return byte_ms_; }
    void emit(std::vector<uint8_t> bytes, double first_ms, double spacing_ms) override;

    // The chip's latency timer; 0 counts as 1 ms, the shortest the chip has.
    void set_latency_ms(uint8_t ms) { latency_ms_ = ms == 0 ? 1 : ms; }
    // How long a write of count bytes takes to reach the instrument: the
    // next USB frame, then the bytes at the line rate.
    double host_to_instrument_ms(size_t count) const;

private:
    platform::Inbox &inbox_;
    size_t payload_;
    double byte_ms_;
    double frame_ms_;
    double latency_ms_ = 16;  // the chip's power-up value
};

}  // namespace kavrel::sim

#endif
