#include "world.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "config.h"
#include "usb_line.h"

namespace kavrel::sim {
namespace {

// Statuses as the bridge driver reports them.
constexpr platform::Status kInvalidHandle = 1;
constexpr platform::Status kDeviceNotFound = 2;
constexpr platform::Status kDeviceNotOpened = 3;
constexpr platform::Status kIoError = 4;
constexpr platform::Status kInvalidParameter = 6;

constexpr size_t kMaxBridges = 64;
constexpr uint32_t kDefaultLimitMs = 5000;
constexpr const char *kDefaultCm2Serial = "KSIM0001";
constexpr const char *kDefaultNirSerial = "KSIM0002";

bool valid_scene(const kavrel_sim_scene &s) {
    return std::isfinite(s.continuum_level) && std::isfinite(s.line_level) && s.continuum_level >= 0 &&
           s.line_level >= 0;
}

}  // namespace

struct World::Bridge {
    Bridge(const kavrel_sim_config &c, platform::Clock &clock)
        : config(c), inbox(clock), line(inbox, c.bridge_speed), instrument(make_instrument(c, line)) {}

    const kavrel_sim_config config;
    platform::Inbox inbox;
    // Guards everything below; inbox and line guard themselves.
    std::mutex mutex;
    UsbLine line;
    std::unique_ptr<Instrument> instrument;
    bool attached = true;
    bool open = false;
    uint32_t read_ms = kDefaultLimitMs;
};

struct World::Port {
    std::shared_ptr<Bridge> bridge;
};

World::World() {
    attach_default_pair();
}

World::~World() = default;

void World::attach_default_pair() {
    for (const auto &[kind, serial] :
         {std::pair{KAVREL_SIM_CM2, kDefaultCm2Serial}, {KAVREL_SIM_NIR, kDefaultNirSerial}}) {
        kavrel_sim_config c;
        default_config(kind, c);
        std::snprintf(c.chip_serial, sizeof c.chip_serial, "%s", serial);
        attached_.push_back(std::make_shared<Bridge>(c, clock_));
    }
    default_pair_ = true;
}

void World::unplug(Bridge &bridge) {
    {
        std::lock_guard<std::mutex> lock(bridge.mutex);
        bridge.attached = false;
    }
    bridge.inbox.clear();
    bridge.inbox.interrupt();
}

std::shared_ptr<World::Bridge> World::find_attached(const char *chip_serial) {
    for (const auto &b : attached_)
        if (std::strcmp(b->config.chip_serial, chip_serial) == 0) return b;
    return nullptr;
}

std::shared_ptr<World::Bridge> World::bridge_of(platform::Handle handle, bool *attached) {
    std::shared_ptr<Bridge> bridge;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto &port : ports_)
            if (port.get() == handle) bridge = port->bridge;
    }
    if (bridge && attached != nullptr) {
        std::lock_guard<std::mutex> lock(bridge->mutex);
        *attached = bridge->attached;
    }
    return bridge;
}

