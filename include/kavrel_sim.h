/*
 * KavrelDirect simulated instruments: the control interface.
 *
 * The kavrel_direct_sim library exports every kavrel_direct_* function of
 * kavrel_direct.h, backed by simulated USB bridges with CM2 and NIR
 * spectrometers behind them that speak their protocols byte for byte, plus
 * the kavrel_sim_* functions below, which attach and unplug simulated
 * bridges, inject faults, switch between real and virtual time and set the
 * scene the instruments look at.
 *
 * Before anything is attached, listing finds the default pair: a CM2
 * instrument (chip serial "KSIM0001") and a NIR instrument ("KSIM0002").
 * The first kavrel_sim_attach() after loading or after kavrel_sim_reset()
 * replaces them, so a test sees only the bridges it attached; instruments
 * of the default pair that are open then behave as unplugged.
 *
 * The instruments keep what a real one keeps: settings until a reset (which
 * reloads the integration time and average number from the stored values
 * and closes the flash write protection), stored values, serial number and
 * flash pages (1024 bytes, erased to 0xFF) for the life of the process.
 * A flash page write needs the write protection open: the library's CM2
 * page write opens it itself, on NIR call kavrel_direct_set_flash_write_protect
 * first. A spectrum answers after integration time x averages plus a readout
 * of a few milliseconds; an external spectrum is ready after as long.
 *
 * Plain C with fixed-size records, callable from any language. Every
 * function is thread-safe; a fault may be injected while another thread
 * waits in an acquisition. Results are the kavrel_direct result codes:
 * KAVREL_DIRECT_OK, KAVREL_DIRECT_ERR_INVALID_ARG for a null pointer or a
 * value out of range, KAVREL_DIRECT_ERR_NO_DEVICE for a chip serial that no
 * attached bridge has.
 */
#ifndef KAVREL_SIM_H
#define KAVREL_SIM_H

#include <stdint.h>

#include "kavrel_direct.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What stands behind a simulated bridge. */
enum kavrel_sim_instrument {
    /** A bridge whose instrument answers nothing (a device of another kind). */
    KAVREL_SIM_SILENT = 0,
    KAVREL_SIM_CM2 = 1, /* = KAVREL_DIRECT_PROTOCOL_CM2 */
    KAVREL_SIM_NIR = 2  /* = KAVREL_DIRECT_PROTOCOL_NIR */
};

/* The bridge chip's USB speed: how fast a reply's bytes flow to the host. */
enum kavrel_sim_bridge_speed {
    /** A full-speed chip at 3 Mbaud: 64-byte USB packets, ~300 KB/s. */
    KAVREL_SIM_FULL_SPEED = 0,
    /** A high-speed chip: 512-byte USB packets, ~2.6 MB/s. */
    KAVREL_SIM_HIGH_SPEED = 1
};

/** One simulated bridge and its instrument. Fill it with
 *  kavrel_sim_default_config(), change what matters, then attach it. Texts
 *  are NUL-terminated; longer ones are refused. */
typedef struct kavrel_sim_config {
    uint32_t instrument;       /* enum kavrel_sim_instrument */
    uint32_t bridge_speed;     /* enum kavrel_sim_bridge_speed */
    char chip_serial[16];      /* the bridge's serial, unique among attached bridges */
    char description[64];      /* the bridge's description in the list */
    char model[32];            /* CM2: at most 16 characters; NIR: "NIR-T<0-15>-<hex, up to 4 digits>" */
    char serial_number[32];    /* the instrument's own; CM2: at most 12 characters */
    char hardware_version[32]; /* CM2: up to four hex bytes, "01.04.00.02"; NIR: text, at most 20 */
    uint32_t point_count;      /* detector points, 1 to 4096 (NIR 1 to 1024) */
    uint32_t reserved;         /* 0 */
    double coefficients[4];    /* wavelength_nm(i) = c0 + c1 i + c2 i^2 + c3 i^3 */
    double temperature_c;      /* detector temperature */
    uint64_t seed;             /* seeds the instrument's noise */
} kavrel_sim_config;

/* Other languages declare the records field by field: their layout is
 * fixed, with no padding anywhere. */
KAVREL_DIRECT_LAYOUT_CHECK(sim_config_size, sizeof(kavrel_sim_config) == 240);
KAVREL_DIRECT_LAYOUT_CHECK(sim_config_coefficients, offsetof(kavrel_sim_config, coefficients) == 192);
KAVREL_DIRECT_LAYOUT_CHECK(sim_config_seed, offsetof(kavrel_sim_config, seed) == 232);

/** The default configuration of an instrument kind: a CM2 instrument has
 *  2048 points over about 190 to 1100 nm, a NIR instrument 256 points over
 *  about 900 to 1700 nm. The chip serial is left for the caller to set.
 *  Result: 0, or -5 for a null config or an unknown kind. */
KAVREL_DIRECT_API int32_t kavrel_sim_default_config(uint32_t instrument, kavrel_sim_config *config);

/** Plugs in a bridge. Results: 0; -5 a null or invalid config (texts not
 *  terminated or longer than the protocol carries, point count out of range,
 *  a chip serial already attached, an empty chip serial, reserved not 0, a
 *  coefficient not finite, a temperature outside -128 to 127); -6 when 64
 *  bridges are attached already. */
KAVREL_DIRECT_API int32_t kavrel_sim_attach(const kavrel_sim_config *config);

/** Unplugs a bridge: it leaves the list, and an instrument opened on it
 *  fails every exchange (-4) until the application closes it. Results: 0,
 *  -5 null serial, -2 no such bridge. */
