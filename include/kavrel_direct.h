/*
 * KavrelDirect: drive USB spectrometers attached through FTDI bridge chips.
 *
 * A flat C interface that never throws: a function returns a result code, or
 * the value its comment names. Two instrument protocols are spoken: the
 * register-based CM2 packets and the older NIR commands; the library settles
 * which one an instrument speaks when it is opened.
 *
 * Up to four instruments are open at a time; one of them is the active device
 * and every device operation works on it.
 *
 * Threads: the library is safe to call from several threads. The queries
 * that touch no instrument (kavrel_direct_is_open,
 * kavrel_direct_get_open_device_count, kavrel_direct_get_device_protocol,
 * kavrel_direct_get_capabilities, kavrel_direct_select_device,
 * kavrel_direct_set_protocol_preference) answer at once, even while another
 * thread waits for a spectrum. A device operation takes the device that is
 * active when it begins and works on it to its end, whatever another thread
 * selects meanwhile; two operations on the same device run one after the
 * other, and closing a device waits for the operation in flight on it.
 * Listing and opening run one at a time. The active device is process-wide,
 * though: an application that drives several instruments from several
 * threads must serialise each select-then-operate pair itself. A call blocks
 * its thread until its exchange completes or its time limit passes (200 ms
 * per read for most registers, up to 120000 ms for a spectrum). A call made
 * from inside another call of the library on the same thread (a bridge
 * driver calling back in) returns KAVREL_DIRECT_ERR_GENERIC (or 0 / nothing
 * for the functions that return a count or nothing) and does nothing; only
 * the table queries above and the packet codec functions answer as usual.
 *
 * Memory: the caller owns every output. Arrays come with a capacity in
 * elements that no function writes beyond; text goes into a caller buffer,
 * cut to size - 1 bytes and always terminated. Outputs are written only on
 * success unless a comment says otherwise.
 *
 * Byte order on the wire is big-endian except for wavelength table entries
 * (little-endian floats); values handed to the application are in host order.
 */
#ifndef KAVREL_DIRECT_H
#define KAVREL_DIRECT_H

#include <stddef.h>
#include <stdint.h>

/* The one export macro. Applications define nothing: on Windows they import
 * from the DLL; define KAVREL_DIRECT_STATIC when linking the static library. */
#if defined(_WIN32) || defined(__CYGWIN__)
#if defined(KAVREL_DIRECT_BUILDING)
#define KAVREL_DIRECT_API __declspec(dllexport)
#elif defined(KAVREL_DIRECT_STATIC)
#define KAVREL_DIRECT_API
#else
#define KAVREL_DIRECT_API __declspec(dllimport)
#endif
#elif defined(__GNUC__) && defined(KAVREL_DIRECT_BUILDING)
#define KAVREL_DIRECT_API __attribute__((visibility("default")))
#else
#define KAVREL_DIRECT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------
 * Result codes. Signed 32-bit; 0 is success, every failure is negative.
 * ------------------------------------------------------------------------- */
enum kavrel_direct_result {
    /** Success. */
    KAVREL_DIRECT_OK = 0,
    /** A precondition on cached state is not met (no wavelength range
     *  selected), the packet parser refused a packet, or the call was made
     *  from inside another call of the library on the same thread. */
    KAVREL_DIRECT_ERR_GENERIC = -1,
    /** The bridge list could not be read, is empty, or has no entry with the
     *  given index or chip serial. */
    KAVREL_DIRECT_ERR_NO_DEVICE = -2,
    /** No device is active, or the slot addressed holds no open device. */
    KAVREL_DIRECT_ERR_NOT_OPEN = -3,
    /** A bridge read or write failed or was short, or a reply was unusable:
     *  too short, not acknowledged, too long, an unexpected reply code, or
     *  contents that cannot serve the request (for example no points, or
     *  fewer entries than counted); also a flash or external-spectrum command the instrument
     *  reports failed. */
    KAVREL_DIRECT_ERR_IO = -4,
    /** An argument is out of range or a required pointer is null, or a
     *  transfer buffer could not be allocated: a bug in the caller, or an
     *  exhausted heap. An argument the function can judge alone is refused
     *  before anything is sent; one judged against the instrument's answers
     *  (a capacity below its point count, a range outside its table) after
     *  them. */
    KAVREL_DIRECT_ERR_INVALID_ARG = -5,
    /** The bridge could not be opened, or all four slots are in use. */
    KAVREL_DIRECT_ERR_OPEN_FAILED = -6,
    /** A reply failed its CRC check, or the instrument reported that the
     *  request failed its own. */
    KAVREL_DIRECT_ERR_CRC = -7,
    /** A CM2 reply did not parse (wrong preamble). */
    KAVREL_DIRECT_ERR_PARSE = -8,
    /** No reply arrived in time, the instrument reported a timeout, or a
     *  flash or external-spectrum command had not completed by its last
     *  poll. */
    KAVREL_DIRECT_ERR_TIMEOUT = -9,
    /** The instrument's flash write protection is not open. */
    KAVREL_DIRECT_ERR_WRITE_PROTECT = -10,
    /** The active device's protocol has no form of this operation. Nothing
     *  was sent. */
    KAVREL_DIRECT_ERR_UNSUPPORTED = -11
};

