// acquire and external: spectra out to CSV or JSON, with a dark spectrum
// subtracted, a progress bar while the instrument integrates, and a plot.
#include <cmath>

#include "commands.h"
#include "plot.h"
#include "progress.h"
#include "settings.h"

namespace kavrel::cli {
namespace {

const char *protocol_text(const Instrument &instrument) { return instrument.nir() ? "NIR_LEGACY" : "UVVIS_CM2"; }

// The settings the spectra are taken with, read back from the instrument so
// that the file records what it really used.
void read_settings(Session &session, SpectrumSet &set) {
    const double limit = session.register_limit_ms(false);
    uint32_t integration_us = 0;
    uint8_t averages = 0;
    session.check(kavrel_direct_get_integration_time(&integration_us), {"reading integration_time", limit});
    session.check(kavrel_direct_get_average_number(&averages), {"reading average_number", limit});
    set.integration_us = integration_us;
    set.averages = averages;
}

// A dark spectrum only cancels the detector's own signal when it was taken
// over the same points with the same integration time and averages.
std::vector<double> load_dark(const std::string &path, const SpectrumSet &set) {
    const SpectrumSet dark = read_spectrum_file(path);
    auto refuse = [&](const std::string &why) {
        fail(kExitRefused, "refused: the dark spectrum in " + path + " " + why +
                               "; take a new one with the same settings (and the light blocked)");
    };
    if (dark.integration_us != set.integration_us)
        refuse(format("was taken with an integration time of %lu us, this acquisition uses %lu us",
                      static_cast<unsigned long>(dark.integration_us), static_cast<unsigned long>(set.integration_us)));
    if (dark.averages != set.averages)
        refuse(format("was taken averaging %lu spectra, this acquisition averages %lu",
                      static_cast<unsigned long>(dark.averages), static_cast<unsigned long>(set.averages)));
    if (dark.wavelengths.size() != set.wavelengths.size() || dark.first_index != set.first_index)
        refuse(format("covers %zu points from index %lu, this acquisition %zu points from index %lu",
                      dark.wavelengths.size(), static_cast<unsigned long>(dark.first_index), set.wavelengths.size(),
                      static_cast<unsigned long>(set.first_index)));
    if (dark.dark_subtracted) refuse("has had a dark spectrum subtracted already");
    return dark.mean();
}

void draw(Session &session, const SpectrumSet &set, std::FILE *stream);

void emit(Session &session, const SpectrumSet &set, Format format, const std::string &path, bool plot) {
    Output out(path, false);
    if (format == Format::json)
        print_json(out.stream(), to_json(set));
    else
        write_csv(out.stream(), set);
    out.finish();
    const std::string wrote = out.to_stdout() ? std::string()
                                              : cli::format("wrote %zu spectr%s of %zu points to %s", set.spectra.size(),
                                                            set.spectra.size() == 1 ? "um" : "a",
                                                            set.wavelengths.size(), path.c_str());
    if (plot) draw(session, set, out.to_stdout() ? stderr : stdout);
    if (!wrote.empty()) session.note(wrote);
}

// The data keeps stdout to itself unless it went to a file.
void draw(Session &session, const SpectrumSet &set, std::FILE *stream) {
    session.flush_trace();
    PlotStyle style;
    style.width = terminal_columns(stream);
    style.utf8 = utf8_terminal();
    style.title = cli::format("%s %s, integration %s ms, %lu average%s%s%s: counts against wavelength",
                              set.device.c_str(), set.protocol.c_str(), float_text(set.integration_us / 1000.0).c_str(),
                              static_cast<unsigned long>(set.averages), set.averages == 1 ? "" : "s",
                              set.spectra.size() > 1 ? cli::format(", mean of %zu", set.spectra.size()).c_str() : "",
                              set.dark_subtracted ? ", dark subtracted" : "");
    std::fputc('\n', stream);
    plot_spectrum(stream, set.wavelengths, set.mean(), style);
    std::fflush(stream);
}

}  // namespace

int run_acquire(Session &session, const AcquireArgs &args) {
    if (args.count < 1) fail(kExitUsage, "-n: at least 1 spectrum");
    const Instrument &instrument = session.instrument();
    const double set_limit = session.register_limit_ms(true);
    const double limit = session.register_limit_ms(false);
    if (!args.integration.empty()) {
        const uint32_t us = parse_duration_us(args.integration, false, "--integration");
        session.check(kavrel_direct_set_integration_time(us), {"setting integration_time", set_limit});
    }
    if (args.average >= 0) {
        if (args.average > 255) fail(kExitUsage, "--average: from 0 to 255");
        session.check(kavrel_direct_set_average_number(static_cast<uint8_t>(args.average)),
                      {"setting average_number", set_limit});
    }
    SpectrumSet set;
    set.device = instrument.chip_serial;
    set.protocol = protocol_text(instrument);
    read_settings(session, set);

    if (args.selected) {
        kavrel_direct_wavelength_selection selection{};
        session.check(kavrel_direct_get_selected_wavelength_range(&selection),
                      {"", 0, "no wavelength range is selected: select one first on the same command line, "
                              "e.g. kavrel select 400 700 acquire --selected"});
        set.first_index = selection.start_index;
        set.wavelengths.resize(selection.selected_count);
        session.check(kavrel_direct_get_selected_wavelength_data(set.wavelengths.data(),
                                                                 static_cast<int32_t>(set.wavelengths.size())),
                      {"reading the selected wavelengths", limit});
    } else {
        uint16_t count = 0;
        session.check(kavrel_direct_get_wavelength_count(&count), {"reading the point count", limit});
        set.wavelengths.resize(count);
        session.check(kavrel_direct_get_full_wavelength_data(set.wavelengths.data(), count),
                      {"reading the wavelength table", limit});
    }
    // Refused before the instrument spends time integrating.
    std::vector<double> dark;
    if (!args.dark.empty()) dark = load_dark(args.dark, set);

    const double spectrum_limit = session.spectrum_limit_ms(set.integration_us, static_cast<uint8_t>(set.averages));
    const auto points = static_cast<int32_t>(set.wavelengths.size());
    {
        // The instrument integrates averages times, then sends the samples.
        const double expected_ms = set.integration_us / 1000.0 * std::max<uint32_t>(set.averages, 1) + 10;
        const Options &o = session.options();
        Progress progress(is_terminal(stderr) && !o.quiet && !o.trace, args.count, expected_ms, utf8_terminal());
        for (size_t n = 0; n < args.count; ++n) {
            std::vector<uint16_t> samples(set.wavelengths.size(), 0);
            progress.begin_item();
            const int32_t rc = args.selected ? kavrel_direct_get_selected_spectrum_data(samples.data(), points)
                                             : kavrel_direct_get_full_spectrum_data(samples.data(), points);
            progress.end_item();
            session.check(rc, {"reading a spectrum", spectrum_limit});
            std::vector<int32_t> counts(samples.begin(), samples.end());
            for (size_t i = 0; i < dark.size(); ++i)
                counts[i] -= static_cast<int32_t>(std::lround(dark[i]));
            set.spectra.push_back(std::move(counts));
        }
    }
    set.dark_subtracted = !dark.empty();
    emit(session, set, args.format, args.output, args.plot);
    return kExitOk;
}

int run_external(Session &session, const ExternalArgs &args) {
    const auto control = static_cast<uint16_t>(parse_unsigned(args.control, 0xFFFF, "CONTROL"));
    const Instrument &instrument = session.instrument();
    const double limit = session.register_limit_ms(false);
    SpectrumSet set;
    set.device = instrument.chip_serial;
    set.protocol = protocol_text(instrument);
    if (instrument.nir())
        session.check(KAVREL_DIRECT_ERR_UNSUPPORTED, {"external spectrum control is CM2 only"});
    read_settings(session, set);
    uint16_t count = 0;
    session.check(kavrel_direct_get_wavelength_count(&count), {"reading the point count", limit});
    std::vector<double> table(count);
    session.check(kavrel_direct_get_full_wavelength_data(table.data(), count), {"reading the wavelength table", limit});

    // The transfer carries at most 2048 samples.
    std::vector<uint16_t> samples(std::min<size_t>(count, 2048), 0);
    const int32_t got = kavrel_direct_external_spectrum_control(control, samples.data(),
                                                                static_cast<int32_t>(samples.size()));
    session.check(got, {"external spectrum: 200 polls 10 ms apart", 2000});
    const size_t values = std::min(samples.size(), static_cast<size_t>(got) / 2);
    set.wavelengths.assign(table.begin(), table.begin() + static_cast<std::ptrdiff_t>(values));
    set.spectra.emplace_back(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(values));
    emit(session, set, args.format, args.output, args.plot);
    return kExitOk;
}

}  // namespace kavrel::cli
