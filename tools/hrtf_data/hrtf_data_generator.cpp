// quelora_hrtf_data <input.sofa> <output.bin>: turns the head-related impulse
// responses measured in a SOFA file into the blob the library compiles in
// (hrtf_blob.h has the format, docs/hrtf_data.md the whole path). Run by the
// build whenever the SOFA file or this program changes; the same file always
// gives the same bytes (no time stamps, a fixed order: the file's own).
//
// The file is read with mysofa_load and mysofa_check only: mysofa_open would
// resample with its own filter and normalise the loudness, and the library
// wants the measured levels at 48000 Hz from a filter it controls.
#include <mysofa.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "hrtf_blob.h"
#include "sinc_interpolator.h"

namespace quelora::hrtf_data {

namespace {

constexpr double output_rate = 48000.0;
// Responses are cut at 2048 taps at 48 kHz (42.7 ms): far longer than any
// free-field head-related response, and a bound on the size of the blob and
// of everything the library derives from it. The KEMAR set needs 558.
constexpr int32_t max_taps = 2048;

struct sofa_deleter {
    void operator()(MYSOFA_HRTF* hrtf) const { mysofa_free(hrtf); }
};
using sofa_file = std::unique_ptr<MYSOFA_HRTF, sofa_deleter>;

std::string attribute(MYSOFA_ATTRIBUTE* attributes, const char* name) {
    const char* value = mysofa_getAttribute(attributes, const_cast<char*>(name));
    return value != nullptr ? value : "";
}

// The words of `text` joined by single spaces; `separators` also split words.
std::string words(std::string_view text, std::string_view separators) {
    std::string joined;
    bool gap = false;
    for (char c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == ' ' ||
            separators.find(c) != std::string_view::npos) {
            gap = !joined.empty();
            continue;
        }
        if (gap) joined += ' ';
        joined += c;
        gap = false;
    }
    return joined;
}

// The SOFA Title when it says anything; else the database and subject the
// file names (DatabaseName "MIT" and ListenerShortName "KEMAR, normal pinna"
// give "MIT KEMAR normal pinna"); else the file's name.
std::string set_name(MYSOFA_HRTF* hrtf, const std::string& path) {
    std::string name = words(attribute(hrtf->attributes, "Title"), "");
    if (name.empty()) {
        name = words(attribute(hrtf->attributes, "DatabaseName") + " " +
                         attribute(hrtf->attributes, "ListenerShortName"),
                     ",_");
    }
    if (name.empty()) name = words(std::filesystem::path(path).stem().string(), "_");
    return name.empty() ? "unnamed" : name;
}

sofa_file load(const std::string& path) {
    int error = 0;
    sofa_file hrtf(mysofa_load(path.c_str(), &error));
    if (!hrtf || error != MYSOFA_OK)
        throw std::runtime_error("libmysofa cannot read it (error " + std::to_string(error) + ")");
    if (const int check = mysofa_check(hrtf.get()); check != MYSOFA_OK)
        throw std::runtime_error("not a usable SOFA head-related response set (mysofa_check error " +
                                 std::to_string(check) + ")");
    if (hrtf->R != 2)
        throw std::runtime_error(std::to_string(hrtf->R) + " receivers; two ears are needed");
    if (hrtf->E != 1)
        throw std::runtime_error(std::to_string(hrtf->E) + " emitters; one is needed");
    if (hrtf->M == 0 || hrtf->N == 0 || hrtf->C != 3 ||
        hrtf->DataIR.elements != uint64_t{hrtf->M} * hrtf->R * hrtf->N ||
        hrtf->SourcePosition.elements != uint64_t{hrtf->M} * 3)
        throw std::runtime_error("no measurements, or Data.IR and SourcePosition of the wrong size");
    if (hrtf->DataSamplingRate.elements != 1 || !(hrtf->DataSamplingRate.values[0] > 0.0f) ||
        !std::isfinite(hrtf->DataSamplingRate.values[0]))
        throw std::runtime_error("the sample rate must be one positive value");
    if (attribute(hrtf->SourcePosition.attributes, "Type") == "cartesian")
        mysofa_tospherical(hrtf.get());
    if (attribute(hrtf->SourcePosition.attributes, "Type") != "spherical")
        throw std::runtime_error("SourcePosition is neither spherical nor cartesian");
    return hrtf;
}

// Data.Delay in whole samples, one per measurement and ear: the SOFA file
// gives one per ear (I x R) or one per measurement and ear (M x R); a
// fractional delay is rounded to the nearest sample.
std::vector<int32_t> delays(const MYSOFA_HRTF& hrtf) {
    const MYSOFA_ARRAY& delay = hrtf.DataDelay;
    const unsigned responses = hrtf.M * hrtf.R;
    if (delay.elements != 0 && delay.elements != hrtf.R && delay.elements != responses)
        throw std::runtime_error("Data.Delay has neither R nor M x R values");
    std::vector<int32_t> shifts(responses, 0);
    for (unsigned r = 0; r < responses && delay.elements != 0; ++r) {
        const float value = delay.values[delay.elements == responses ? r : r % hrtf.R];
        const double limit = static_cast<double>(max_taps) * hrtf.DataSamplingRate.values[0] /
                             output_rate;
        if (!(value >= 0.0f) || !(value < limit))
            throw std::runtime_error("a Data.Delay value is negative or beyond the kept taps");
        shifts[r] = static_cast<int32_t>(std::lround(value));
    }
    return shifts;
}

measured_set convert(const MYSOFA_HRTF& hrtf, const std::string& name, double* pass_band) {
    const double rate = hrtf.DataSamplingRate.values[0];
    const std::vector<int32_t> shifts = delays(hrtf);
    const int32_t length = static_cast<int32_t>(hrtf.N) +
                           *std::max_element(shifts.begin(), shifts.end());
    // The whole response (its delay included) at 48 kHz, rounded up to a
    // whole sample; the 1e-9 keeps an exact ratio (96 kHz: 512 -> 256) exact.
    const double exact_taps = static_cast<double>(length) * output_rate / rate;
    const int32_t taps = static_cast<int32_t>(
        std::min(std::ceil(exact_taps - 1e-9), static_cast<double>(max_taps)));
    if (exact_taps > max_taps)
        std::fprintf(stderr, "quelora_hrtf_data: responses cut from %.0f to %d taps\n",
                     std::ceil(exact_taps), max_taps);

    measured_set set;
    set.name = name;
    set.taps = taps;
    for (unsigned m = 0; m < hrtf.M; ++m) {
        const float* position = hrtf.SourcePosition.values + 3 * m;
        if (!std::isfinite(position[0]) || !(std::fabs(position[1]) <= 90.0f))
            throw std::runtime_error("measurement " + std::to_string(m) +
                                     " has no finite azimuth or an elevation beyond +-90");
        // SOFA turns counter-clockwise (90 = left); the library clockwise.
        double azimuth = std::fmod(360.0 - static_cast<double>(position[0]), 360.0);
        if (azimuth < 0.0) azimuth += 360.0;
        float stored = static_cast<float>(azimuth);
        set.azimuth.push_back(stored >= 360.0f ? 0.0f : stored);
        set.elevation.push_back(position[1]);
    }

    const sinc_interpolator interpolator(rate, output_rate, length, taps);
    *pass_band = interpolator.pass_band_edge();
    std::vector<double> shifted(static_cast<std::size_t>(length));
    set.responses.resize(static_cast<std::size_t>(hrtf.M) * 2 * static_cast<std::size_t>(taps));
    for (unsigned r = 0; r < hrtf.M * 2; ++r) {
        std::fill(shifted.begin(), shifted.end(), 0.0);
        const float* measured = hrtf.DataIR.values + static_cast<std::size_t>(r) * hrtf.N;
        for (unsigned i = 0; i < hrtf.N; ++i) {
            if (!std::isfinite(measured[i]))
                throw std::runtime_error("Data.IR holds a value that is not finite");
            shifted[static_cast<std::size_t>(shifts[r]) + i] = measured[i];
        }
        interpolator.run(shifted.data(), set.responses.data() + static_cast<std::size_t>(r) * taps);
    }
    return set;
}

// Written beside the output and renamed over it, so that a failed run never
// leaves a partial blob that the build would take as up to date.
void write(const std::string& path, const std::vector<unsigned char>& bytes) {
    const std::string temporary = path + ".partial";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
        if (!out) throw std::runtime_error("cannot write " + temporary);
    }
    std::filesystem::rename(temporary, path);
}

} // namespace

} // namespace quelora::hrtf_data

int main(int argc, char** argv) {
    using namespace quelora::hrtf_data;
    if (argc != 3) {
        std::fprintf(stderr, "usage: quelora_hrtf_data <input.sofa> <output.bin>\n");
        return 2;
    }
    const auto start = std::chrono::steady_clock::now();
    try {
        const sofa_file hrtf = load(argv[1]);
        double pass_band = 0.0;
        const measured_set set = convert(*hrtf, set_name(hrtf.get(), argv[1]), &pass_band);
        const std::vector<unsigned char> bytes = serialise(set);
        write(argv[2], bytes);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        std::printf("quelora_hrtf_data: \"%s\": %zu directions, %g Hz -> 48000 Hz (pass band to "
                    "%.0f Hz), %d taps, %zu bytes, %.2f s\n",
                    set.name.c_str(), set.azimuth.size(),
                    static_cast<double>(hrtf->DataSamplingRate.values[0]), pass_band, set.taps,
                    bytes.size(), took.count());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "quelora_hrtf_data: %s: %s\n", argv[1], e.what());
        return 1;
    }
    return 0;
}
