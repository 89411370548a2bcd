// quelora_conference: the conference simulator behind `make demo`.
//
// A host program in the role of a conferencing server, using the public C
// interface only: it seats the talkers in one room, pushes each talker's
// audio block by block, pulls every participant's personal mix, and writes
// one WAV per listener, then reads them back to measure what each listener
// hears from where, draws the room and the first listener's ear cues, and
// prints a summary. `--help` lists the options.
#include "audio_loop.h"
#include "ear_cue_plot.h"
#include "library_session.h"
#include "listening_check.h"
#include "options.h"
#include "room_picture.h"
#include "summary.h"
#include "talkers.h"

#include <chrono>
#include <cstdio>
#include <filesystem>

namespace conference = quelora::conference;

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

int fail(const std::string& message, int exit_status = 1) {
    std::fprintf(stderr, "quelora_conference: %s\n", message.c_str());
    return exit_status;
}

} // namespace

int main(int argc, char** argv) {
    const auto program_start = clock_type::now();
    conference::options opts;
    std::string message;
    switch (conference::parse_options(argc, argv, opts, message)) {
    case conference::parse_result::ok: break;
    case conference::parse_result::help: std::fputs(conference::usage().c_str(), stdout); return 0;
    case conference::parse_result::error:
        std::fprintf(stderr, "quelora_conference: %s\n\n%s", message.c_str(), conference::usage().c_str());
        return 2;
    }

    std::error_code error;
    std::filesystem::create_directories(opts.out_dir, error);
    if (error) return fail(opts.out_dir + ": " + error.message());

    conference::run_timings timings;
    std::vector<conference::talker> talkers;
    if (!conference::prepare_talkers(opts, talkers, timings.talkers, message)) return fail(message);

    const auto setup_start = clock_type::now();
    conference::library_session session;
    conference::session_error session_error;
    if (!session.open(opts, talkers, session_error)) {
        return fail(session_error.message, session_error.exit_status);
    }
    timings.setup_seconds = seconds_since(setup_start);

    conference::loop_result loop;
    if (!conference::run_conference(opts, session, talkers, loop, message)) return fail(message);

    const auto check_start = clock_type::now();
    std::vector<conference::listener_check> checks;
    if (!conference::check_listeners(opts, session, talkers, loop, checks, message)) {
        return fail(message);
    }
    std::vector<conference::picture> pictures;
    const auto out_path = [&opts](const char* name) {
        return (std::filesystem::path(opts.out_dir) / name).string();
    };
    pictures.push_back({out_path("room.svg"), "the room from above: seats, places, and where "
                                              "each listener hears each talker"});
    if (!conference::write_room_picture(pictures.back().path, session, message)) {
        return fail(message);
    }
    if (!checks.empty() && checks.front().measured) {
        const auto& first = checks.front();
        pictures.push_back({out_path("ear_cues.svg"),
                            first.name + "'s interaural level and time differences over time"});
        if (!conference::write_ear_cue_plot(pictures.back().path, first, talkers, opts.input_rate,
                                            message)) {
            return fail(message);
        }
    } else {
        pictures.push_back({"", "ear_cues.svg: one output channel, no ear cues"});
    }
    timings.check_seconds = seconds_since(check_start);
    timings.total_seconds = seconds_since(program_start);

    conference::print_summary(opts, session, talkers, loop, checks, pictures, timings);
    return 0;
}
