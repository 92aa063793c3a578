// The kavrel_sim_* control functions, over the world every program shares.
//
// They take no lock of the library's own: a fault may be injected, or a
// bridge unplugged, while another thread waits in the library.
#include <new>

#include "config.h"
#include "kavrel_sim.h"
#include "world.h"

using namespace kavrel::sim;

namespace {

// No exception crosses the C boundary: an exhausted heap is -5 like every
// allocation failure, anything else -1.
template <typename Body>
int32_t guarded(Body &&body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return KAVREL_DIRECT_ERR_INVALID_ARG;
    } catch (...) {
        return KAVREL_DIRECT_ERR_GENERIC;
    }
}

}  // namespace

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_sim_default_config(uint32_t instrument, kavrel_sim_config *config) {
    if (config == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
    kavrel_sim_config c;
    if (!default_config(instrument, c)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    *config = c;
    return KAVREL_DIRECT_OK;
}

KAVREL_DIRECT_API int32_t kavrel_sim_attach(const kavrel_sim_config *config) {
    if (config == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
    return guarded([&] { return world().attach(*config); });
}

KAVREL_DIRECT_API int32_t kavrel_sim_detach(const char *chip_serial) {
    if (chip_serial == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
    return guarded([&] { return world().detach(chip_serial); });
}

KAVREL_DIRECT_API int32_t kavrel_sim_inject_fault(const char *chip_serial, const kavrel_sim_fault *fault) {
    if (chip_serial == nullptr || fault == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
    return guarded([&] { return world().inject_fault(chip_serial, *fault); });
}

KAVREL_DIRECT_API int32_t kavrel_sim_clear_faults(const char *chip_serial) {
    if (chip_serial == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
    return guarded([&] { return world().clear_faults(chip_serial); });
}

KAVREL_DIRECT_API int32_t kavrel_sim_set_virtual_time(int32_t enabled) {
    return guarded([&] {
        world().clock().set_mode(enabled ? kavrel::platform::Clock::Mode::virtual_time
                                         : kavrel::platform::Clock::Mode::real);
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API double kavrel_sim_now_ms(void) {
    return world().clock().now_ms();
}

KAVREL_DIRECT_API void kavrel_sim_sleep_ms(uint32_t milliseconds) {
    world().clock().sleep_ms(milliseconds);
}

KAVREL_DIRECT_API int32_t kavrel_sim_set_scene(const char *chip_serial, const kavrel_sim_scene *scene) {
    if (scene == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
    return guarded([&] { return world().set_scene(chip_serial, *scene); });
}

KAVREL_DIRECT_API int32_t kavrel_sim_default_scene(kavrel_sim_scene *scene) {
    if (scene == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
    *scene = scene_record(Scene{});
    return KAVREL_DIRECT_OK;
}

KAVREL_DIRECT_API void kavrel_sim_reset(void) {
    guarded([] {
        world().reset();
        return KAVREL_DIRECT_OK;
    });
}

}  // extern "C"
