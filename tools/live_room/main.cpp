// quelora_live_room (make live): the engine as a conferencing server that
// people join from a browser. One room; each browser tab that opens
// http://localhost:PORT and joins becomes a participant who sends its
// microphone and hears its own binaural mix; --bot files talk in a loop so
// that one person alone hears a full room. Public C header only.
#include "conference_host.h"
#include "options.h"
#include "web_server.h"

#include "../conference/rate_conversion.h"
#include "../conference/speech_synthesis.h"
#include "../conference/wav_io.h"

#include <boost/asio/signal_set.hpp>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace quelora::live_room;

// A bot's speech as 48 kHz mono.
bool load_bot(const std::string& path, std::vector<float>& mono, std::string& message) {
    quelora::conference::audio_clip clip;
    if (!quelora::conference::read_wav(path, clip, message) ||
        !quelora::conference::convert_rate(clip, sample_rate, message))
        return false;
    const auto frames = static_cast<std::size_t>(clip.frames());
    mono.assign(frames, 0.0f);
    for (std::size_t f = 0; f < frames; ++f) {
        for (int c = 0; c < clip.channels; ++c)
            mono[f] += clip.samples[f * static_cast<std::size_t>(clip.channels) +
                                    static_cast<std::size_t>(c)];
        mono[f] /= static_cast<float>(clip.channels);
    }
    return true;
}

// The conference simulator's four lines, synthesised into a scratch folder.
bool demo_bot_files(std::vector<std::pair<std::string, std::string>>& bots, std::string& message) {
    const auto folder = std::filesystem::temp_directory_path() / "quelora_live_room";
    std::filesystem::create_directories(folder);
    for (const auto& line : quelora::conference::default_script()) {
        const std::string path = (folder / (std::string(line.name) + ".wav")).string();
        bool spawn_failed = false;
        if (!quelora::conference::synthesise_speech(line, path, spawn_failed, message))
            return false;
        bots.emplace_back(line.name, path);
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    options o;
    o.web_directory = QUELORA_LIVE_ROOM_WEB;
    o.layouts_file = QUELORA_LIVE_ROOM_LAYOUTS;
    std::string message;
    if (!parse_options(argc, argv, o, message)) {
        std::fprintf(stderr, "quelora_live_room: %s\n", message.c_str());
        print_usage(stderr);
        return 2;
    }
    if (o.help) {
        print_usage(stdout);
        return 0;
    }
    std::vector<std::pair<std::string, std::string>> bot_files;
    for (const std::string& path : o.bots)
        bot_files.emplace_back(std::filesystem::path(path).stem().string(), path);
    if (o.demo_bots && !demo_bot_files(bot_files, message)) {
        std::fprintf(stderr, "quelora_live_room: --demo-bots: %s\n", message.c_str());
        return 1;
    }
    qel_set_log_level(QEL_LOG_WARNING);
    try {
        conference_host host(o);
        for (const auto& [name, path] : bot_files) {
            std::vector<float> speech;
            if (!load_bot(path, speech, message)) {
                std::fprintf(stderr, "quelora_live_room: --bot %s: %s\n", path.c_str(),
                             message.c_str());
                return 1;
            }
            host.add_bot(name, std::move(speech));
        }
        host.spread_bots();
        boost::asio::io_context io(1);
        web_server server(io, host, o);
        host.on_engine_change([&server] { server.broadcast_room(); });
        boost::asio::signal_set signals(io, SIGINT, SIGTERM);
        signals.async_wait([&io](const boost::system::error_code&, int) { io.stop(); });
        host.start_audio();
        server.start();
        std::printf("live room: %s://localhost:%u/ (%zu bots; Ctrl-C stops)\n",
                    o.tls_certificate.empty() ? "http" : "https",
                    static_cast<unsigned>(server.port()), bot_files.size());
        std::fflush(stdout);
        io.run();
        // The audio thread posts to the network's executor and the
        // measurements call back into the server: both end first. Then the
        // sessions that io still holds leave the room as it is destroyed,
        // and their notifications must not reach a server that has gone.
        host.stop_audio();
        server.finish_measurements();
        host.on_engine_change(nullptr);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "quelora_live_room: %s\n", e.what());
        return 1;
    }
    return 0;
}