int32_t World::attach(const kavrel_sim_config &config) {
    if (!valid_config(config)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(mutex_);
    if (default_pair_) {
        // The first bridge a program attaches replaces the default pair.
        for (const auto &b : attached_) unplug(*b);
        attached_.clear();
        default_pair_ = false;
    }
    if (find_attached(config.chip_serial)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    if (attached_.size() >= kMaxBridges) return KAVREL_DIRECT_ERR_OPEN_FAILED;
    attached_.push_back(std::make_shared<Bridge>(config, clock_));
    return KAVREL_DIRECT_OK;
}

int32_t World::detach(const char *chip_serial) {
    std::shared_ptr<Bridge> bridge;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        bridge = find_attached(chip_serial);
        if (!bridge) return KAVREL_DIRECT_ERR_NO_DEVICE;
        attached_.erase(std::find(attached_.begin(), attached_.end(), bridge));
    }
    unplug(*bridge);
    return KAVREL_DIRECT_OK;
}

int32_t World::inject_fault(const char *chip_serial, const kavrel_sim_fault &fault) {
    if (!Faults::valid(fault)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(mutex_);
    const std::shared_ptr<Bridge> bridge = find_attached(chip_serial);
    if (!bridge) return KAVREL_DIRECT_ERR_NO_DEVICE;
    std::lock_guard<std::mutex> bridge_lock(bridge->mutex);
    bridge->instrument->faults().add(fault);
    return KAVREL_DIRECT_OK;
}

int32_t World::clear_faults(const char *chip_serial) {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::shared_ptr<Bridge> bridge = find_attached(chip_serial);
    if (!bridge) return KAVREL_DIRECT_ERR_NO_DEVICE;
    std::lock_guard<std::mutex> bridge_lock(bridge->mutex);
    bridge->instrument->faults().clear();
    return KAVREL_DIRECT_OK;
}

int32_t World::set_scene(const char *chip_serial, const kavrel_sim_scene &scene) {
    if (!valid_scene(scene)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::shared_ptr<Bridge>> bridges = attached_;
    if (chip_serial != nullptr) {
        const std::shared_ptr<Bridge> one = find_attached(chip_serial);
        if (!one) return KAVREL_DIRECT_ERR_NO_DEVICE;
        bridges = {one};
    }
    for (const auto &b : bridges) {
        std::lock_guard<std::mutex> bridge_lock(b->mutex);
        b->instrument->set_scene(scene_from(scene));
    }
    return KAVREL_DIRECT_OK;
}

void World::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto &b : attached_) unplug(*b);
    attached_.clear();
    attach_default_pair();
    clock_.set_mode(platform::Clock::Mode::real);
}

platform::Status World::create_device_info_list(uint32_t *count) {
    if (count == nullptr) return kInvalidParameter;
    std::lock_guard<std::mutex> lock(mutex_);
    *count = static_cast<uint32_t>(attached_.size());
    return platform::kOk;
}

platform::Status World::get_device_info_list(platform::BridgeEntry *entries, uint32_t *count) {
    if (count == nullptr || (entries == nullptr && *count > 0)) return kInvalidParameter;
    std::lock_guard<std::mutex> lock(mutex_);
    const uint32_t n = std::min(*count, static_cast<uint32_t>(attached_.size()));
    for (uint32_t i = 0; i < n; ++i) {
        std::snprintf(entries[i].serial_number, sizeof entries[i].serial_number, "%s",
                      attached_[i]->config.chip_serial);
        std::snprintf(entries[i].description, sizeof entries[i].description, "%s",
                      attached_[i]->config.description);
    }
    *count = n;
    return platform::kOk;
}

platform::Status World::open(int index, platform::Handle *handle) {
    if (handle == nullptr) return kInvalidParameter;
    std::lock_guard<std::mutex> lock(mutex_);
    if (index < 0 || static_cast<size_t>(index) >= attached_.size()) return kDeviceNotFound;
    const std::shared_ptr<Bridge> &bridge = attached_[static_cast<size_t>(index)];
    {
        std::lock_guard<std::mutex> bridge_lock(bridge->mutex);
        if (bridge->open) return kDeviceNotOpened;  // one handle per bridge
        bridge->open = true;
        bridge->read_ms = kDefaultLimitMs;
    }
    bridge->inbox.clear();
    ports_.push_back(std::make_unique<Port>(Port{bridge}));
    *handle = ports_.back().get();
    return platform::kOk;
}

platform::Status World::close(platform::Handle handle) {
    std::shared_ptr<Bridge> bridge;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it =
            std::find_if(ports_.begin(), ports_.end(), [&](const auto &p) { return p.get() == handle; });
        if (it == ports_.end()) return kInvalidHandle;
        bridge = (*it)->bridge;
        ports_.erase(it);
    }
    std::lock_guard<std::mutex> lock(bridge->mutex);
    bridge->open = false;
    bridge->inbox.clear();
    return bridge->attached ? platform::kOk : kIoError;
}

