// Command lines of the small file tools: every argument is "--name value".
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace quelora::tools {

// Stores each value in the string its flag names; an unknown flag or a flag
// without its value goes to `usage`, which must not return.
template <typename Usage>
void parse_flag_values(int argc, char** argv,
                       const std::vector<std::pair<std::string, std::string*>>& flags,
                       Usage usage) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) usage("missing value after " + arg);
        std::string* target = nullptr;
        for (const auto& [name, value] : flags) {
            if (arg == name) target = value;
        }
        if (!target) usage("unknown option " + arg);
        *target = argv[++i];
    }
}

} // namespace quelora::tools
