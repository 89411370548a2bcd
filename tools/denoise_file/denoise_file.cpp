// quelora_denoise_file: one of the library's noise cancellers over a whole
// signal, for scoring trained weights.
//   --canceller dfn         the DFN canceller (frame length 480), with the
//                           compiled-in table or --weights T.bin (1 517 904
//                           little-endian float32 values)
//   --canceller suppressor  the light recurrent suppressor, with the
//                           compiled-in model or --weights M.rnnn
// Input and output are raw little-endian float32 mono at 48000 Hz in
// [-1, 1). The output has the input's length (a last partial 480-sample
// frame is dropped) and is aligned with it: the canceller's latency is
// removed by running silence through after the signal. --voice V.f32
// receives the suppressor's voice probability, one value per frame.
#include "common/flag_values.h"
#include "denoise/dfn_weight_layout.h"
#include "denoise/noise_canceller.h"
#include "denoise/rnn_suppressor.h"

#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace quelora::denoise;

constexpr std::size_t frame = 480;
constexpr std::size_t dfn_latency = 1200;
constexpr std::size_t suppressor_latency = rnn_frame_size;

struct options {
    std::string canceller, weights, in, out, voice;
};

[[noreturn]] void usage(const std::string& why) {
    std::cerr << "quelora_denoise_file: " << why << "\n"
              << "usage: quelora_denoise_file --canceller dfn|suppressor [--weights W] --in X.f32 "
                 "--out Y.f32 [--voice V.f32]\n";
    std::exit(2);
}

options parse_options(int argc, char** argv) {
    options o;
    quelora::tools::parse_flag_values(argc, argv,
                                      {{"--canceller", &o.canceller},
                                       {"--weights", &o.weights},
                                       {"--in", &o.in},
                                       {"--out", &o.out},
                                       {"--voice", &o.voice}},
                                      usage);
    if (o.canceller != "dfn" && o.canceller != "suppressor") {
        usage("--canceller must be dfn or suppressor");
    }
    if (o.in.empty() || o.out.empty()) usage("--in and --out are required");
    if (!o.voice.empty() && o.canceller != "suppressor") {
        usage("--voice is the suppressor's");
    }
    return o;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot open " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<float> as_floats(const std::string& bytes, const std::string& path) {
    if (bytes.size() % sizeof(float) != 0) {
        throw std::runtime_error(path + " is not whole float32 values");
    }
    std::vector<float> v(bytes.size() / sizeof(float));
    std::memcpy(v.data(), bytes.data(), bytes.size());
    return v;
}

void write_floats(const std::string& path, const float* data, std::size_t count) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(data),
              static_cast<std::streamsize>(count * sizeof(float)));
    if (!out) throw std::runtime_error("writing " + path + " failed");
}

// The signal, whole frames of it, followed by enough silence to flush the
// latency out.
std::vector<float> padded_input(const std::vector<float>& x, std::size_t latency,
                                std::size_t& frames) {
    frames = x.size() / frame;
    std::vector<float> padded(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(frames * frame));
    padded.resize((frames + (latency + frame - 1) / frame) * frame, 0.0f);
    return padded;
}

std::vector<float> run_dfn(const options& o, const std::vector<float>& x) {
    std::vector<float> table;
    if (!o.weights.empty()) {
        table = as_floats(read_file(o.weights), o.weights);
        if (table.size() != dfn_weight_count) {
            throw std::runtime_error(o.weights + " holds " + std::to_string(table.size()) +
                                     " values, not " + std::to_string(dfn_weight_count));
        }
    }
    noise_canceller canceller(48000, 1, frame,
                              table.empty() ? dfn_default_weights() : table.data());
    std::size_t frames = 0;
    std::vector<float> in = padded_input(x, dfn_latency, frames);
    std::vector<float> out(in.size());
    std::vector<float> dry(frame);
    for (std::size_t i = 0; i < in.size(); i += frame) {
        canceller.process(in.data() + i, out.data() + i, dry.data());
    }
    return {out.begin() + dfn_latency,
            out.begin() + static_cast<std::ptrdiff_t>(dfn_latency + frames * frame)};
}

std::vector<float> run_suppressor(const options& o, const std::vector<float>& x) {
    std::unique_ptr<rnn_model> loaded;
    if (!o.weights.empty()) loaded = std::make_unique<rnn_model>(parse_rnnn(read_file(o.weights)));
    rnn_suppressor suppressor(loaded ? *loaded : builtin_rnn_model());
    std::size_t frames = 0;
    std::vector<float> in = padded_input(x, suppressor_latency, frames);
    std::vector<float> out(in.size());
    std::vector<float> voice;
    voice.reserve(in.size() / frame);
    std::vector<float> block(frame);
    for (std::size_t i = 0; i < in.size(); i += frame) {
        for (std::size_t k = 0; k < frame; ++k) block[k] = in[i + k] * 32768.0f;
        voice.push_back(suppressor.process_frame(block.data(), block.data()));
        for (std::size_t k = 0; k < frame; ++k) out[i + k] = block[k] / 32768.0f;
    }
    if (!o.voice.empty()) write_floats(o.voice, voice.data(), frames);
    return {out.begin() + suppressor_latency,
            out.begin() + static_cast<std::ptrdiff_t>(suppressor_latency + frames * frame)};
}

} // namespace

int main(int argc, char** argv) {
    const options o = parse_options(argc, argv);
    try {
        const std::vector<float> x = as_floats(read_file(o.in), o.in);
        const std::vector<float> y = o.canceller == "dfn" ? run_dfn(o, x) : run_suppressor(o, x);
        write_floats(o.out, y.data(), y.size());
    } catch (const std::exception& e) {
        std::cerr << "quelora_denoise_file: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
