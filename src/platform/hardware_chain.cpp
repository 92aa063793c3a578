// The hardware chain: which provider reaches real bridges in this process.
//
// The vendor's D2XX driver comes first when it loads, since it is what the
// instruments were built and tested against; then the providers that speak
// to the same chips through other stacks; the null provider last, so that a
// machine with no driver at all still lists nothing instead of failing.
#include <string>

#include "platform/platform.h"

namespace kavrel::platform {
namespace {

struct Candidate {
    const char *name;
    const Platform *(*load)(const char **why);
};

const Candidate kChain[] = {
    {"D2XX driver", d2xx_provider},
#ifdef KAVREL_WITH_LIBFTDI
    {"libftdi1", libftdi_provider},
#endif
};

struct Choice {
    const Platform *provider = nullptr;
    std::string report;
};

const Choice &choice() {
    // Chosen once per process: a provider in use is never swapped under an
    // open device.
    static const Choice chosen = [] {
        Choice c;
        for (const Candidate &candidate : kChain) {
            const char *why = "";
            const Platform *provider = candidate.load(&why);
            if (provider != nullptr) {
                c.provider = provider;
                c.report += std::string(candidate.name) + ": in force\n";
                return c;
            }
            c.report += std::string(candidate.name) + ": passed over: " + why + "\n";
        }
        c.provider = &null_provider();
        c.report += "null provider: in force (no bridge can be listed or opened)\n";
        return c;
    }();
    return chosen;
}

}  // namespace

const Platform &hardware_provider() {
    return *choice().provider;
}

const char *hardware_provider_report() {
    return choice().report.c_str();
}

}  // namespace kavrel::platform