/* Protocol identifiers (unsigned 32-bit). An open device is always CM2 or
 * NIR; UNKNOWN is seen only while a device is being opened. */
#define KAVREL_DIRECT_PROTOCOL_AUTO 0u
#define KAVREL_DIRECT_PROTOCOL_CM2 1u
#define KAVREL_DIRECT_PROTOCOL_NIR 2u
#define KAVREL_DIRECT_PROTOCOL_UNKNOWN 255u

/* Capability masks reported with the protocol. Their bits have no meaning to
 * the library itself. */
#define KAVREL_DIRECT_CAPABILITIES_CM2 0x7FFFu
#define KAVREL_DIRECT_CAPABILITIES_NIR 0x1FFu

/* Sizes of the parsed packet record. */
#define KAVREL_DIRECT_CM2_MAX_PACKET 16384
#define KAVREL_DIRECT_CM2_MAX_DATA 8192

/* ---------------------------------------------------------------------------
 * Records
 * ------------------------------------------------------------------------- */

/** One CM2 packet taken apart by kavrel_direct_parse_response(). Plain record
 *  with natural alignment (about 24 KiB); the caller allocates it. */
typedef struct cm2_packet {
    uint8_t raw[KAVREL_DIRECT_CM2_MAX_PACKET]; /**< the packet as given */
    int32_t raw_len;                           /**< the length given */
    uint8_t pre[8];                            /**< bytes 0-7, the preamble */
    uint8_t ver;                               /**< VER, byte 8 */
    uint16_t ta;                               /**< target address, bytes 9-10 */
    uint16_t sa;                               /**< source address, bytes 11-12 */
    uint8_t srv;                               /**< service code, byte 13 */
    uint8_t fsn;                               /**< file sequence number, byte 14 */
    uint16_t file_len;                         /**< FileLen in words, bytes 15-16 */
    uint16_t data_len;                         /**< DataLen in words, bytes 17-18 */
    uint16_t sn_packets;                       /**< packets of the transfer, byte 19 */
    uint16_t sn_index;                         /**< index of this packet, byte 20 */
    uint8_t pio_reg;                           /**< register, byte 21 */
    uint32_t pio_addr;                         /**< 24-bit address, bytes 22-24 */
    uint8_t ans_status;                        /**< high nibble of byte 25 */
    uint8_t ans_reply;                         /**< reply code, byte 27 */
    uint8_t data[KAVREL_DIRECT_CM2_MAX_DATA];  /**< data bytes */
    int32_t data_size;                         /**< bytes held in data */
    uint32_t crc;                              /**< last four bytes, big-endian */
    int32_t preamble_ok;                       /**< 1 when the preamble is right */
    int32_t crc_ok;                            /**< 1 when the CRC-32 matches */
} cm2_packet;

/** Identity of the active device, filled by kavrel_direct_get_device_info().
 *  168 bytes without gaps; every text is NUL-terminated. */
typedef struct kavrel_direct_device_info {
    uint32_t protocol;         /**< KAVREL_DIRECT_PROTOCOL_* */
    uint32_t capabilities;     /**< KAVREL_DIRECT_CAPABILITIES_* */
    char protocol_name[32];    /**< "UVVIS_CM2", "NIR_LEGACY" or "UNKNOWN" */
    char model[32];            /**< empty when the model could not be read */
    char serial_number[32];    /**< empty when it could not be read */
    char hardware_version[64]; /**< empty when it could not be read */
} kavrel_direct_device_info;

/** The selected wavelength range of the active device. */
typedef struct kavrel_direct_wavelength_selection {
    double requested_start;  /**< lower bound the application gave */
    double requested_end;    /**< upper bound the application gave */
    double actual_start;     /**< wavelength of the point at start_index */
    double actual_end;       /**< wavelength of the point at end_index */
    uint16_t start_index;    /**< first selected point */
    uint16_t end_index;      /**< last selected point */
    uint16_t selected_count; /**< end_index - start_index + 1 */
} kavrel_direct_wavelength_selection;

