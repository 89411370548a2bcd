// quelora_rnn_features: the training data of the recurrent suppressor, one
// record of 89 float32 per 480-sample frame (docs/rnn_suppressor.md):
//   [0..41]  the noisy frame's features as the suppressor computes them
//            (all 0 on a silent frame)
//   [42..63] target band gains sqrt(E_clean / E_noisy), at most 1; -1 where
//            both energies are below 1e-3 (no signal to speak of: one LSB of
//            white noise gives about 4e-3 in an 8-bin band)
//   [64]     the clean frame's level, 10 log10 of its mean square in the
//            16-bit range, at least -100
//   [65]     1 if the noisy frame is silent (the suppressor skips the
//            network there), else 0
//   [66..87] the band gains the model computes (1 on a silent frame, which
//            passes unchanged)
//   [88]     the model's voice probability (0 on a silent frame)
// Inputs are raw little-endian float32 mono at 48000 Hz in [-1, 1), scaled
// by 32768 as the library does; a last partial frame is dropped.
#include "denoise/rnn_suppressor.h"

#include "common/flag_values.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using namespace quelora::denoise;

constexpr int record_size = 89;
constexpr float undefined_band_energy = 1e-3f;

struct options {
    std::string noisy, clean, model, out;
};

[[noreturn]] void usage(const std::string& why) {
    std::cerr << "quelora_rnn_features: " << why << "\n"
              << "usage: quelora_rnn_features --noisy N.f32 --clean C.f32 [--model M.rnnn] "
                 "--out R.f32\n";
    std::exit(2);
}

options parse_options(int argc, char** argv) {
    options o;
    quelora::tools::parse_flag_values(
        argc, argv,
        {{"--noisy", &o.noisy}, {"--clean", &o.clean}, {"--model", &o.model}, {"--out", &o.out}},
        usage);
    if (o.noisy.empty() || o.clean.empty() || o.out.empty()) {
        usage("--noisy, --clean and --out are required");
    }
    return o;
}

std::ifstream open_signal(const std::string& path, std::streamoff& bytes) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) throw std::runtime_error("cannot open " + path);
    bytes = in.tellg();
    in.seekg(0);
    return in;
}

bool read_frame(std::ifstream& in, std::array<float, rnn_frame_size>& frame) {
    in.read(reinterpret_cast<char*>(frame.data()), sizeof(frame));
    if (in.gcount() != static_cast<std::streamsize>(sizeof(frame))) return false;
    for (float& x : frame) x *= 32768.0f;
    return true;
}

void run(const options& o) {
    std::unique_ptr<rnn_model> loaded;
    if (!o.model.empty()) {
        std::ifstream file(o.model, std::ios::binary);
        if (!file) throw std::runtime_error("cannot open " + o.model);
        std::ostringstream text;
        text << file.rdbuf();
        loaded = std::make_unique<rnn_model>(parse_rnnn(text.str()));
    }
    const rnn_model& model = loaded ? *loaded : builtin_rnn_model();

    std::streamoff noisy_bytes = 0, clean_bytes = 0;
    std::ifstream noisy_in = open_signal(o.noisy, noisy_bytes);
    std::ifstream clean_in = open_signal(o.clean, clean_bytes);
    if (noisy_bytes != clean_bytes) {
        throw std::runtime_error(o.noisy + " and " + o.clean + " differ in length");
    }
    std::ofstream out(o.out, std::ios::binary);
    if (!out) throw std::runtime_error("cannot write " + o.out);

    // The noisy signal runs through a full suppressor's analysis and
    // network; the clean one only through an analysis of its own.
    rnn_suppressor noisy_state(model);
    rnn_suppressor clean_state(model);
    std::array<float, rnn_frame_size> noisy, clean;
    std::array<float, record_size> record;
    long frames = 0;
    while (read_frame(noisy_in, noisy) && read_frame(clean_in, clean)) {
        const rnn_frame_analysis& n = noisy_state.analyse(noisy.data());
        const rnn_frame_analysis& c = clean_state.analyse(clean.data());
        std::copy(n.features.begin(), n.features.end(), record.begin());
        for (int b = 0; b < rnn_band_count; ++b) {
            const float en = n.energy[b];
            const float ec = c.energy[b];
            record[42 + b] = en < undefined_band_energy && ec < undefined_band_energy
                                 ? -1.0f
                                 : std::min(1.0f, std::sqrt(ec / (en + 1e-30f)));
        }
        double square_sum = 0.0;
        for (float x : clean) square_sum += static_cast<double>(x) * x;
        const double level = 10.0 * std::log10(square_sum / rnn_frame_size + 1e-30);
        record[64] = static_cast<float>(std::max(-100.0, level));
        record[65] = n.silent ? 1.0f : 0.0f;
        if (n.silent) {
            std::fill(record.begin() + 66, record.begin() + 88, 1.0f);
            record[88] = 0.0f;
        } else {
            record[88] = noisy_state.run_network(n.features.data(), record.data() + 66);
        }
        out.write(reinterpret_cast<const char*>(record.data()), sizeof(record));
        ++frames;
    }
    if (!out) throw std::runtime_error("writing " + o.out + " failed");
    std::cerr << "quelora_rnn_features: " << frames << " frames -> " << o.out << "\n";
}

} // namespace

int main(int argc, char** argv) {
    const options o = parse_options(argc, argv);
    try {
        run(o);
    } catch (const std::exception& e) {
        std::cerr << "quelora_rnn_features: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
