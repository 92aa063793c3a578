// Files, terminals and the formats spectra are written and read in.
#ifndef KAVREL_TOOLS_OUTPUT_H
#define KAVREL_TOOLS_OUTPUT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace kavrel::cli {

bool is_terminal(std::FILE *stream);
// Whether the locale asks for UTF-8 (LC_ALL, LC_CTYPE, LANG), or the console
// is set to it on Windows.
bool utf8_terminal();
// Columns of the terminal on stream; 80 when unknown.
int terminal_columns(std::FILE *stream);

// The shortest text that reads back as the same single-precision value:
// wavelengths travel as floats, so more digits would only be noise.
std::string float_text(double value);
// The shortest text that reads back as the same double.
std::string double_text(double value);
// The same value as a JSON number that prints the same way.
nlohmann::json float_json(double value);

// Where data goes: the file of -o, or stdout when there is none or it is "-".
class Output {
public:
    Output(const std::string &path, bool binary);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    std::FILE *stream() const { return stream_; }
    bool to_stdout() const { return stream_ == stdout; }
    // Flushes and closes; a failed write ends the command with kExitFile.
    void finish();

private:
    std::string path_;
    std::FILE *stream_;
    bool finished_ = false;
};

// The bytes of a file, or of stdin for "-".
std::vector<uint8_t> read_bytes(const std::string &path);

// One or more spectra over the same points, with the settings they were
// taken with.
struct SpectrumSet {
    std::string device;
    std::string protocol;
    uint32_t integration_us = 0;
    uint32_t averages = 0;
    bool dark_subtracted = false;
    uint32_t first_index = 0;  // detector index of the first point
    std::vector<double> wavelengths;
    std::vector<std::vector<int32_t>> spectra;

    // The mean of the spectra, point by point.
    std::vector<double> mean() const;
};

enum class Format { text, csv, json };

// CSV: a "#" line with the settings, a header row, one row per point:
// index,wavelength_nm,counts (counts_1 ... counts_N for several spectra).
void write_csv(std::FILE *out, const SpectrumSet &set);
nlohmann::json to_json(const SpectrumSet &set);
// Reads what write_csv or to_json wrote (a dark spectrum saved earlier).
SpectrumSet read_spectrum_file(const std::string &path);

void print_json(std::FILE *out, const nlohmann::json &value);

}  // namespace kavrel::cli

#endif