/* The records' layout is part of the ABI: applications in other languages
 * declare them field by field. These checks stop a build whose compiler
 * would lay them out otherwise. MSVC keeps __cplusplus at 199711L unless told
 * otherwise, yet has had static_assert since Visual Studio 2010; C before
 * C11 gets a typedef of an array whose size is negative when the check fails. */
#if defined(__cplusplus) && (__cplusplus >= 201103L || (defined(_MSC_VER) && _MSC_VER >= 1600))
#define KAVREL_DIRECT_LAYOUT_CHECK(name, condition) static_assert(condition, #name)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define KAVREL_DIRECT_LAYOUT_CHECK(name, condition) _Static_assert(condition, #name)
#else
#define KAVREL_DIRECT_LAYOUT_CHECK(name, condition) typedef char kavrel_direct_layout_##name[(condition) ? 1 : -1]
#endif

KAVREL_DIRECT_LAYOUT_CHECK(device_info_size, sizeof(kavrel_direct_device_info) == 168);
KAVREL_DIRECT_LAYOUT_CHECK(device_info_model, offsetof(kavrel_direct_device_info, model) == 40);
KAVREL_DIRECT_LAYOUT_CHECK(device_info_hardware_version,
                           offsetof(kavrel_direct_device_info, hardware_version) == 104);
KAVREL_DIRECT_LAYOUT_CHECK(selection_size, sizeof(kavrel_direct_wavelength_selection) == 40);
KAVREL_DIRECT_LAYOUT_CHECK(selection_actual_start,
                           offsetof(kavrel_direct_wavelength_selection, actual_start) == 16);
KAVREL_DIRECT_LAYOUT_CHECK(selection_start_index,
                           offsetof(kavrel_direct_wavelength_selection, start_index) == 32);
KAVREL_DIRECT_LAYOUT_CHECK(selection_selected_count,
                           offsetof(kavrel_direct_wavelength_selection, selected_count) == 36);
KAVREL_DIRECT_LAYOUT_CHECK(packet_size, sizeof(cm2_packet) == 24632);
KAVREL_DIRECT_LAYOUT_CHECK(packet_raw_len, offsetof(cm2_packet, raw_len) == 16384);
KAVREL_DIRECT_LAYOUT_CHECK(packet_ta, offsetof(cm2_packet, ta) == 16398);
KAVREL_DIRECT_LAYOUT_CHECK(packet_file_len, offsetof(cm2_packet, file_len) == 16404);
KAVREL_DIRECT_LAYOUT_CHECK(packet_pio_addr, offsetof(cm2_packet, pio_addr) == 16416);
KAVREL_DIRECT_LAYOUT_CHECK(packet_ans_reply, offsetof(cm2_packet, ans_reply) == 16421);
KAVREL_DIRECT_LAYOUT_CHECK(packet_data, offsetof(cm2_packet, data) == 16422);
KAVREL_DIRECT_LAYOUT_CHECK(packet_data_size, offsetof(cm2_packet, data_size) == 24616);
KAVREL_DIRECT_LAYOUT_CHECK(packet_crc_ok, offsetof(cm2_packet, crc_ok) == 24628);

/* ---------------------------------------------------------------------------
 * CM2 packet codec and trace. Pure functions: no device, no lock needed.
 * ------------------------------------------------------------------------- */

/** CRC-32 (IEEE 802.3, reflected 0xEDB88320) of length bytes.
 *  Returns the CRC; 0 when length is below 1 or bytes is null (nothing is
 *  read then). */
KAVREL_DIRECT_API uint32_t kavrel_direct_crc32(const uint8_t *bytes, int32_t length);

/** Takes a received CM2 packet apart into *out (cleared first).
 *  Results: 0 a packet of at least 24 bytes with a right preamble (a CRC
 *  mismatch still gives 0, with crc_ok 0); -1 a wrong preamble (fields
 *  filled, preamble_ok 0), a packet shorter than 24 bytes, a null packet or a
 *  length above 16384 (record all zero, nothing read), or a null out. */
KAVREL_DIRECT_API int32_t kavrel_direct_parse_response(const uint8_t *packet, int32_t length,
                                                       cm2_packet *out);

/** Prints length bytes as " %02X" groups, 16 per line, continuation lines
 *  indented by 7 spaces, then a line break. A null pointer or a length below
 *  1 prints only the line break. */
KAVREL_DIRECT_API void kavrel_direct_dump_hex(const uint8_t *bytes, int32_t length);

/** Name of a CM2 service code; "Unknown Service" for codes outside the table.
 *  The text is constant and lives as long as the library. */
KAVREL_DIRECT_API const char *kavrel_direct_srv_name(uint8_t code);

/** Name of a CM2 reply code; "Unknown Reply" for codes outside the table.
 *  The text is constant and lives as long as the library. */
