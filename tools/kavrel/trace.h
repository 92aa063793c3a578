// --trace: a wrapper provider that prints every request and reply crossing
// the seam, with timestamps on the provider's clock.
//
// CM2 packets are shown with the library's own printers (hex dump and field
// tree); NIR frames as hex with the verdict of their CRC-16. Nothing is added
// to the library: the wrapper stands between it and the provider in force.
#ifndef KAVREL_TOOLS_TRACE_H
#define KAVREL_TOOLS_TRACE_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace kavrel::cli {

class Tracer : public platform::Forwarder {
public:
    // Prints on out; dumps of more than 256 bytes are cut unless whole_dumps.
    Tracer(const platform::Platform &inner, std::FILE *out, bool whole_dumps);

    platform::Status get_device_info_list(platform::BridgeEntry *entries, uint32_t *count);
    platform::Status open(int index, platform::Handle *handle);
    platform::Status close(platform::Handle handle);
    platform::Status purge(platform::Handle handle, uint32_t mask);
    platform::Status write(platform::Handle handle, const void *bytes, uint32_t count, uint32_t *written);
    platform::Status read(platform::Handle handle, void *buffer, uint32_t count, uint32_t *returned);

    // Prints the replies gathered so far. An NIR reply has no length of its
    // own, so it is printed when the next request, purge or close comes, or
    // when the program has something else to say.
    void flush();

private:
    struct Line {
        std::string name;
        bool awaiting = false;  // a request went out and its reply is not printed yet
        std::vector<uint8_t> reply;
        double first_ms = 0;
        bool cm2 = false;
    };

    double stamp() const;
    void print_reply(Line &line);
    void print_frame(const char *direction, const std::string &name, const uint8_t *bytes, size_t count,
                     double at_ms);
    void dump(const uint8_t *bytes, size_t count);

    std::FILE *out_;
    bool whole_dumps_;
    double origin_ms_;
    std::vector<std::string> listed_;  // chip serials by list index, from the last listing
    std::map<platform::Handle, Line> lines_;
};

}  // namespace kavrel::cli

#endif
