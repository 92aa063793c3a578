#include "output.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "session.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <sys/ioctl.h>
#include <unistd.h>
#endif

namespace kavrel::cli {

bool is_terminal(std::FILE *stream) {
#ifdef _WIN32
    return _isatty(_fileno(stream)) != 0;
#else
    return isatty(fileno(stream)) != 0;
#endif
}

bool utf8_terminal() {
#ifdef _WIN32
    return GetConsoleOutputCP() == CP_UTF8;
#else
    for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char *value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        std::string v(value);
        for (char &c : v) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return v.find("utf-8") != std::string::npos || v.find("utf8") != std::string::npos;
    }
    return false;
#endif
}

int terminal_columns(std::FILE *stream) {
    if (const char *columns = std::getenv("COLUMNS")) {
        const int n = std::atoi(columns);
        if (n >= 20) return n;
    }
#ifdef _WIN32
    CONSOLE_SCREEN_BUFFER_INFO info;
    HANDLE console = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
    if (GetConsoleScreenBufferInfo(console, &info)) return info.srWindow.Right - info.srWindow.Left + 1;
#else
    winsize size{};
    if (ioctl(fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) return size.ws_col;
#endif
    return 80;
}

std::string float_text(double value) {
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, static_cast<float>(value));
    return std::string(text, result.ptr);
}

std::string double_text(double value) {
    char text[40];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

nlohmann::json float_json(double value) {
    // The double nearest to the float's shortest text prints as that text.
    return std::strtod(float_text(value).c_str(), nullptr);
}

Output::Output(const std::string &path, bool binary) : path_(path) {
    if (path.empty() || path == "-") {
        stream_ = stdout;
#ifdef _WIN32
        if (binary) _setmode(_fileno(stdout), _O_BINARY);
#endif
        return;
    }
    stream_ = std::fopen(path.c_str(), binary ? "wb" : "w");
    if (stream_ == nullptr) fail(kExitFile, "cannot write " + path + ": " + std::strerror(errno));
}

Output::~Output() {
    if (!finished_ && stream_ != stdout) std::fclose(stream_);
}

void Output::finish() {
    finished_ = true;
    const bool flushed = std::fflush(stream_) == 0 && !std::ferror(stream_);
    const bool closed = stream_ == stdout || std::fclose(stream_) == 0;
    if (!flushed || !closed) fail(kExitFile, "cannot write " + (path_.empty() ? "stdout" : path_));
}

std::vector<uint8_t> read_bytes(const std::string &path) {
    std::FILE *in = stdin;
    if (path != "-") {
        in = std::fopen(path.c_str(), "rb");
        if (in == nullptr) fail(kExitFile, "cannot read " + path + ": " + std::strerror(errno));
    } else {
#ifdef _WIN32
        _setmode(_fileno(stdin), _O_BINARY);
#endif
    }
    std::vector<uint8_t> bytes;
    uint8_t chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, in)) > 0) bytes.insert(bytes.end(), chunk, chunk + got);
    const bool failed = std::ferror(in) != 0;
    if (in != stdin) std::fclose(in);
    if (failed) fail(kExitFile, "cannot read " + path);
    return bytes;
}

std::vector<double> SpectrumSet::mean() const {
    std::vector<double> sum(wavelengths.size(), 0.0);
    for (const auto &spectrum : spectra)
        for (size_t i = 0; i < sum.size() && i < spectrum.size(); ++i) sum[i] += spectrum[i];
    if (!spectra.empty())
        for (double &v : sum) v /= static_cast<double>(spectra.size());
    return sum;
}

void write_csv(std::FILE *out, const SpectrumSet &set) {
    std::fprintf(out, "# device=%s protocol=%s integration_us=%lu averages=%lu dark_subtracted=%s\n",
                 set.device.c_str(), set.protocol.c_str(), static_cast<unsigned long>(set.integration_us),
                 static_cast<unsigned long>(set.averages), set.dark_subtracted ? "yes" : "no");
    std::fputs("index,wavelength_nm", out);
    if (set.spectra.size() == 1) {
        std::fputs(",counts", out);
    } else {
        for (size_t s = 0; s < set.spectra.size(); ++s) std::fprintf(out, ",counts_%zu", s + 1);
    }
    std::fputc('\n', out);
    for (size_t i = 0; i < set.wavelengths.size(); ++i) {
        std::fprintf(out, "%lu,%s", static_cast<unsigned long>(set.first_index + i),
                     float_text(set.wavelengths[i]).c_str());
        for (const auto &spectrum : set.spectra) std::fprintf(out, ",%ld", static_cast<long>(spectrum[i]));
        std::fputc('\n', out);
    }
}