KAVREL_DIRECT_API const char *kavrel_direct_ans_reply_name(uint8_t code);

/** Prints the field tree of a parsed packet on standard output (UTF-8).
 *  A null pointer prints nothing. */
KAVREL_DIRECT_API void kavrel_direct_print_parsed(const cm2_packet *packet);

/* ---------------------------------------------------------------------------
 * Device table
 * ------------------------------------------------------------------------- */

/** Closes the active device, once the operation in flight on it has ended,
 *  and frees its slot; afterwards no device is active. Other devices stay
 *  open. Does nothing when no device is active. */
KAVREL_DIRECT_API void kavrel_direct_close_device(void);

/** Closes every open device, each once the operation in flight on it has
 *  ended; afterwards no device is active. Does nothing when none is open. */
KAVREL_DIRECT_API void kavrel_direct_close_all_devices(void);

/** Returns 1 when a device is active (and open), else 0. */
KAVREL_DIRECT_API int32_t kavrel_direct_is_open(void);

/** Returns the number of open devices, 0 to 4. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_open_device_count(void);

/** Makes slot index (0 to 3) the active device.
 *  Results: 0 success; -5 index outside 0..3; -3 the slot is not open. On
 *  failure the active device is unchanged. */
KAVREL_DIRECT_API int32_t kavrel_direct_select_device(int32_t index);

/** How devices opened from now on settle their protocol:
 *  KAVREL_DIRECT_PROTOCOL_AUTO (probe), _CM2 or _NIR (forced, no probe).
 *  Devices open already keep theirs.
 *  Results: 0 success; -5 any other value (the old preference stays). */
KAVREL_DIRECT_API int32_t kavrel_direct_set_protocol_preference(int32_t preference);

/** Writes the active device's protocol identifier.
 *  Results: 0 success; -3 no active device (checked before the pointer);
 *  -5 null pointer. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_device_protocol(uint32_t *protocol);

/** Writes the active device's capability mask.
 *  Results: 0 success; -3 no active device (checked before the pointer);
 *  -5 null pointer. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_capabilities(uint32_t *capabilities);

/* ---------------------------------------------------------------------------
 * Discovery and open
 * ------------------------------------------------------------------------- */

/** Lists the attached bridges (at most 64), printing one line
 *  "[i] description (SN: serial)" per bridge on standard output.
 *  Returns the number listed, 1 to 64; 0 when listing fails, finds none, or
 *  no bridge driver can be loaded (nothing is printed then). */
KAVREL_DIRECT_API uint32_t kavrel_direct_scan_devices(void);

/** Copies the chip serial of bridge index into buffer (cut to
 *  buffer_size - 1 characters, always terminated).
 *  Results: 0 success; -5 null buffer, buffer_size below 2 or negative index
 *  (nothing is listed); -2 listing failed, found none, or no bridge at
 *  index. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_chip_serial_by_index(int32_t index, char *buffer,
                                                                 int32_t buffer_size);

/** Opens bridge index of the list, takes the lowest free slot, makes it
 *  active and settles the protocol (preference, or a CM2 probe and then an
 *  NIR probe; an instrument answering neither is treated as CM2 and the
 *  result is still 0). A bridge that is open already (same chip serial) is
 *  only made active again, with result 0.
 *  Results: 0 success; -5 negative index; -2 listing failed, found none, or
 *  no bridge at index; -6 the bridge could not be opened, or all four slots
 *  are in use (then the bridge is closed again). */
KAVREL_DIRECT_API int32_t kavrel_direct_open_device(int32_t index);

/** Opens the first bridge whose chip serial equals chip_serial exactly
 *  (case-sensitive), as kavrel_direct_open_device() does.
 *  Results: 0 success; -5 null or empty serial (nothing is listed); -2
 *  listing failed or no bridge has that serial; -6 as
 *  kavrel_direct_open_device(). */
KAVREL_DIRECT_API int32_t kavrel_direct_open_device_by_chip_serial(const char *chip_serial);

/* ---------------------------------------------------------------------------
 * Device operations. Each works on the active device and first checks that
 * one is active (-3), then its own arguments (-5), then that the device's
 * protocol has a form of the operation (-11); none of these refusals sends
 * anything. The arguments refused with -5 are an output pointer that the
 * operation would write, a null text buffer or a size below its minimum, and
 * a null serial-number text. Failures of the exchange with the instrument are
 * returned unchanged: -4, -7, -8, -9, -10 from a CM2 instrument, -4, -7, -9
 * from an NIR one; an answer shorter than the operation needs gives -4.
 * Setters pass their values without range checks.
 * ------------------------------------------------------------------------- */

