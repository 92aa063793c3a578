// The simulated world: USB bridges with instruments behind them, one clock,
// and the provider table through which the library reaches them.
//
// Each bridge keeps its instrument, the chip's receive buffer (an Inbox on the
// world's clock), its time limits and latency timer, and the faults injected
// into it. Bridges are listed in the order they were attached. An unplugged
// bridge leaves the list at once; a handle opened on it stays valid, but
// every call on it fails, and a read waiting on it ends.
//
// Every member is safe to call from any thread. The library calls the
// provider from one thread per handle at a time; the control calls (attach,
// faults, scene, time) may come from another thread meanwhile.
#ifndef KAVREL_SIM_WORLD_H
#define KAVREL_SIM_WORLD_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "kavrel_sim.h"
#include "platform/platform.h"
#include "platform/timing_engine.h"

namespace kavrel::sim {

class World {
public:
    World();
    ~World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    platform::Clock &clock() { return clock_; }

    // The control interface of kavrel_sim.h.
    int32_t attach(const kavrel_sim_config &config);
    int32_t detach(const char *chip_serial);
    int32_t inject_fault(const char *chip_serial, const kavrel_sim_fault &fault);
    int32_t clear_faults(const char *chip_serial);
    int32_t set_scene(const char *chip_serial, const kavrel_sim_scene &scene);
    void reset();

    // The provider calls, as platform::provider_table() expects them.
    platform::Status create_device_info_list(uint32_t *count);
    platform::Status get_device_info_list(platform::BridgeEntry *entries, uint32_t *count);
    platform::Status open(int index, platform::Handle *handle);
    platform::Status close(platform::Handle handle);
    platform::Status set_timeouts(platform::Handle handle, uint32_t read_ms, uint32_t write_ms);
    platform::Status set_latency_timer(platform::Handle handle, uint8_t milliseconds);
    platform::Status set_usb_parameters(platform::Handle handle, uint32_t in_size, uint32_t out_size);
    platform::Status purge(platform::Handle handle, uint32_t mask);
    platform::Status reset_device(platform::Handle handle);
    platform::Status write(platform::Handle handle, const void *bytes, uint32_t count, uint32_t *written);
    platform::Status read(platform::Handle handle, void *buffer, uint32_t count, uint32_t *returned);
    double now_ms();
    void sleep_ms(uint32_t milliseconds);

private:
    struct Bridge;
    struct Port;

    std::shared_ptr<Bridge> find_attached(const char *chip_serial);
    std::shared_ptr<Bridge> bridge_of(platform::Handle handle, bool *attached = nullptr);
    void unplug(Bridge &bridge);
    void attach_default_pair();

    platform::Clock clock_;
    std::mutex mutex_;  // the list and the ports
    std::vector<std::shared_ptr<Bridge>> attached_;
    std::vector<std::unique_ptr<Port>> ports_;
    bool default_pair_ = false;
};

// The world every kavrel_sim_* function works on, made on first use and
// never destroyed (a call made while the process exits still finds it).
World &world();

// The provider table of world(). Programs that link the static library core
// install it with kavrel::use_provider(&kavrel::sim::world_provider()).
const platform::Platform &world_provider();

}  // namespace kavrel::sim

#endif