KAVREL_DIRECT_API int32_t kavrel_sim_detach(const char *chip_serial);

/* Faults an instrument or its bridge can be told to commit.
 *
 * An instrument answers one request at a time, in order. A reply delayed
 * past the library's read limit still comes: the library's purge drops only
 * bytes that have arrived, so an exchange that starts before the late reply
 * has arrived reads it as its own answer (the library does not compare the
 * echoed register). Wait on the simulated clock (kavrel_sim_sleep_ms) until
 * it has arrived, and the next request is answered cleanly.
 *
 * A fault a protocol has no use for (a preamble on NIR, a refusal on CM2)
 * leaves its requests as they are, but counts them. */
enum kavrel_sim_fault_kind {
    KAVREL_SIM_FAULT_NO_ANSWER = 1,        /* the request is swallowed */
    KAVREL_SIM_FAULT_DELAY = 2,            /* the reply comes parameter ms late */
    KAVREL_SIM_FAULT_TRUNCATE = 3,         /* only the first parameter bytes of the reply */
    KAVREL_SIM_FAULT_BAD_CRC = 4,          /* the reply's CRC is wrong */
    KAVREL_SIM_FAULT_BAD_PREAMBLE = 5,     /* CM2: the reply's preamble is wrong */
    KAVREL_SIM_FAULT_REPLY_CODE = 6,       /* CM2: the reply carries code parameter (0xE0 to 0xE3) */
    KAVREL_SIM_FAULT_TRICKLE = 7,          /* the reply comes a byte at a time, parameter ms apart */
    KAVREL_SIM_FAULT_HANDSHAKE_FAILED = 8, /* CM2: command blocks end in 0xEE; counts blocks */
    KAVREL_SIM_FAULT_HANDSHAKE_STUCK = 9,  /* CM2: command blocks never complete; counts blocks */
    KAVREL_SIM_FAULT_NIR_REFUSE = 10,      /* NIR: the command is refused (no acknowledge) */
    KAVREL_SIM_FAULT_READ_FAILURE = 11,    /* the bridge's read fails */
    KAVREL_SIM_FAULT_WRITE_FAILURE = 12    /* the bridge's write fails */
};

/** A fault for the next count requests to the instrument (0: from now on,
 *  until kavrel_sim_clear_faults). Bridge faults (read and write failure)
 *  count bridge calls instead of requests, handshake faults command blocks.
 *  Faults in force together all act on a request. */
typedef struct kavrel_sim_fault {
    uint32_t kind;      /* enum kavrel_sim_fault_kind */
    uint32_t count;     /* requests (or bridge calls) affected; 0: all from now on */
    uint32_t parameter; /* milliseconds, bytes or reply code, as the kind says */
    uint32_t reserved;  /* 0 */
} kavrel_sim_fault;
KAVREL_DIRECT_LAYOUT_CHECK(sim_fault_size, sizeof(kavrel_sim_fault) == 16);

/** Results: 0; -5 null argument or unknown kind; -2 no such bridge. */
KAVREL_DIRECT_API int32_t kavrel_sim_inject_fault(const char *chip_serial, const kavrel_sim_fault *fault);
/** Ends every fault of the bridge. Results: 0, -5, -2. */
KAVREL_DIRECT_API int32_t kavrel_sim_clear_faults(const char *chip_serial);

/** Virtual time (nonzero) or real time (0, the default). In virtual time
 *  every wait of the library and of the instruments passes at once and the
 *  clock jumps forward, so a test of a two-minute acquisition runs in
 *  microseconds. Result: 0. */
KAVREL_DIRECT_API int32_t kavrel_sim_set_virtual_time(int32_t enabled);
/** The simulated clock in milliseconds (arbitrary origin). */
KAVREL_DIRECT_API double kavrel_sim_now_ms(void);
/** Waits milliseconds on the simulated clock; in virtual time the clock
 *  moves forward at once. How a test lets time pass between calls, for
 *  example until a late reply has arrived. */
KAVREL_DIRECT_API void kavrel_sim_sleep_ms(uint32_t milliseconds);

/** What the instruments look at: a mercury-argon calibration lamp over a
 *  halogen continuum, through each detector's response curve. */
typedef struct kavrel_sim_scene {
    int32_t lamp_lines;     /* nonzero: the emission lines are lit */
    int32_t shutter_closed; /* nonzero: only dark signal reaches the detector */
    double continuum_level; /* continuum counts per ms of integration at its peak, 0 or more */
    double line_level;      /* counts per ms of integration at the peak of the strongest line
                               the instrument sees, 0 or more */
} kavrel_sim_scene;
KAVREL_DIRECT_LAYOUT_CHECK(sim_scene_size, sizeof(kavrel_sim_scene) == 24);

/** The scene of one bridge's instrument, or of every attached one when
 *  chip_serial is null; bridges attached later start with the default scene.
 *  Results: 0, -5 null scene or a level negative or not finite, -2 no such
 *  bridge. */
KAVREL_DIRECT_API int32_t kavrel_sim_set_scene(const char *chip_serial, const kavrel_sim_scene *scene);
/** The default scene. Result: 0, or -5 for a null scene. */
KAVREL_DIRECT_API int32_t kavrel_sim_default_scene(kavrel_sim_scene *scene);

/** Back to the world at load: the default pair, real time, default scene, no
 *  faults, flash pages and stored values forgotten. Instruments open on
 *  bridges that no longer exist behave as unplugged. */
KAVREL_DIRECT_API void kavrel_sim_reset(void);

#ifdef __cplusplus
}
#endif

#endif /* KAVREL_SIM_H */