/* Acquisition settings. The integration time (microseconds) and the average
 * number are cached per device: they size the spectrum time limit,
 * min(ceil(t / 1000) * max(n, 1) + 1000, 120000) ms. An average number of 0
 * is cached as 1. */

/** Sets the integration time in microseconds (NIR and CM2); on success the
 *  cached value follows, on failure it keeps its old value.
 *  Results: 0 success; -3 no active device; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_integration_time(uint32_t microseconds);
/** Reads the integration time in microseconds (NIR and CM2) and caches it.
 *  Results: 0 success; -3 no active device; -5 null pointer; -4 an answer
 *  under 4 bytes; -4, -7, -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_integration_time(uint32_t *microseconds);
/** Sets the number of spectra averaged per acquisition (NIR and CM2). 0 is
 *  sent as 0 and cached as 1; on failure the cache keeps its old value.
 *  Results: 0 success; -3 no active device; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_average_number(uint8_t average_number);
/** Reads the average number (NIR and CM2); 0 is reported as read and cached
 *  as 1.
 *  Results: 0 success; -3 no active device; -5 null pointer; -4 an answer
 *  under 2 bytes (NIR) or 4 bytes (CM2); -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_average_number(uint8_t *average_number);
/** Sets the level output (NIR and CM2).
 *  Results: 0 success; -3 no active device; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_level_output(uint8_t level);
/** Reads the level output (NIR and CM2).
 *  Results: 0 success; -3 no active device; -5 null pointer; -4 an empty
 *  answer (NIR) or one under 4 bytes (CM2); -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_level_output(uint8_t *level);
/** Sets the two xenon lamp pulse parameters (CM2 only).
 *  Results: 0 success; -3 no active device; -11 NIR instrument; -4, -7, -8,
 *  -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_xenon_pulse(uint32_t first, uint32_t second);
/** Reads the two xenon lamp pulse parameters (CM2 only).
 *  Results: 0 success; -3 no active device; -5 either pointer null; -11 NIR
 *  instrument; -4 an answer under 8 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_xenon_pulse(uint32_t *first, uint32_t *second);
/** Sets the xenon lamp mode (CM2 only).
 *  Results: 0 success; -3 no active device; -11 NIR instrument; -4, -7, -8,
 *  -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_xenon_mode(uint8_t mode);
/** Reads the xenon lamp mode (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null pointer; -11 NIR
 *  instrument; -4 an answer under 4 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_xenon_mode(uint8_t *mode);
/** Sets the three external trigger values (CM2 only).
 *  Results: 0 success; -3 no active device; -11 NIR instrument; -4, -7, -8,
 *  -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_external_trigger_config(uint8_t first, uint8_t second,
                                                                    uint8_t third);
/** Reads the three external trigger values (CM2 only).
 *  Results: 0 success; -3 no active device; -5 any pointer null; -11 NIR
 *  instrument; -4 an answer under 4 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_external_trigger_config(uint8_t *first, uint8_t *second,
                                                                    uint8_t *third);
/** Sets the 12-bit DAC value (low 12 bits used; CM2 only).
 *  Results: 0 success; -3 no active device; -11 NIR instrument; -4, -7, -8,
 *  -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_dac_voltage(uint16_t value);
/** Reads the 12-bit DAC value (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null pointer; -11 NIR
 *  instrument; -4 an answer under 4 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_dac_voltage(uint16_t *value);
/** Reads the 64-bit spectrum capture status word (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null pointer; -11 NIR
 *  instrument; -4 an answer under 8 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_spectrum_capture_status(uint64_t *status);

/* Identity and status. */