nlohmann::json to_json(const SpectrumSet &set) {
    nlohmann::json wavelengths = nlohmann::json::array();
    for (double w : set.wavelengths) wavelengths.push_back(float_json(w));
    return {{"device", set.device},
            {"protocol", set.protocol},
            {"integration_us", set.integration_us},
            {"averages", set.averages},
            {"dark_subtracted", set.dark_subtracted},
            {"first_index", set.first_index},
            {"wavelength_nm", wavelengths},
            {"spectra", set.spectra}};
}

void print_json(std::FILE *out, const nlohmann::json &value) {
    std::fprintf(out, "%s\n", value.dump(2).c_str());
}

namespace {

[[noreturn]] void bad_file(const std::string &path, const std::string &why) {
    fail(kExitFile, path + " is not a spectrum kavrel wrote: " + why);
}

SpectrumSet read_json_spectrum(const std::string &path, const std::string &text) {
    SpectrumSet set;
    try {
        const nlohmann::json j = nlohmann::json::parse(text);
        set.device = j.value("device", "");
        set.protocol = j.value("protocol", "");
        set.integration_us = j.at("integration_us").get<uint32_t>();
        set.averages = j.at("averages").get<uint32_t>();
        set.dark_subtracted = j.value("dark_subtracted", false);
        set.first_index = j.value("first_index", 0u);
        set.wavelengths = j.at("wavelength_nm").get<std::vector<double>>();
        set.spectra = j.at("spectra").get<std::vector<std::vector<int32_t>>>();
    } catch (const nlohmann::json::exception &e) {
        bad_file(path, e.what());
    }
    return set;
}

SpectrumSet read_csv_spectrum(const std::string &path, const std::string &text) {
    SpectrumSet set;
    std::istringstream lines(text);
    std::string line;
    bool settings = false;
    bool header = false;
    size_t columns = 0;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) continue;
        if (line[0] == '#') {
            std::istringstream words(line.substr(1));
            std::string word;
            while (words >> word) {
                const size_t eq = word.find('=');
                if (eq == std::string::npos) continue;
                const std::string key = word.substr(0, eq), value = word.substr(eq + 1);
                if (key == "device") set.device = value;
                if (key == "protocol") set.protocol = value;
                if (key == "integration_us") set.integration_us = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
                if (key == "averages") set.averages = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
                if (key == "dark_subtracted") set.dark_subtracted = value == "yes";
                settings = settings || key == "integration_us";
            }
            continue;
        }
        if (!header) {
            header = true;
            columns = static_cast<size_t>(std::count(line.begin(), line.end(), ',')) + 1;
            if (columns < 3 || line.rfind("index,wavelength_nm,", 0) != 0) bad_file(path, "unexpected header row");
            set.spectra.resize(columns - 2);
            continue;
        }
        std::vector<std::string> cells;
        std::istringstream row(line);
        std::string cell;
        while (std::getline(row, cell, ',')) cells.push_back(cell);
        if (cells.size() != columns) bad_file(path, "a row with " + std::to_string(cells.size()) + " cells");
        if (set.wavelengths.empty()) set.first_index = static_cast<uint32_t>(std::strtoul(cells[0].c_str(), nullptr, 10));
        set.wavelengths.push_back(std::strtod(cells[1].c_str(), nullptr));
        for (size_t s = 0; s + 2 < columns; ++s)
            set.spectra[s].push_back(static_cast<int32_t>(std::strtol(cells[s + 2].c_str(), nullptr, 10)));
    }
    if (!settings) bad_file(path, "no \"# ... integration_us=...\" line with its settings");
    if (set.wavelengths.empty()) bad_file(path, "no points");
    return set;
}

}  // namespace

SpectrumSet read_spectrum_file(const std::string &path) {
    const std::vector<uint8_t> bytes = read_bytes(path);
    const std::string text(bytes.begin(), bytes.end());
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first != std::string::npos && text[first] == '{') return read_json_spectrum(path, text);
    return read_csv_spectrum(path, text);
}

}  // namespace kavrel::cli
