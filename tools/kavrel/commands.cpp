// scan, info, get, set, wavelengths, select, flash, external, reset, and the
// two codec helpers crc and parse.
#include "commands.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>

#include "settings.h"

namespace kavrel::cli {
namespace {

[[noreturn]] void no_bridge(const Session &session) {
    fail(exit_status_of(KAVREL_DIRECT_ERR_NO_DEVICE),
         session.simulated() ? "no_device: the simulated world has no bridge"
                             : "no_device: no bridge found. Try `kavrel doctor` to see why, or `kavrel --sim ...` "
                               "to work with simulated instruments");
}

const char *protocol_text(uint32_t protocol) {
    return protocol == KAVREL_DIRECT_PROTOCOL_NIR ? "NIR_LEGACY" : "UVVIS_CM2";
}

// Rows of "name  value" with the values lined up.
void print_rows(const std::vector<std::pair<std::string, std::string>> &rows) {
    size_t width = 0;
    for (const auto &row : rows) width = std::max(width, row.first.size());
    for (const auto &row : rows) std::printf("%-*s  %s\n", static_cast<int>(width), row.first.c_str(), row.second.c_str());
}

uint16_t parse_u16(const std::string &text, const char *what) {
    return static_cast<uint16_t>(parse_unsigned(text, 0xFFFF, what));
}

}  // namespace

std::vector<platform::BridgeEntry> list_bridges(Session &session) {
    const platform::Bridge bridge(session.provider());
    uint32_t count = 0;
    if (bridge.create_device_info_list(&count) != platform::kOk || count == 0) return {};
    std::vector<platform::BridgeEntry> entries(std::min<uint32_t>(count, 64));
    count = static_cast<uint32_t>(entries.size());
    if (bridge.get_device_info_list(entries.data(), &count) != platform::kOk) return {};
    entries.resize(std::min<size_t>(count, entries.size()));
    return entries;
}

std::vector<Probe> probe_bridges(Session &session) {
    session.release_instrument();
    std::vector<Probe> probes;
    for (const platform::BridgeEntry &entry : list_bridges(session)) {
        Probe probe;
        probe.chip_serial = entry.serial_number;
        probe.description = entry.description;
        probes.push_back(probe);
    }
    // Four instruments can be open at once: probe in groups of four, each
    // opened into the lowest free slot and then selected in turn.
    for (size_t first = 0; first < probes.size(); first += 4) {
        std::vector<size_t> opened;
        for (size_t i = first; i < probes.size() && i < first + 4; ++i) {
            probes[i].open_result = kavrel_direct_open_device_by_chip_serial(probes[i].chip_serial.c_str());
            if (probes[i].open_result == KAVREL_DIRECT_OK) opened.push_back(i);
        }
        const int32_t open_count = kavrel_direct_get_open_device_count();
        for (int32_t slot = 0; slot < open_count && static_cast<size_t>(slot) < opened.size(); ++slot) {
            if (kavrel_direct_select_device(slot) != KAVREL_DIRECT_OK) continue;
            Probe &probe = probes[opened[static_cast<size_t>(slot)]];
            kavrel_direct_get_device_info(&probe.info);
            // An instrument that answers neither protocol is taken for CM2
            // when opened; only an answer to a CM2 request tells them apart.
            probe.answers = probe.info.protocol == KAVREL_DIRECT_PROTOCOL_NIR || probe.info.model[0] != '\0' ||
                            probe.info.hardware_version[0] != '\0';
            // Closing frees this slot only; the others keep their numbers.
            kavrel_direct_close_device();
        }
        kavrel_direct_close_all_devices();
    }
    return probes;
}

int run_scan(Session &session, const ScanArgs &args) {
    session.start();
    if (args.format == Format::text && !args.probe) {
        // The library's own listing: "[i] description (SN: serial)".
        const uint32_t listed = kavrel_direct_scan_devices();
        std::fflush(stdout);
        if (listed == 0) no_bridge(session);
        return kExitOk;
    }
    std::vector<Probe> probes;
    if (args.probe) {
        probes = probe_bridges(session);
    } else {
        for (const platform::BridgeEntry &entry : list_bridges(session)) {
            Probe p;
            p.chip_serial = entry.serial_number;
            p.description = entry.description;
            probes.push_back(p);
        }
    }
    if (probes.empty()) no_bridge(session);

    auto answer_text = [](const Probe &p) -> std::string {
        if (p.open_result != KAVREL_DIRECT_OK) return std::string("cannot open: ") + result_name(p.open_result);
        if (!p.answers) return "answers neither CM2 nor NIR";
        return protocol_text(p.info.protocol);
    };
    if (args.format == Format::json) {
        nlohmann::json list = nlohmann::json::array();
        for (size_t i = 0; i < probes.size(); ++i) {
            nlohmann::json row = {{"index", i}, {"chip_serial", probes[i].chip_serial},
                                  {"description", probes[i].description}};
            if (args.probe) {
                row["answers"] = probes[i].answers;
                row["protocol"] = probes[i].answers ? protocol_text(probes[i].info.protocol) : nullptr;
                row["model"] = probes[i].info.model;
                row["serial_number"] = probes[i].info.serial_number;
                if (probes[i].open_result != KAVREL_DIRECT_OK) row["open_error"] = result_name(probes[i].open_result);
            }
            list.push_back(row);
        }
        print_json(stdout, list);
    } else if (args.format == Format::csv) {
        std::printf(args.probe ? "index,chip_serial,description,protocol,model\n" : "index,chip_serial,description\n");
        for (size_t i = 0; i < probes.size(); ++i) {
            std::printf("%zu,%s,%s", i, probes[i].chip_serial.c_str(), probes[i].description.c_str());
            if (args.probe) std::printf(",%s,%s", answer_text(probes[i]).c_str(), probes[i].info.model);
            std::printf("\n");
        }
    } else {
        for (size_t i = 0; i < probes.size(); ++i)
            std::printf("[%zu] %s (SN: %s)  %s %s\n", i, probes[i].description.c_str(), probes[i].chip_serial.c_str(),
                        answer_text(probes[i]).c_str(), probes[i].info.model);
    }
    return kExitOk;
}

int run_info(Session &session, Format output_format) {
    const Instrument &instrument = session.instrument();
    kavrel_direct_device_info info{};
    session.check(kavrel_direct_get_device_info(&info), {"reading the device information"});
    const double limit = session.register_limit_ms(false);
    float degrees = 0;
    session.check(kavrel_direct_get_temperature(&degrees), {"reading the temperature", limit});
    uint16_t points = 0;
    session.check(kavrel_direct_get_wavelength_count(&points), {"reading the point count", limit});
    double first = 0, last = 0;
    session.check(kavrel_direct_get_full_wavelength_range(&first, &last), {"reading the wavelength range", limit});
    // The USB status has no NIR form.
    bool has_usb_status = !instrument.nir();
    uint32_t usb_status = 0;
    if (has_usb_status) session.check(kavrel_direct_get_usb_status(&usb_status), {"reading the USB status", limit});

    if (output_format == Format::json) {
        nlohmann::json j = {{"chip_serial", instrument.chip_serial},
                            {"open", kavrel_direct_is_open() == 1},
                            {"protocol", info.protocol_name},
                            {"capabilities", info.capabilities},
                            {"model", info.model},
                            {"serial_number", info.serial_number},
                            {"hardware_version", info.hardware_version},
                            {"temperature_c", degrees},
                            {"points", points},
                            {"wavelength_first_nm", float_json(first)},
                            {"wavelength_last_nm", float_json(last)},
                            {"usb_status", has_usb_status ? nlohmann::json(usb_status) : nlohmann::json()}};
        print_json(stdout, j);
        return kExitOk;
    }
    print_rows({{"chip serial", instrument.chip_serial},
                {"protocol", format("%s (capabilities 0x%04lX)", info.protocol_name,
                                    static_cast<unsigned long>(info.capabilities))},
                {"model", info.model},
                {"serial number", info.serial_number},
                {"hardware version", info.hardware_version},
                {"temperature", format("%.4g degC", static_cast<double>(degrees))},
                {"points", std::to_string(points)},
                {"wavelength range", float_text(first) + " to " + float_text(last) + " nm"},
                {"USB status", has_usb_status ? (usb_status != 0 ? "set" : "not set") : "n/a (CM2 only)"}});
    return kExitOk;
}

int run_get(Session &session, const GetArgs &args) {
    if (args.list) {
        if (args.format == Format::json) {
            nlohmann::json list = nlohmann::json::array();
            for (const Setting &s : settings())
                list.push_back({{"name", s.name}, {"unit", s.unit}, {"protocols", s.cm2_only ? "CM2" : "CM2 NIR"},
                                {"settable", s.values > 0}, {"about", s.about}});
            print_json(stdout, list);
            return kExitOk;
        }
        std::printf("%-24s %-14s %-9s %-5s %s\n", "NAME", "UNIT", "PROTOCOL", "SET", "ABOUT");
        for (const Setting &s : settings())
            std::printf("%-24s %-14s %-9s %-5s %s\n", s.name, s.unit, s.cm2_only ? "CM2" : "CM2 NIR",
                        s.values > 0 ? "yes" : "no", s.about);
        return kExitOk;
    }
    std::vector<const Setting *> wanted;
    for (const std::string &name : args.names) wanted.push_back(&find_setting(name));
    if (args.all) {
        const bool nir = session.instrument().nir();
        for (const Setting &s : settings())
            if (!(nir && s.cm2_only)) wanted.push_back(&s);
    }
    if (wanted.empty()) fail(kExitUsage, "get: name a setting, or ask for --list or --all");
    session.instrument();

    std::vector<Reading> readings;
    for (const Setting *s : wanted) readings.push_back(s->get(session, *s));
    if (args.format == Format::json) {
        nlohmann::json j = nlohmann::json::object();
        for (size_t i = 0; i < wanted.size(); ++i) j[wanted[i]->name] = readings[i].value;
        print_json(stdout, j);
    } else if (wanted.size() == 1) {
        // One value alone, ready for a shell variable.
        std::printf("%s\n", readings[0].text.c_str());
    } else {
        std::vector<std::pair<std::string, std::string>> rows;
        for (size_t i = 0; i < wanted.size(); ++i)
            rows.emplace_back(wanted[i]->name, readings[i].text + (std::strcmp(wanted[i]->unit, "text") == 0 ||
                                                                           std::strcmp(wanted[i]->unit, "name") == 0
                                                                       ? ""
                                                                       : std::string(" ") + wanted[i]->unit));
        print_rows(rows);
    }
    return kExitOk;
}

int run_set(Session &session, const SetArgs &args) {
    const Setting &s = find_setting(args.name);
    if (s.values == 0) fail(kExitUsage, std::string(s.name) + " can be read but not set");
    if (args.values.size() != s.values)
        fail(kExitUsage, format("%s takes %zu value%s: %s", s.name, s.values, s.values == 1 ? "" : "s", s.value_names));
    session.instrument();
    s.set(session, s, args.values);
    session.detail(std::string(s.name) + " set");
    return kExitOk;
}

int run_wavelengths(Session &session, const WavelengthArgs &args) {
    session.instrument();
    const double limit = session.register_limit_ms(false);
    Output out(args.output, false);
    const bool json = args.format == Format::json;
    if (args.coefficients) {
        double c[4];
        session.check(kavrel_direct_get_calibration_coefficients(c), {"reading the calibration coefficients", limit});
        if (json) {
            print_json(out.stream(), {{"coefficients", {c[0], c[1], c[2], c[3]}}});
        } else {
            std::fprintf(out.stream(), "c0,c1,c2,c3\n%s,%s,%s,%s\n", double_text(c[0]).c_str(),
                         double_text(c[1]).c_str(), double_text(c[2]).c_str(), double_text(c[3]).c_str());
        }
    } else if (args.range) {
        double first = 0, last = 0;
        session.check(kavrel_direct_get_full_wavelength_range(&first, &last), {"reading the wavelength range", limit});
        if (json)
            print_json(out.stream(), {{"first_nm", float_json(first)}, {"last_nm", float_json(last)}});
        else
            std::fprintf(out.stream(), "first_nm,last_nm\n%s,%s\n", float_text(first).c_str(), float_text(last).c_str());
    } else {
        std::vector<double> table;
        uint32_t first_index = 0;
        if (args.selected) {
            kavrel_direct_wavelength_selection selection{};
            session.check(kavrel_direct_get_selected_wavelength_range(&selection),
                          {"", 0, "no wavelength range is selected: select one first on the same command line, "
                                  "e.g. kavrel select 400 700 wavelengths --selected"});
            table.resize(selection.selected_count);
            first_index = selection.start_index;
            session.check(kavrel_direct_get_selected_wavelength_data(table.data(), static_cast<int32_t>(table.size())),
                          {"reading the selected wavelengths", limit});
        } else {
            uint16_t count = 0;
            session.check(kavrel_direct_get_wavelength_count(&count), {"reading the point count", limit});
            table.resize(count);
            session.check(kavrel_direct_get_full_wavelength_data(table.data(), static_cast<int32_t>(table.size())),
                          {"reading the wavelength table", limit});
        }
        if (json) {
            nlohmann::json values = nlohmann::json::array();
            for (double w : table) values.push_back(float_json(w));
            print_json(out.stream(), {{"first_index", first_index}, {"wavelength_nm", values}});
        } else {
            std::fputs("index,wavelength_nm\n", out.stream());
            for (size_t i = 0; i < table.size(); ++i)
                std::fprintf(out.stream(), "%zu,%s\n", first_index + i, float_text(table[i]).c_str());
        }
    }
    out.finish();
    return kExitOk;
}

int run_select(Session &session, const SelectArgs &args) {
    const double start = parse_double(args.start, "START"), end = parse_double(args.end, "END");
    session.instrument();
    Ask ask{format("selecting %s to %s nm: END must be above START, both within the table's end values, with a "
                   "point between them (kavrel wavelengths --range)",
                   args.start.c_str(), args.end.c_str()),
            session.register_limit_ms(false)};
    session.check(kavrel_direct_set_selected_wavelength_range(start, end), ask);
    kavrel_direct_wavelength_selection s{};
    session.check(kavrel_direct_get_selected_wavelength_range(&s), {"reading the selection"});
    if (args.format == Format::json) {
        print_json(stdout, {{"requested_start_nm", s.requested_start},
                            {"requested_end_nm", s.requested_end},
                            {"start_nm", float_json(s.actual_start)},
                            {"end_nm", float_json(s.actual_end)},
                            {"start_index", s.start_index},
                            {"end_index", s.end_index},
                            {"points", s.selected_count}});
    } else {
        session.note(format("selected %u points, index %u to %u, %s to %s nm", s.selected_count, s.start_index,
                            s.end_index, float_text(s.actual_start).c_str(), float_text(s.actual_end).c_str()));
    }
    return kExitOk;
}

int run_flash_read(Session &session, const FlashArgs &args) {
    const uint16_t page = parse_u16(args.page, "PAGE");
    const Instrument &instrument = session.instrument();
    if (args.length < 1 || (!instrument.nir() && args.length > 1024))
        fail(kExitUsage, "--length: from 1 to 1024 bytes (a CM2 page buffer read)");
    // A CM2 read stores whole 4-byte words.
    std::vector<uint8_t> buffer(static_cast<size_t>(args.length + 3) / 4 * 4);
    const int32_t got = kavrel_direct_flash_read(page, buffer.data(), args.length);
    session.check(got, {format("reading flash page %u%s", page, instrument.nir() ? "" : ", 50 polls 50 ms apart"),
                        instrument.nir() ? 1000.0 : 2500.0});
    buffer.resize(std::min(static_cast<size_t>(got), static_cast<size_t>(args.length)));

    Output out(args.file, true);
    if (args.hex || (out.to_stdout() && is_terminal(stdout))) {
        std::fprintf(out.stream(), "page %u, %zu bytes:\n       ", page, buffer.size());
        std::fflush(out.stream());
        if (out.to_stdout()) {
            kavrel_direct_dump_hex(buffer.data(), static_cast<int32_t>(buffer.size()));
        } else {
            for (size_t i = 0; i < buffer.size(); ++i)
                std::fprintf(out.stream(), " %02X%s", buffer[i], (i + 1) % 16 == 0 && i + 1 < buffer.size() ? "\n       " : "");
            std::fputc('\n', out.stream());
        }
    } else {
        std::fwrite(buffer.data(), 1, buffer.size(), out.stream());
    }
    out.finish();
    session.detail(format("read %zu bytes of flash page %u", buffer.size(), page));
    return kExitOk;
}

int run_flash_write(Session &session, const FlashArgs &args) {
    const uint16_t page = parse_u16(args.page, "PAGE");
    const std::vector<uint8_t> data = read_bytes(args.file);
    const Instrument &instrument = session.instrument();
    const size_t most = instrument.nir() ? 8187 : 2016;
    if (data.empty() || data.size() > most)
        fail(kExitUsage, format("flash write: %s holds %zu bytes; one page write carries 1 to %zu bytes on %s",
                                args.file.c_str(), data.size(), most, instrument.protocol_name()));
    const int32_t rc = kavrel_direct_flash_write(page, data.data(), static_cast<int32_t>(data.size()));
    // The NIR form, unlike the CM2 one, does not open the write protection
    // itself, and an instrument that keeps it closed refuses the command.
    uint32_t is_open = 1;
    if (rc == KAVREL_DIRECT_ERR_IO && instrument.nir() && kavrel_direct_get_flash_write_protect(&is_open) == 0 &&
        is_open == 0)
        fail(exit_status_of(rc), format("io: the instrument refused the write: its flash write protection is closed "
                                        "(kavrel set flash_write_protect open flash write %u %s)",
                                        page, args.file.c_str()));
    session.check(rc,
                  {format("writing flash page %u%s", page, instrument.nir() ? "" : ", 50 polls 50 ms apart"),
                   instrument.nir() ? 1000.0 : 2500.0});
    session.note(format("wrote %zu bytes to flash page %u", data.size(), page));
    return kExitOk;
}

int run_reset(Session &session) {
    session.instrument();
    session.check(kavrel_direct_reset_device(), {"resetting", session.register_limit_ms(true)});
    session.note("reset " + session.instrument().chip_serial);
    return kExitOk;
}

int run_crc(const std::string &path) {
    const std::vector<uint8_t> bytes = read_bytes(path);
    if (bytes.size() > 0x7FFFFFFFu) fail(kExitFile, path + ": more than 2 GiB");
    std::printf("%08lX\n", static_cast<unsigned long>(
                                kavrel_direct_crc32(bytes.data(), static_cast<int32_t>(bytes.size()))));
    return kExitOk;
}

int run_parse(const std::vector<std::string> &hex) {
    std::string text;
    if (hex.size() == 1 && hex[0] == "-") {
        const std::vector<uint8_t> in = read_bytes("-");
        text.assign(in.begin(), in.end());
    } else {
        for (const std::string &part : hex) text += part + " ";
    }
    // Hex digits, with spaces, colons, commas or "0x" between bytes as they
    // come from dumps and logs.
    std::vector<uint8_t> bytes;
    std::string digits;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
            ++i;
            continue;
        }
        if (std::isxdigit(static_cast<unsigned char>(c))) {
            digits += c;
            if (digits.size() == 2) {
                bytes.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
                digits.clear();
            }
        } else if (!std::isspace(static_cast<unsigned char>(c)) && c != ':' && c != ',') {
            fail(kExitUsage, format("parse: \"%c\" is not a hex digit", c));
        } else if (!digits.empty()) {
            fail(kExitUsage, "parse: a byte needs two hex digits");
        }
    }
    if (!digits.empty()) fail(kExitUsage, "parse: an odd number of hex digits");
    if (bytes.size() > KAVREL_DIRECT_CM2_MAX_PACKET)
        fail(exit_status_of(KAVREL_DIRECT_ERR_GENERIC), "generic: a CM2 packet holds at most 16384 bytes");

    auto packet = std::make_unique<cm2_packet>();
    const int32_t rc = kavrel_direct_parse_response(bytes.data(), static_cast<int32_t>(bytes.size()), packet.get());
    if (rc != 0 && bytes.size() < 24)
        fail(exit_status_of(rc), format("generic: not a CM2 packet: %zu bytes, a packet has at least 24", bytes.size()));
    std::printf("[PACKET] (%zu bytes):\n       ", bytes.size());
    kavrel_direct_dump_hex(bytes.data(), static_cast<int32_t>(bytes.size()));
    std::printf("[PARSED]:\n");
    kavrel_direct_print_parsed(packet.get());
    std::fflush(stdout);
    if (rc != 0)
        fail(exit_status_of(rc), "generic: not a CM2 packet: it does not begin with the preamble AA AA AA AA AA AA AA AB");
    if (packet->crc_ok != 1)
        fail(exit_status_of(KAVREL_DIRECT_ERR_CRC), "crc: the packet's CRC-32 does not match its contents");
    return kExitOk;
}

}  // namespace kavrel::cli