/** Reads the temperature in degrees, 0.0625 degree per count (NIR and CM2).
 *  NIR counts whose top five bits are set are below zero; CM2 counts never
 *  are.
 *  Results: 0 success; -3 no active device; -5 null pointer; -4 an answer
 *  under 2 bytes (NIR) or 4 bytes (CM2); -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_temperature(float *degrees);
/** Hardware version text (NIR: the instrument's text, at most 20 characters
 *  and empty when it sends none; CM2: "%02X.%02X.%02X.%02X").
 *  Results: 0 success; -3 no active device; -5 null buffer or size below 2;
 *  -4 an answer under 8 bytes (CM2); -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_hardware_version(char *buffer, int32_t size);
/** Detector serial number text, at most 8 characters (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null buffer or size below 1;
 *  -11 NIR instrument; -4 an answer under 8 bytes; -4, -7, -8, -9, -10 from
 *  the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_detector_serial_number(char *buffer, int32_t size);
/** Device model text (CM2: up to 16 characters; NIR: "NIR-T%u-%04X", or
 *  "NIR" when the instrument does not answer).
 *  Results: 0 success; -3 no active device; -5 null buffer or size below 2;
 *  CM2 only, since the NIR form never fails: -4 an answer under 16 bytes;
 *  -4, -7, -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_device_model(char *buffer, int32_t size);
/** Sets the USB baud-rate value (CM2 only).
 *  Results: 0 success; -3 no active device; -11 NIR instrument; -4, -7, -8,
 *  -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_usb_baud_rate(uint16_t value);
/** Reads the USB baud-rate value (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null pointer; -11 NIR
 *  instrument; -4 an answer under 4 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_usb_baud_rate(uint16_t *value);
/** Writes 1 when the USB status is set, else 0 (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null pointer; -11 NIR
 *  instrument; -4 an answer under 4 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_usb_status(uint32_t *status);
/** Writes the instrument serial number: its first 12 characters, padded
 *  with zero bytes (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null text; -11 NIR
 *  instrument; -4, -7, -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_serial_number(const char *serial_number);
/** Instrument serial number text (CM2: up to 12 characters; NIR: "NIR",
 *  nothing sent).
 *  Results: 0 success; -3 no active device; -5 null buffer or size below 2;
 *  -4 an answer under 12 bytes (CM2); -4, -7, -8, -9, -10 from the exchange
 *  (CM2). */
KAVREL_DIRECT_API int32_t kavrel_direct_get_serial_number(char *buffer, int32_t size);
/** Fills *info: protocol, capabilities, protocol name, then asks the model,
 *  serial number and hardware version in that order; a field whose request
 *  fails is left empty and the result is still 0.
 *  Results: 0 success; -3 no active device; -5 null pointer. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_device_info(kavrel_direct_device_info *info);

/* Stored defaults and maintenance. */

/** Stored integration time (CM2 only). The cached integration time is not
 *  changed.
 *  Results: 0 success; -3 no active device; -11 NIR instrument; -4, -7, -8,
 *  -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_stored_integration_time(uint32_t value);
/** Reads the stored integration time (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null pointer; -11 NIR
 *  instrument; -4 an answer under 4 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_stored_integration_time(uint32_t *value);
/** Stored average number (CM2 only). The cached average number is not
 *  changed.
 *  Results: 0 success; -3 no active device; -11 NIR instrument; -4, -7, -8,
 *  -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_stored_average_number(uint8_t value);
/** Reads the stored average number (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null pointer; -11 NIR
 *  instrument; -4 an answer under 4 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_stored_average_number(uint8_t *value);
/** Stored smoothing width (CM2; an NIR instrument keeps none, so there the
 *  call sends nothing and returns 0).
 *  Results: 0 success; -3 no active device; -4, -7, -8, -9, -10 from the
 *  exchange (CM2). */
KAVREL_DIRECT_API int32_t kavrel_direct_set_stored_smoothing_width(uint8_t value);
/** Reads the stored smoothing width (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null pointer; -11 NIR
 *  instrument; -4 an answer under 4 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_stored_smoothing_width(uint8_t *value);
/** Reads the slit width (CM2 only).
 *  Results: 0 success; -3 no active device; -5 null pointer; -11 NIR
 *  instrument; -4 an answer under 4 bytes; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_slit_width(uint8_t *value);
/** Opens the flash write protection (NIR and CM2). Nothing closes it again.
 *  Results: 0 success; -3 no active device; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_flash_write_protect(void);
/** Writes 1 while the flash write protection is open, else 0 (NIR and CM2).
 *  Results: 0 success; -3 no active device; -5 null pointer; -4 an empty
 *  answer (NIR) or one under 4 bytes (CM2); -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_flash_write_protect(uint32_t *is_open);
/** Resets the instrument (NIR and CM2). On success the cached point count and
 *  the selected wavelength range are cleared; on failure nothing changes.
 *  The cached integration time and average number are kept.
 *  Results: 0 success; -3 no active device; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_reset_device(void);

/* ---------------------------------------------------------------------------
 * Spectral data and memory
 * ------------------------------------------------------------------------- */

/* Wavelength points are numbered in detector order from 0; the library reads
 * at most 2048 of them. Each wavelength is sent as a single-precision float
 * and handed over widened to a double, unit as the instrument reports it.
 * The point count is cached per device for the CM2 table and spectrum reads;
 * the selected range is kept per device until a new one is set, the device is
 * reset, or it is closed.
 *
 * An NIR instrument has no point-count request: the library reads its whole
 * table and counts the entries. Below, "a bad count or table answer" is a
 * CM2 count answer under 4 bytes, or an NIR table reply that is empty or not
 * whole 4-byte entries; both give -4. */

