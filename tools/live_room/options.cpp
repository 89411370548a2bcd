#include "options.h"

#include <cstdlib>

namespace quelora::live_room {

void print_usage(std::FILE* to) {
    std::fputs(
        "usage: quelora_live_room [--port N] [--listen ADDRESS] [--tls CERT KEY] [--bot "
        "FILE.wav]...\n"
        "                         [--demo-bots] [--web DIR] [--layouts FILE] [--layout ID]\n"
        "                         [--quality 1..5]\n"
        "  --port N          HTTP and websocket port (default 8088; 0: any free port, printed)\n"
        "  --listen ADDRESS  address to bind (default 127.0.0.1: this machine only, where\n"
        "                    browsers treat http://localhost as secure and allow the microphone)\n"
        "  --tls CERT KEY    serve HTTPS and WSS with this certificate chain and key (PEM), for\n"
        "                    browsers on other machines\n"
        "  --bot FILE.wav    a participant that talks from this file in a loop (repeatable)\n"
        "  --demo-bots       four bots speaking the conference simulator's conversation\n"
        "                    (synthesised with espeak-ng)\n"
        "  --web DIR         the page's files (default: the source tree's tools/live_room/web)\n"
        "  --layouts FILE    room layouts (default: tools/live_room/live_room_layouts.json)\n"
        "  --layout ID       the room's layout id (default: the file's default layout)\n"
        "  --quality Q       spatial quality 1..5 (default 2)\n",
        to);
}

bool parse_options(int argc, char** argv, options& o, std::string& message) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&](const char* what) -> const char* {
            if (i + 1 >= argc) {
                message = arg + " needs " + what;
                return nullptr;
            }
            return argv[++i];
        };
        if (arg == "-h" || arg == "--help") {
            o.help = true;
        } else if (arg == "--port") {
            const char* v = value("a port number");
            if (v == nullptr) return false;
            const long port = std::strtol(v, nullptr, 10);
            if (port < 0 || port > 65535) {
                message = "--port must be 0..65535";
                return false;
            }
            o.port = static_cast<uint16_t>(port);
        } else if (arg == "--listen") {
            const char* v = value("an address");
            if (v == nullptr) return false;
            o.address = v;
        } else if (arg == "--tls") {
            if (i + 2 >= argc) {
                message = "--tls needs a certificate file and a key file";
                return false;
            }
            o.tls_certificate = argv[++i];
            o.tls_key = argv[++i];
        } else if (arg == "--bot") {
            const char* v = value("a WAV file");
            if (v == nullptr) return false;
            o.bots.emplace_back(v);
        } else if (arg == "--demo-bots") {
            o.demo_bots = true;
        } else if (arg == "--web") {
            const char* v = value("a directory");
            if (v == nullptr) return false;
            o.web_directory = v;
        } else if (arg == "--layouts") {
            const char* v = value("a file");
            if (v == nullptr) return false;
            o.layouts_file = v;
        } else if (arg == "--layout") {
            const char* v = value("a layout id");
            if (v == nullptr) return false;
            o.layout_id = static_cast<int32_t>(std::strtol(v, nullptr, 10));
        } else if (arg == "--quality") {
            const char* v = value("1..5");
            if (v == nullptr) return false;
            o.spatial_quality = static_cast<int32_t>(std::strtol(v, nullptr, 10));
            if (o.spatial_quality < 1 || o.spatial_quality > 5) {
                message = "--quality must be 1..5";
                return false;
            }
        } else {
            message = "unknown argument " + arg;
            return false;
        }
    }
    return true;
}

} // namespace quelora::live_room
