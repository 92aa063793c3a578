// `kavrel get` and `kavrel set`: every setting, stored value and identity
// item of the library as a named row of one table.
#ifndef KAVREL_TOOLS_SETTINGS_H
#define KAVREL_TOOLS_SETTINGS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "session.h"

namespace kavrel::cli {

// A value read: as JSON, and as text for a person or a shell variable.
struct Reading {
    nlohmann::json value;
    std::string text;
};

struct Setting {
    const char *name;
    const char *unit;
    bool cm2_only;
    const char *about;
    // Values `set` takes (0: read only) and how they are spelled in help.
    size_t values;
    const char *value_names;
    std::function<Reading(Session &, const Setting &)> get;
    std::function<void(Session &, const Setting &, const std::vector<std::string> &)> set;
};

const std::vector<Setting> &settings();
// The setting of that name; a usage failure naming the others otherwise.
const Setting &find_setting(const std::string &name);

// Numbers as the command line takes them: decimal or 0x hex, at most max.
uint64_t parse_unsigned(const std::string &text, uint64_t max, const std::string &what);
double parse_double(const std::string &text, const std::string &what);
// A duration in microseconds: "10ms", "2500us", "1.5s"; a bare number is
// microseconds when bare_is_us, else refused.
uint32_t parse_duration_us(const std::string &text, bool bare_is_us, const std::string &what);

}  // namespace kavrel::cli

#endif