/** The four calibration coefficients as the instrument stores them, each an
 *  8-byte big-endian value put into host order and returned as the IEEE-754
 *  double with that bit pattern; the library does no arithmetic on them.
 *  NIR and CM2.
 *  Results: 0 success; -3 no active device; -5 null pointer; -4 an answer
 *  under 32 bytes; -4, -7, -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_calibration_coefficients(double coefficients[4]);

/** Number of wavelength points; always asks the instrument (NIR: by reading
 *  its whole table) and caches the answer. NIR and CM2.
 *  Results: 0 success; -3 no active device; -5 null pointer, or the table
 *  buffer could not be allocated (NIR); -4 a bad count or table answer;
 *  -4, -7, -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_wavelength_count(uint16_t *count);

/** The whole wavelength table into wavelengths[0..capacity). NIR and CM2.
 *  NIR: the count is the number of entries the reply carries (cached).
 *  CM2: the cached count (read first when not known) must fit capacity; then
 *  as many entries as the answer holds, up to capacity, are written and the
 *  rest of the array is left alone (an answer without a whole entry writes
 *  nothing and still returns 0). The application learns how many entries are
 *  due from kavrel_direct_get_wavelength_count().
 *  Results: 0 success; -3 no active device; -5 null array, capacity below 1
 *  or below the point count (then nothing is written and a CM2 instrument is
 *  not asked for its table), or a buffer could not be allocated; -4 a bad
 *  count or table answer; -4, -7, -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_full_wavelength_data(double *wavelengths, int32_t capacity);

/** The table's two end values, smaller first (first entry and last entry,
 *  swapped when descending; with a NaN at either end nothing is swapped).
 *  Asks for the count, then reads the whole table. NIR and CM2. No end value
 *  ever comes from memory the instrument did not fill.
 *  Results: 0 success; -3 no active device; -5 either pointer null, a buffer
 *  could not be allocated, or an NIR table that grew between the call's two
 *  reads; -4 the instrument reports no points, the table answer holds fewer
 *  entries than the count just read, or a bad count or table answer; -4, -7,
 *  -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_full_wavelength_range(double *first, double *last);

/** Selects the run of points from the first to the last whose wavelengths
 *  lie in [start, end] (both bounds included, a NaN entry never inside; in a
 *  table that is not monotonic the points between them belong to the run
 *  whatever their wavelength). Reads the end values, then the count and the
 *  table again; the scan never looks at memory the instrument did not fill.
 *  NIR and CM2. A failed call keeps the previous selection (or its absence).
 *  Results: 0 success; -3 no active device; -5 unless end > start (also for
 *  a NaN bound; nothing sent), bounds beyond the table's end values, no point
 *  inside, a buffer could not be allocated, or an NIR table that grew
 *  between two of the call's reads; -4 the instrument reports 0 or more than
 *  2048 points, a table answer holds fewer entries than the count just read,
 *  or a bad count or table answer; -4, -7, -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_set_selected_wavelength_range(double start, double end);

/** Copies the selected range; nothing is sent to the instrument.
 *  Results: 0 success; -3 no active device; -5 null pointer; -1 no range
 *  selected. */
KAVREL_DIRECT_API int32_t
kavrel_direct_get_selected_wavelength_range(kavrel_direct_wavelength_selection *selection);

/** Wavelengths of the selected points into wavelengths[0..selected_count).
 *  NIR reads the count and the whole table and cuts the run out of it; CM2
 *  reads only the selected entries, and writes as many as its answer holds
 *  (an answer without a whole entry writes nothing and still returns 0).
 *  Results: 0 success; -3 no active device; -5 null array; -1 no range
 *  selected; -5 capacity below the selected count, a buffer could not be
 *  allocated, or an NIR table that grew between the call's two reads; -4 an
 *  NIR table that no longer reaches the end of the selection (the instrument
 *  reports fewer points than when the range was set; nothing is copied), or
 *  an NIR table reply that is empty or not whole 4-byte entries; -4, -7, -8,
 *  -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_selected_wavelength_data(double *wavelengths, int32_t capacity);

/* Spectra. Samples are unsigned 16-bit, one per wavelength point, in
 * detector order. Each call acquires a fresh spectrum and waits for it up to
 * the spectrum time limit; a -9 from the exchange means no spectrum came
 * within it.
 *
 * A spectrum that gives -9 may still be on its way: the instrument goes on
 * integrating and sends it late. Every request first drops the bytes that
 * have arrived, but bytes still on the wire arrive afterwards, and both
 * protocols take any well-formed reply as the answer, so the late spectrum
 * can be taken as the answer of the next request. After a -9 on a spectrum,
 * let the rest of the integration time (integration time x averages) pass
 * before the next request, or close and reopen the device. */

