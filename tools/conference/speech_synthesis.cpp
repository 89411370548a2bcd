#include "speech_synthesis.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace quelora::conference {

const std::vector<scripted_line>& default_script() {
    // Four voices that espeak-ng 1.51 ships (`espeak-ng --voices=en`), two
    // accents and two variants, so each talker is told apart by ear too.
    static const std::vector<scripted_line> script = {
        {"Alice", "en-us", 160,
         "Good morning everyone. Let's start with a quick round of updates on the new release."},
        {"Bob", "en-gb", 150,
         "Thanks, Alice. The audio engine is finished, and every test passes on the build server."},
        {"Carol", "en-us+f3", 165,
         "That is great news. I can hear each of you from a different place around the table."},
        {"Dave", "en-gb-x-rp+m3", 145,
         "Then let us ship it on Friday. I will write the release notes this afternoon."},
    };
    return script;
}

bool synthesise_speech(const scripted_line& line, const std::string& wav_path, bool& spawn_failed,
                       std::string& message) {
    spawn_failed = false;
    const std::string speed = std::to_string(line.words_per_minute);
    const std::vector<std::string> args = {"espeak-ng", "-v", line.voice, "-s", speed,
                                           "-w", wav_path, line.text};
    std::vector<char*> argv;
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    pid_t pid = 0;
    const int status = posix_spawnp(&pid, "espeak-ng", nullptr, nullptr, argv.data(), environ);
    if (status != 0) {
        spawn_failed = true;
        message = std::string("cannot run espeak-ng: ") + std::strerror(status);
        return false;
    }
    int wait_status = 0;
    while (waitpid(pid, &wait_status, 0) < 0) {
        if (errno != EINTR) {
            message = std::string("waiting for espeak-ng: ") + std::strerror(errno);
            return false;
        }
    }
    if (!WIFEXITED(wait_status) || WEXITSTATUS(wait_status) != 0) {
        // posix_spawnp may report a missing program only through the child:
        // glibc's child exits with 127 when the exec fails.
        spawn_failed = WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == 127;
        message = "espeak-ng -v " + std::string(line.voice) + " failed" +
                  (WIFEXITED(wait_status) ? " with exit status " + std::to_string(WEXITSTATUS(wait_status))
                                          : std::string(" (killed by a signal)"));
        return false;
    }
    return true;
}

} // namespace quelora::conference
