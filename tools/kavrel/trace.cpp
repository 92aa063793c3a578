#include "trace.h"

#include <cstring>
#include <memory>

#include "kavrel_direct.h"
#include "transport/nir_exchange.h"

#ifdef _WIN32
#include <io.h>
#define KAVREL_DUP _dup
#define KAVREL_DUP2 _dup2
#define KAVREL_CLOSE _close
#define KAVREL_FILENO _fileno
#else
#include <unistd.h>
#define KAVREL_DUP dup
#define KAVREL_DUP2 dup2
#define KAVREL_CLOSE close
#define KAVREL_FILENO fileno
#endif

namespace kavrel::cli {
namespace {

constexpr uint8_t kPreamble[8] = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAB};
constexpr size_t kCm2HeadBytes = 28;
constexpr size_t kCutDumpBytes = 256;

bool is_cm2(const uint8_t *bytes, size_t count) {
    return count >= sizeof kPreamble && std::memcmp(bytes, kPreamble, sizeof kPreamble) == 0;
}

// The library's printers write on stdout; while one runs, stdout is pointed
// at the trace's stream so that the trace never mixes with the data.
class StdoutTo {
public:
    explicit StdoutTo(std::FILE *out) {
        std::fflush(stdout);
        if (out == stdout) return;
        std::fflush(out);
        saved_ = KAVREL_DUP(KAVREL_FILENO(stdout));
        if (saved_ >= 0) KAVREL_DUP2(KAVREL_FILENO(out), KAVREL_FILENO(stdout));
    }
    ~StdoutTo() {
        std::fflush(stdout);
        if (saved_ < 0) return;
        KAVREL_DUP2(saved_, KAVREL_FILENO(stdout));
        KAVREL_CLOSE(saved_);
    }
    StdoutTo(const StdoutTo &) = delete;
    StdoutTo &operator=(const StdoutTo &) = delete;

private:
    int saved_ = -1;
};

}  // namespace

Tracer::Tracer(const platform::Platform &inner, std::FILE *out, bool whole_dumps)
    : Forwarder(inner), out_(out), whole_dumps_(whole_dumps), origin_ms_(inner.now_ms(inner.context)) {}

double Tracer::stamp() const { return inner().now_ms() - origin_ms_; }

platform::Status Tracer::get_device_info_list(platform::BridgeEntry *entries, uint32_t *count) {
    const platform::Status status = inner().get_device_info_list(entries, count);
    if (status == platform::kOk && entries != nullptr && count != nullptr) {
        listed_.clear();
        for (uint32_t i = 0; i < *count; ++i) listed_.emplace_back(entries[i].serial_number);
    }
    return status;
}

platform::Status Tracer::open(int index, platform::Handle *handle) {
    flush();
    const platform::Status status = inner().open(index, handle);
    std::string name = index >= 0 && static_cast<size_t>(index) < listed_.size()
                           ? listed_[static_cast<size_t>(index)]
                           : "bridge " + std::to_string(index);
    if (status == platform::kOk && handle != nullptr) lines_[*handle].name = name;
    std::fprintf(out_, "[%10.3f ms] %s: open bridge %d%s\n", stamp(), name.c_str(), index,
                 status == platform::kOk ? "" : " failed");
    return status;
}

platform::Status Tracer::close(platform::Handle handle) {
    flush();
    auto line = lines_.find(handle);
    std::fprintf(out_, "[%10.3f ms] %s: close\n", stamp(), line != lines_.end() ? line->second.name.c_str() : "?");
    if (line != lines_.end()) lines_.erase(line);
    return inner().close(handle);
}

platform::Status Tracer::purge(platform::Handle handle, uint32_t mask) {
    flush();
    return inner().purge(handle, mask);
}

platform::Status Tracer::write(platform::Handle handle, const void *bytes, uint32_t count, uint32_t *written) {
    flush();
    Line &line = lines_[handle];
    print_frame("->", line.name, static_cast<const uint8_t *>(bytes), count, stamp());
    const platform::Status status = inner().write(handle, bytes, count, written);
    if (status != platform::kOk || written == nullptr || *written != count)
        std::fprintf(out_, "[%10.3f ms] %s: write failed (status %lu, %lu of %lu bytes)\n", stamp(),
                     line.name.c_str(), static_cast<unsigned long>(status),
                     static_cast<unsigned long>(written != nullptr ? *written : 0), static_cast<unsigned long>(count));
    line.awaiting = true;
    line.reply.clear();
    std::fflush(out_);
    return status;
}

