// kavrel: every operation of KavrelDirect from a shell.
//
// The command line is parsed into one argument record per subcommand;
// subcommands may follow one another and then run in order on one open
// instrument, which is how a setting survives into the next step:
//
//   kavrel set integration_time 20ms acquire -n 5 -o spectra.csv
//   kavrel select 400 700 acquire --selected
#include <CLI/CLI.hpp>

#include <cstdio>
#include <functional>
#include <map>

#include "commands.h"
#include "session.h"

#ifndef KAVREL_VERSION
#define KAVREL_VERSION "unknown"
#endif

using namespace kavrel::cli;

namespace {

constexpr const char *kFooter = R"(Subcommands run in order on one instrument:
  kavrel set integration_time 20ms acquire -n 5 -o spectra.csv
  kavrel select 400 700 acquire --selected --plot

Data goes to stdout, messages to stderr. Exit status: 0 success; 1 doctor
found no usable instrument; 2 bad command line; 3 a file could not be read or
written; 4 refused (a dark spectrum taken with other settings); 11 to 21 the
library's failures: 11 generic, 12 no_device, 13 not_open, 14 io,
15 invalid_arg, 16 open_failed, 17 crc, 18 parse, 19 timeout,
20 write_protect, 21 unsupported.)";

Format to_format(const std::string &name) {
    if (name == "json") return Format::json;
    if (name == "csv") return Format::csv;
    return Format::text;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"kavrel: drive KavrelDirect spectrometers from the command line", "kavrel"};
    app.require_subcommand(1, 0);
    // Global options may also follow a subcommand.
    app.fallthrough();
    app.set_version_flag("--version", "kavrel " KAVREL_VERSION " (KavrelDirect " KAVREL_VERSION ")");

    Options options;
    app.add_option("-d,--device", options.device, "the instrument: a chip serial or a list index (default: the first)");
    app.add_option("--protocol", options.protocol, "the protocol to speak: auto (probe), cm2 or nir")
        ->check(CLI::IsMember({"auto", "cm2", "nir"}));
    CLI::Option *sim = app.add_flag("--sim", options.sim,
                                    "the simulated instruments instead of hardware: KSIM0001 (CM2), KSIM0002 (NIR)");
    app.add_option("--sim-seed", options.sim_seed, "seed of the simulated instruments' noise")->needs(sim);
    app.add_option("--sim-fault", options.sim_faults,
                   std::string("a fault the simulated instrument commits once opened, KIND[:COUNT[:PARAMETER]] "
                               "(COUNT 0: from then on); kinds: ") +
                       sim_fault_names())
        ->allow_extra_args(false)
        ->needs(sim);
    // Virtual time for the tests: every wait passes at once.
    app.add_flag("--sim-virtual-time", options.sim_virtual_time)->needs(sim)->group("");
    app.add_flag("--trace", options.trace, "print every request and reply, decoded, on stderr");
    CLI::Option *quiet = app.add_flag("-q,--quiet", options.quiet, "no messages but errors");
    app.add_flag("-v,--verbose", options.verbose, "say what is done; whole dumps in --trace")->excludes(quiet);

    // Each subcommand's arguments, and what runs it.
    std::map<const CLI::App *, std::function<int(Session &)>> actions;
    std::string format_name;

    ScanArgs scan;
    std::string scan_format = "text";
    CLI::App *cmd = app.add_subcommand("scan", "list the attached bridges: index, chip serial, description");
    cmd->add_option("--format", scan_format, "text, csv or json")->check(CLI::IsMember({"text", "csv", "json"}));
    cmd->add_flag("--probe", scan.probe, "open each bridge and say which protocol its instrument answers");
    actions[cmd] = [&](Session &s) {
        scan.format = to_format(scan_format);
        return run_scan(s, scan);
    };

    std::string info_format = "text";
    cmd = app.add_subcommand("info", "the instrument's identity, protocol, temperature and wavelength range");
    cmd->add_option("--format", info_format, "text or json")->check(CLI::IsMember({"text", "json"}));
    actions[cmd] = [&](Session &s) { return run_info(s, to_format(info_format)); };

    GetArgs get;
    std::string get_format = "text";
    cmd = app.add_subcommand("get", "read settings, stored values and identity items by name");
    cmd->add_option("NAME", get.names, "what to read (kavrel get --list)");
    cmd->add_flag("--list", get.list, "name every setting with its unit");
    cmd->add_flag("--all", get.all, "read every setting the instrument's protocol has");
    cmd->add_option("--format", get_format, "text or json")->check(CLI::IsMember({"text", "json"}));
    actions[cmd] = [&](Session &s) {
        get.format = to_format(get_format);
        return run_get(s, get);
    };

    SetArgs set;
    cmd = app.add_subcommand("set", "change a setting: kavrel set integration_time 20ms");
    cmd->add_option("NAME", set.name, "what to set (kavrel get --list)")->required();
    // Not required: a required list would swallow the subcommands after it.
    cmd->add_option("VALUE", set.values, "its value or values");
    actions[cmd] = [&](Session &s) { return run_set(s, set); };

    WavelengthArgs wavelengths;
    std::string wavelengths_format = "csv";
    cmd = app.add_subcommand("wavelengths", "the wavelength table, its end values, or the calibration coefficients");
    CLI::Option *range = cmd->add_flag("--range", wavelengths.range, "only the end values, smaller first");
    cmd->add_flag("--coefficients", wavelengths.coefficients, "the four calibration coefficients")->excludes(range);
    cmd->add_flag("--selected", wavelengths.selected, "the selected points (after select on the same line)")
        ->excludes(range);
    cmd->add_option("--format", wavelengths_format, "csv or json")->check(CLI::IsMember({"csv", "json"}));
    cmd->add_option("-o,--output", wavelengths.output, "write to FILE instead of stdout");
    actions[cmd] = [&](Session &s) {
        wavelengths.format = to_format(wavelengths_format);
        return run_wavelengths(s, wavelengths);
    };

    SelectArgs select;
    std::string select_format = "text";
    cmd = app.add_subcommand("select", "select the points from START to END nm, for acquire --selected after it");
    cmd->add_option("START", select.start, "lower wavelength, nm")->required();
    cmd->add_option("END", select.end, "upper wavelength, nm")->required();
    cmd->add_option("--format", select_format, "text or json")->check(CLI::IsMember({"text", "json"}));
    actions[cmd] = [&](Session &s) {
        select.format = to_format(select_format);
        return run_select(s, select);
    };

    AcquireArgs acquire;
    std::string acquire_format = "csv";
    cmd = app.add_subcommand("acquire", "acquire spectra into CSV or JSON");
    cmd->add_option("-n,--count", acquire.count, "number of spectra")->check(CLI::PositiveNumber);
    cmd->add_option("--integration", acquire.integration, "integration time with its unit: 10ms, 2500us, 1.5s");
    cmd->add_option("--average", acquire.average, "spectra the instrument averages into each one (0 to 255)");
    cmd->add_flag("--selected", acquire.selected, "only the selected points (select START END first)");
    cmd->add_option("--dark", acquire.dark, "subtract a dark spectrum saved earlier with the same settings");
    cmd->add_option("--format", acquire_format, "csv or json")->check(CLI::IsMember({"csv", "json"}));
    cmd->add_option("-o,--output", acquire.output, "write to FILE instead of stdout");
    cmd->add_flag("--plot", acquire.plot, "draw the spectrum in the terminal (on stderr when the data goes to stdout)");
    actions[cmd] = [&](Session &s) {
        acquire.format = to_format(acquire_format);
        return run_acquire(s, acquire);
    };

    CLI::App *flash = app.add_subcommand("flash", "read or write a page of the instrument's flash memory");
    flash->require_subcommand(1, 0);
    FlashArgs flash_read;
    cmd = flash->add_subcommand("read", "read flash page PAGE (raw bytes to -o FILE or stdout; hex on a terminal)");
    cmd->add_option("PAGE", flash_read.page, "page number, 0 to 65535")->required();
    cmd->add_option("--length", flash_read.length, "bytes to read (CM2: 1 to 1024)");
    cmd->add_option("-o,--output", flash_read.file, "write the bytes to FILE");
    cmd->add_flag("--hex", flash_read.hex, "a hex dump instead of raw bytes");
    actions[cmd] = [&](Session &s) { return run_flash_read(s, flash_read); };
    FlashArgs flash_write;
    cmd = flash->add_subcommand("write", "write FILE (- for stdin) to flash page PAGE");
    cmd->add_option("PAGE", flash_write.page, "page number, 0 to 65535")->required();
    cmd->add_option("FILE", flash_write.file, "the data: at most 2016 bytes (CM2) or 8187 (NIR)")->required();
    actions[cmd] = [&](Session &s) { return run_flash_write(s, flash_write); };

    ExternalArgs external;
    std::string external_format = "csv";
    cmd = app.add_subcommand("external", "start an externally controlled spectrum with CONTROL and read it (CM2)");
    cmd->add_option("CONTROL", external.control, "the control value, 0 to 65535")->required();
    cmd->add_option("--format", external_format, "csv or json")->check(CLI::IsMember({"csv", "json"}));
    cmd->add_option("-o,--output", external.output, "write to FILE instead of stdout");
    cmd->add_flag("--plot", external.plot, "draw the spectrum in the terminal");
    actions[cmd] = [&](Session &s) {
        external.format = to_format(external_format);
        return run_external(s, external);
    };

    cmd = app.add_subcommand("reset", "reset the instrument");
    actions[cmd] = [&](Session &s) { return run_reset(s); };

    std::string crc_path;
    cmd = app.add_subcommand("crc", "the CRC-32 of a file (- for stdin), as CM2 packets carry it");
    cmd->add_option("FILE", crc_path, "the file")->required();
    actions[cmd] = [&](Session &) { return run_crc(crc_path); };

    std::vector<std::string> parse_hex;
    cmd = app.add_subcommand("parse", "decode a CM2 packet given in hex (- reads the hex from stdin)");
    cmd->add_option("HEX", parse_hex, "the packet's bytes in hex; spaces, colons and 0x allowed")->required();
    actions[cmd] = [&](Session &) { return run_parse(parse_hex); };

    cmd = app.add_subcommand("doctor", "check the set-up: driver, USB devices, permissions, instruments");
    actions[cmd] = [&](Session &s) { return run_doctor(s); };

    // Set last, so that the subcommands' help does not repeat it.
    app.footer(kFooter);

    if (argc == 1) {
        std::fputs(app.help().c_str(), stderr);
        return kExitUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // Help and --version exit 0; every other parse error is a usage error.
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    }

    int status = kExitOk;
    std::string message;
    {
        Session session(options);
        try {
            for (const std::string &fault : options.sim_faults) parse_sim_fault(fault);
            std::function<void(const CLI::App *)> run = [&](const CLI::App *parent) {
                for (const CLI::App *sub : parent->get_subcommands()) {
                    const auto action = actions.find(sub);
                    if (action != actions.end()) {
                        const int result = action->second(session);
                        if (status == kExitOk) status = result;
                    }
                    run(sub);
                }
            };
            run(&app);
        } catch (const Failure &failure) {
            status = failure.status();
            message = failure.what();
        } catch (const std::exception &e) {
            status = kExitFile;
            message = e.what();
        }
    }  // The instrument is closed and the trace complete before the message.
    std::fflush(stdout);
    if (!message.empty()) std::fprintf(stderr, "kavrel: %s\n", message.c_str());
    return status;
}
