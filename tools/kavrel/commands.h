// The subcommands. Each returns its exit status or ends with a Failure.
#ifndef KAVREL_TOOLS_COMMANDS_H
#define KAVREL_TOOLS_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "output.h"
#include "session.h"

namespace kavrel::cli {

struct ScanArgs {
    Format format = Format::text;
    bool probe = false;
};
int run_scan(Session &session, const ScanArgs &args);

// The bridges the provider in force lists.
std::vector<platform::BridgeEntry> list_bridges(Session &session);

// What each listed bridge answers when opened.
struct Probe {
    std::string chip_serial;
    std::string description;
    int32_t open_result = 0;
    bool answers = false;  // it answered CM2 or NIR
    kavrel_direct_device_info info{};
};
std::vector<Probe> probe_bridges(Session &session);

int run_info(Session &session, Format output_format);

struct GetArgs {
    std::vector<std::string> names;
    bool list = false;
    bool all = false;
    Format format = Format::text;
};
int run_get(Session &session, const GetArgs &args);

struct SetArgs {
    std::string name;
    std::vector<std::string> values;
};
int run_set(Session &session, const SetArgs &args);

struct WavelengthArgs {
    bool range = false;
    bool coefficients = false;
    bool selected = false;
    Format format = Format::csv;
    std::string output;
};
int run_wavelengths(Session &session, const WavelengthArgs &args);

struct SelectArgs {
    std::string start, end;
    Format format = Format::text;
};
int run_select(Session &session, const SelectArgs &args);

struct AcquireArgs {
    size_t count = 1;
    std::string integration;  // empty: as the instrument is set
    int average = -1;         // -1: as the instrument is set
    bool selected = false;
    std::string dark;
    Format format = Format::csv;
    std::string output;
    bool plot = false;
};
int run_acquire(Session &session, const AcquireArgs &args);

struct FlashArgs {
    std::string page;
    std::string file;    // write: the data; read: -o
    int32_t length = 1024;
    bool hex = false;
};
int run_flash_read(Session &session, const FlashArgs &args);
int run_flash_write(Session &session, const FlashArgs &args);

struct ExternalArgs {
    std::string control;
    Format format = Format::csv;
    std::string output;
    bool plot = false;
};
int run_external(Session &session, const ExternalArgs &args);

int run_reset(Session &session);
int run_crc(const std::string &path);
int run_parse(const std::vector<std::string> &hex);
int run_doctor(Session &session);

}  // namespace kavrel::cli

#endif
