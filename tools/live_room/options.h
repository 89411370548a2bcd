// The live room's command line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace quelora::live_room {

struct options {
    uint16_t port = 8088;
    std::string address = "127.0.0.1";    // --listen: the address to bind
    std::string tls_certificate, tls_key; // --tls CERT KEY: HTTPS and WSS
    std::vector<std::string> bots;        // --bot FILE.wav, repeatable
    bool demo_bots = false;               // --demo-bots: the synthesised default conversation
    std::string web_directory;            // --web DIR: the page's files
    std::string layouts_file;             // --layouts FILE: room layouts
    int32_t layout_id = -1;               // --layout ID (-1: the file's default)
    int32_t spatial_quality = 2;          // --quality 1..5
    bool help = false;
};

// False with a message for a bad command line.
bool parse_options(int argc, char** argv, options& o, std::string& message);
void print_usage(std::FILE* to);

} // namespace quelora::live_room