platform::Status Tracer::read(platform::Handle handle, void *buffer, uint32_t count, uint32_t *returned) {
    const platform::Status status = inner().read(handle, buffer, count, returned);
    Line &line = lines_[handle];
    if (status != platform::kOk) {
        print_reply(line);
        std::fprintf(out_, "[%10.3f ms] %s: read failed (status %lu)\n", stamp(), line.name.c_str(),
                     static_cast<unsigned long>(status));
        return status;
    }
    const uint32_t got = returned != nullptr && *returned <= count ? *returned : 0;
    if (got > 0) {
        if (line.reply.empty()) line.first_ms = stamp();
        const auto *bytes = static_cast<const uint8_t *>(buffer);
        line.reply.insert(line.reply.end(), bytes, bytes + got);
    }
    // A CM2 reply tells its length in its head: print it once it is whole.
    const std::vector<uint8_t> &r = line.reply;
    if (is_cm2(r.data(), r.size()) && r.size() >= kCm2HeadBytes) {
        const size_t words = (static_cast<size_t>(r[17]) << 8) | r[18];
        if (r.size() >= 32 + 4 * words) print_reply(line);
    }
    return status;
}

void Tracer::flush() {
    for (auto &entry : lines_) print_reply(entry.second);
    std::fflush(out_);
}

void Tracer::print_reply(Line &line) {
    if (!line.awaiting) return;
    line.awaiting = false;
    if (line.reply.empty()) {
        std::fprintf(out_, "[%10.3f ms] %s: <- no reply\n", stamp(), line.name.c_str());
        return;
    }
    print_frame("<-", line.name, line.reply.data(), line.reply.size(), line.first_ms);
    line.reply.clear();
}

void Tracer::dump(const uint8_t *bytes, size_t count) {
    const size_t shown = whole_dumps_ || count <= kCutDumpBytes ? count : kCutDumpBytes;
    {
        StdoutTo redirect(out_);
        std::fputs("       ", stdout);
        kavrel_direct_dump_hex(bytes, static_cast<int32_t>(shown));
    }
    if (shown < count) std::fprintf(out_, "       ... %zu more bytes (--verbose shows all)\n", count - shown);
}

void Tracer::print_frame(const char *direction, const std::string &name, const uint8_t *bytes, size_t count,
                         double at_ms) {
    const bool request = direction[0] == '-';
    if (is_cm2(bytes, count)) {
        // The parsed record is about 24 KiB: not for the stack of a callback.
        auto packet = std::make_unique<cm2_packet>();
        const bool parsed = kavrel_direct_parse_response(bytes, static_cast<int32_t>(count), packet.get()) == 0;
        std::fprintf(out_, "[%10.3f ms] %s: %s CM2 %s, %zu bytes", at_ms, name.c_str(), direction,
                     request ? "request" : "reply", count);
        if (parsed)
            std::fprintf(out_, ": %s, register %02X address %06lX%s%s", kavrel_direct_srv_name(packet->srv),
                         packet->pio_reg, static_cast<unsigned long>(packet->pio_addr), request ? "" : ", ",
                         request ? "" : kavrel_direct_ans_reply_name(packet->ans_reply));
        std::fputc('\n', out_);
        dump(bytes, count);
        if (parsed) {
            StdoutTo redirect(out_);
            kavrel_direct_print_parsed(packet.get());
        } else {
            std::fprintf(out_, "  (not a whole CM2 packet)\n");
        }
        return;
    }
    // NIR: a command or reply followed by its CRC-16, high byte first.
    std::fprintf(out_, "[%10.3f ms] %s: %s NIR %s, %zu bytes\n", at_ms, name.c_str(), direction,
                 request ? "command" : "reply", count);
    dump(bytes, count);
    if (count < 3) {
        std::fprintf(out_, "  (too short for a frame with a CRC-16)\n");
        return;
    }
    const uint16_t expected = nir_crc16(bytes, count - 2);
    const uint16_t carried = static_cast<uint16_t>((bytes[count - 2] << 8) | bytes[count - 1]);
    if (request)
        std::fprintf(out_, "  command %02X, %zu argument bytes", bytes[0], count - 3);
    else
        std::fprintf(out_, "  %s, %zu data bytes", bytes[0] == kNirAck ? "acknowledged (06)" : "NOT acknowledged",
                     count - 3);
    if (carried == expected)
        std::fprintf(out_, ", CRC-16 %04X (CRC OK)\n", carried);
    else
        std::fprintf(out_, ", CRC-16 %04X (CRC FAIL, expected %04X)\n", carried, expected);
}

}  // namespace kavrel::cli