/** Acquires one whole spectrum into samples[0..capacity). NIR and CM2.
 *  NIR: the samples are what the reply carries between its optional start
 *  mark (AA 55 BB 44, or AA 55 BB 44 CC 33 DD 22) and its optional end mark
 *  (DD DD AA AA); their number is cached as the point count.
 *  CM2: the cached count (read first when not known) must fit capacity; then
 *  as many samples as the answer holds, up to capacity, are written and the
 *  rest of the array is left alone (an answer without data writes nothing and
 *  still returns 0).
 *  Results: 0 success; -3 no active device; -5 null array, capacity below 1
 *  or below the number of samples due (nothing is written; CM2 sends no
 *  spectrum request), or a buffer could not be allocated; -4 an NIR frame
 *  with no sample bytes or an odd number of them, or a CM2 count answer
 *  under 4 bytes; -4, -7, -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_full_spectrum_data(uint16_t *samples, int32_t capacity);

/** Acquires one spectrum and writes its selected points into
 *  samples[0..selected_count). Asks for the point count, then acquires the
 *  whole spectrum. NIR and CM2. Samples the instrument did not send are never
 *  handed over.
 *  Results: 0 success; -3 no active device; -5 null array; -1 no range
 *  selected; -5 capacity below the selected count, a buffer could not be
 *  allocated, or an NIR frame with more samples than the table has points;
 *  -4 the point count no longer reaches the end of the selection (no
 *  spectrum is then acquired), the spectrum holds fewer samples than the
 *  selection needs, an NIR frame with no sample bytes or an odd number of
 *  them, or a bad count or table answer; -4, -7, -8, -9, -10 from the
 *  exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_get_selected_spectrum_data(uint16_t *samples, int32_t capacity);

/* Flash memory pages. The page number is passed on unchanged. The CM2 forms
 * poll the instrument up to 50 times, 50 ms apart, for completion: -4 when it
 * reports failure or its status answer is under 8 bytes, -9 when it has not
 * completed after the last poll. */

/** Reads flash page into buffer. NIR and CM2.
 *  NIR: at most length bytes of the reply are stored.
 *  CM2: the page buffer is read in whole words, ceil(length / 4) of them and
 *  at most 256, so buffer must hold length rounded up to a multiple of 4, at
 *  most 1024 bytes (length 10 stores up to 12 bytes and returns 12 for a full
 *  reply); a longer answer is cut at that room. Length 0 asks for no words.
 *  A null buffer is not refused: the page is read, its data dropped, and the
 *  number of data bytes the reply carried is returned.
 *  Returns the number of bytes stored (0 or more), or -3 no active device;
 *  -5 a null buffer or a length below 1 (NIR), a negative length (CM2),
 *  nothing sent; -4, -9 from the completion poll (CM2); -4, -7, -8, -9, -10
 *  from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_flash_read(uint16_t page, uint8_t *buffer, int32_t length);

/** Writes length bytes to flash page. NIR and CM2.
 *  NIR: one command carries the page number and the data.
 *  CM2: opens the flash write protection (left open afterwards), fills the
 *  page buffer in one write packet and commands the write with the CRC-32 of
 *  the length bytes given; length 0 writes an empty page buffer with CRC 0.
 *  A failure part-way leaves what the instrument had received.
 *  Results: 0 success; -3 no active device; -5 nothing sent (the write
 *  protection included): NIR null data, a length below 1 or above 8187 (one
 *  command), or the command buffer could not be allocated; CM2 a negative
 *  length, a length above 2016 (one write packet), or null data with a
 *  length above 0; -4, -9 from the completion poll (CM2); -4, -7, -8, -9, -10
 *  from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_flash_write(uint16_t page, const uint8_t *data, int32_t length);

/** Starts an externally controlled spectrum with control, waits for it (up
 *  to 200 polls 10 ms apart) and reads it into spectrum (CM2 only). The
 *  transfer buffer holds min(2 * count, 4096) bytes and a longer answer is
 *  cut there, so at most count values are stored; the values beyond those
 *  the answer holds are left alone.
 *  Returns twice the number of values stored, or -3 no active device; -5 a
 *  null spectrum or a count below 1 (nothing sent); -11 NIR instrument; -4
 *  the instrument reports failure or a status answer under 8 bytes; -9 no
 *  completion after 200 polls; -5 the transfer buffer could not be allocated
 *  (after the handshake); -4, -7, -8, -9, -10 from the exchange. */
KAVREL_DIRECT_API int32_t kavrel_direct_external_spectrum_control(uint16_t control, uint16_t *spectrum,
                                                                  int32_t count);

#ifdef __cplusplus
}
#endif

#endif /* KAVREL_DIRECT_H */