platform::Status World::set_timeouts(platform::Handle handle, uint32_t read_ms, uint32_t) {
    bool attached = false;
    const std::shared_ptr<Bridge> bridge = bridge_of(handle, &attached);
    if (!bridge) return kInvalidHandle;
    if (!attached) return kIoError;
    std::lock_guard<std::mutex> lock(bridge->mutex);
    bridge->read_ms = read_ms;
    return platform::kOk;
}

platform::Status World::set_latency_timer(platform::Handle handle, uint8_t milliseconds) {
    bool attached = false;
    const std::shared_ptr<Bridge> bridge = bridge_of(handle, &attached);
    if (!bridge) return kInvalidHandle;
    if (!attached) return kIoError;
    std::lock_guard<std::mutex> lock(bridge->mutex);
    bridge->line.set_latency_ms(milliseconds);
    return platform::kOk;
}

platform::Status World::set_usb_parameters(platform::Handle handle, uint32_t, uint32_t) {
    bool attached = false;
    if (!bridge_of(handle, &attached)) return kInvalidHandle;
    return attached ? platform::kOk : kIoError;
}

platform::Status World::purge(platform::Handle handle, uint32_t mask) {
    bool attached = false;
    const std::shared_ptr<Bridge> bridge = bridge_of(handle, &attached);
    if (!bridge) return kInvalidHandle;
    if (!attached) return kIoError;
    // Writes reach the instrument whole, so nothing waits to be sent.
    if (mask & platform::kPurgeRx) bridge->inbox.purge();
    return platform::kOk;
}

platform::Status World::reset_device(platform::Handle handle) {
    return purge(handle, platform::kPurgeRx | platform::kPurgeTx);
}

platform::Status World::write(platform::Handle handle, const void *bytes, uint32_t count, uint32_t *written) {
    if (written == nullptr || (bytes == nullptr && count > 0)) return kInvalidParameter;
    *written = 0;
    const std::shared_ptr<Bridge> bridge = bridge_of(handle);
    if (!bridge) return kInvalidHandle;
    std::lock_guard<std::mutex> lock(bridge->mutex);
    if (!bridge->attached || bridge->instrument->faults().next_write_fails()) return kIoError;
    const double at = clock_.now_ms() + bridge->line.host_to_instrument_ms(count);
    bridge->instrument->receive(static_cast<const uint8_t *>(bytes), count, at);
    *written = count;
    return platform::kOk;
}

platform::Status World::read(platform::Handle handle, void *buffer, uint32_t count, uint32_t *returned) {
    if (returned == nullptr || (buffer == nullptr && count > 0)) return kInvalidParameter;
    *returned = 0;
    const std::shared_ptr<Bridge> bridge = bridge_of(handle);
    if (!bridge) return kInvalidHandle;
    uint32_t limit;
    {
        std::lock_guard<std::mutex> lock(bridge->mutex);
        if (!bridge->attached || bridge->instrument->faults().next_read_fails()) return kIoError;
        limit = bridge->read_ms;
    }
    // The wait holds no lock, so faults and unplugging reach a waiting read.
    const size_t got = bridge->inbox.read(static_cast<uint8_t *>(buffer), count, limit);
    std::lock_guard<std::mutex> lock(bridge->mutex);
    if (!bridge->attached) return kIoError;
    *returned = static_cast<uint32_t>(got);
    return platform::kOk;
}

double World::now_ms() {
    return clock_.now_ms();
}

void World::sleep_ms(uint32_t milliseconds) {
    clock_.sleep_ms(milliseconds);
}

World &world() {
    static World *const the_world = new World;
    return *the_world;
}

const platform::Platform &world_provider() {
    static const platform::Platform table = platform::provider_table("sim", world());
    return table;
}

}  // namespace kavrel::sim
