// kavrel doctor: what stops people on the first day, and what to do about it.
//
// It looks at the bridge provider the library chose, the FTDI chips on the
// USB bus (from sysfs on Linux: the program reads it, the library never
// does), whether this user may open them, the kernel's serial driver and its
// latency timer, and finally what each instrument answers.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "commands.h"

#ifdef __linux__
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace kavrel::cli {
namespace {

namespace fs = std::filesystem;

class Report {
public:
    void section(const char *title) { std::printf("\n%s\n", title); }
    void ok(const std::string &text) { std::printf("  ok      %s\n", text.c_str()); }
    void info(const std::string &text) { std::printf("          %s\n", text.c_str()); }
    void problem(const std::string &text, const std::string &remedy) {
        std::printf("  PROBLEM %s\n", text.c_str());
        if (!remedy.empty()) {
            std::printf("          -> %s\n", remedy.c_str());
            remedies_.push_back(remedy);
        }
    }
    const std::vector<std::string> &remedies() const { return remedies_; }

private:
    std::vector<std::string> remedies_;
};

// The provider chain's own account, one indented line per provider.
void check_provider(Session &session, Report &report) {
    report.section("Bridge provider");
    if (session.simulated()) {
        report.ok("in force: the simulated instruments (--sim); without --sim, the hardware chain:");
    }
    const std::string chain = platform::hardware_provider_report();
    size_t start = 0;
    while (start < chain.size()) {
        const size_t end = chain.find('\n', start);
        const std::string line = chain.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!line.empty()) report.info(line);
        if (end == std::string::npos) break;
        start = end + 1;
    }
    if (session.simulated()) return;
    const char *name = platform::hardware_provider().name;
    if (name != nullptr && std::strcmp(name, platform::null_provider().name) == 0) {
#ifdef _WIN32
        std::string remedy = "install the vendor's D2XX driver package, which puts FTD2XX.dll in the system "
                             "folder, or put FTD2XX.dll next to kavrel.exe";
#else
        std::string remedy = "install the vendor's D2XX driver, libftd2xx.so, where the dynamic loader finds "
                             "it (/usr/local/lib, then sudo ldconfig)";
#endif
        if (chain.find("libftdi1") != std::string::npos) remedy += ", or libftdi1 (sudo apt-get install libftdi1-2)";
        report.problem("no bridge driver could be loaded: listing finds nothing", remedy);
    } else {
        report.ok(std::string("in force: ") + (name != nullptr ? name : "?"));
    }
}

#ifdef __linux__
std::string read_line(const fs::path &path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// Rule files that mention FTDI's vendor id.
std::vector<std::string> udev_rules() {
    std::vector<std::string> found;
    for (const char *dir : {"/etc/udev/rules.d", "/lib/udev/rules.d", "/usr/lib/udev/rules.d"}) {
        std::error_code ec;
        for (const auto &entry : fs::directory_iterator(dir, ec)) {
            std::ifstream in(entry.path());
            std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            std::transform(text.begin(), text.end(), text.begin(), [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
            if (text.find("idvendor}==\"0403\"") != std::string::npos) found.push_back(entry.path().string());
        }
    }
    return found;
}

// Returns the number of FTDI devices this user may open.
size_t check_usb_bus(const Session &session, Report &report) {
    report.section("FTDI devices on the USB bus");
    const std::vector<std::string> rules = udev_rules();
    size_t devices = 0, usable = 0;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator("/sys/bus/usb/devices", ec)) {
        const fs::path dev = entry.path();
        if (read_line(dev / "idVendor") != "0403") continue;
        ++devices;
        const std::string name = dev.filename().string();
        report.ok(format("%s: 0403:%s \"%s\" serial %s", name.c_str(), read_line(dev / "idProduct").c_str(),
                         read_line(dev / "product").c_str(), read_line(dev / "serial").c_str()));
        const std::string node = format("/dev/bus/usb/%03d/%03d", std::atoi(read_line(dev / "busnum").c_str()),
                                        std::atoi(read_line(dev / "devnum").c_str()));
        struct stat st {};
        if (access(node.c_str(), R_OK | W_OK) == 0) {
            report.ok(node + ": this user may open it");
            ++usable;
        } else {
            const bool exists = ::stat(node.c_str(), &st) == 0;
            report.problem(exists ? format("%s: this user may not open it (mode %03o, owner uid %u)", node.c_str(),
                                           static_cast<unsigned>(st.st_mode & 0777), static_cast<unsigned>(st.st_uid))
                                  : node + ": no device node",
                           rules.empty() ? "install the project's udev rule: sudo cp packaging/udev/60-kavrel-ftdi.rules "
                                           "/etc/udev/rules.d/ && sudo udevadm control --reload && "
                                           "sudo udevadm trigger"
                                         : "a udev rule for 0403 exists (" + rules.front() +
                                               ") but does not grant this user access: check its MODE and GROUP; "
                                               "for GROUP=\"plugdev\": sudo usermod -aG plugdev $USER, log in "
                                               "again and replug");
        }
        // Each interface of the chip: is the kernel's serial driver holding it?
        for (const auto &sub : fs::directory_iterator(dev, ec)) {
            const std::string iface = sub.path().filename().string();
            if (iface.rfind(name + ":", 0) != 0) continue;
            const fs::path driver = sub.path() / "driver";
            if (!fs::exists(driver)) {
                report.info(iface + ": no kernel driver bound");
                continue;
            }
            const std::string bound = fs::read_symlink(driver, ec).filename().string();
            std::string tty;
            for (const auto &t : fs::directory_iterator(sub.path(), ec))
                if (t.path().filename().string().rfind("ttyUSB", 0) == 0) tty = t.path().filename().string();
            const std::string latency = tty.empty() ? "" : read_line("/sys/bus/usb-serial/devices/" + tty + "/latency_timer");
            const std::string where = tty.empty() ? "" : " as /dev/" + tty;
            if (bound == "ftdi_sio") {
                const char *provider = platform::hardware_provider().name;
                const bool d2xx = !session.simulated() && provider != nullptr && std::strstr(provider, "d2xx") != nullptr;
                const std::string text = iface + ": the kernel's serial driver ftdi_sio is bound" + where;
                if (d2xx)
                    report.problem(text, "the D2XX driver cannot claim an interface ftdi_sio holds: sudo rmmod ftdi_sio");
                else
                    report.info(text + " (libftdi1 detaches it when it opens the bridge)");
            } else {
                report.info(iface + ": bound to " + bound + where);
            }
            if (!latency.empty())
                report.info(iface + ": latency timer " + latency +
                            " ms under the serial driver (the library sets 1 ms on each bridge it opens)");
        }
    }
    if (devices == 0)
        report.problem("no FTDI device (vendor id 0403) on the USB bus",
                       "plug the instrument in and switch it on; `lsusb` should list a 0403 device");
    if (rules.empty())
        report.info("no udev rule mentions vendor 0403 in /etc/udev/rules.d or /lib/udev/rules.d");
    else
        for (const std::string &r : rules) report.info("udev rule for 0403: " + r);
    return usable;
}
#endif

// Returns whether an instrument answered.
bool check_instruments(Session &session, Report &report) {
    report.section("Instruments");
    const std::vector<Probe> probes = probe_bridges(session);
    bool usable = false;
    for (size_t i = 0; i < probes.size(); ++i) {
        const Probe &p = probes[i];
        const std::string who = format("[%zu] %s \"%s\"", i, p.chip_serial.c_str(), p.description.c_str());
        if (p.open_result != KAVREL_DIRECT_OK) {
            report.problem(who + ": cannot be opened (" + explain(p.open_result, {}) + ")",
                           "close other programs using it; see the device node and driver lines above");
        } else if (!p.answers) {
            report.problem(who + ": opens, but answers neither CM2 nor NIR",
                           "check the instrument's power and cable; is it a spectrometer?");
        } else {
            report.ok(format("%s: answers %s, model \"%s\", serial \"%s\"", who.c_str(),
                             p.info.protocol == KAVREL_DIRECT_PROTOCOL_NIR ? "NIR" : "CM2", p.info.model,
                             p.info.serial_number));
            usable = true;
        }
    }
    if (probes.empty()) report.problem("the provider lists no bridge", "");
    return usable;
}

}  // namespace

int run_doctor(Session &session) {
    Report report;
    std::printf("kavrel doctor\n");
    session.start();
    check_provider(session, report);
#ifdef __linux__
    check_usb_bus(session, report);
#else
    report.section("FTDI devices on the USB bus");
    report.info("the USB bus is examined on Linux only");
#endif
    const bool usable = check_instruments(session, report);

    report.section("Verdict");
    if (usable) {
        std::printf("  an instrument can be used\n");
        return kExitOk;
    }
    std::printf("  no instrument can be used yet. What to do:\n");
    for (const std::string &r : report.remedies()) std::printf("  - %s\n", r.c_str());
    std::printf("  - without hardware, the simulated instruments: kavrel --sim acquire --plot\n");
    return kExitNotReady;
}

}  // namespace kavrel::cli
