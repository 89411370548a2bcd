// The audio path allocates nothing once warmed up (spec Parts 4.1 and 4.2
// "Performance constraints", design: queue nodes recycled per slot).
//
// In ordinary builds this file replaces the global operator new and delete
// of the whole quelora_tests binary with versions that forward to malloc /
// aligned_alloc and free, and that count the allocations the current thread
// makes while a thread-local flag is set; with the flag clear they only
// forward, so every other test sees the ordinary allocator. Under
// AddressSanitizer and ThreadSanitizer the runtime links its own operator
// new and delete (clang puts them in a whole-archive runtime library), so a
// replacement would be a duplicate definition: there the file counts through
// the sanitizer's malloc hook instead, which sees every allocation, operator
// new's included, and malloc's as well. So that ordinary builds see C
// allocations too (Eigen's temporaries and KissFFT's plans come from
// malloc), they also interpose glibc's malloc family, forwarding to its
// __libc_* entry points.
//
// Through the C API: a room with a 48 kHz mono, a 16 kHz mono (input
// resampler), a 48 kHz stereo and a listener-only participant, for a
// 48 kHz stereo interleaved library and a 16 kHz mono library (output
// resampler). After warm-up, 200 block periods (one input per talker, one
// output per listener, sample types rotating) must allocate exactly nothing,
// with several control settings. A listener that stops pulling makes its
// queues grow, which must allocate: the counter is shown to count.
#include "support/library_fixture.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <quelora/quelora.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <numbers>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// ---- Counting allocations -------------------------------------------------

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUELORA_SANITIZER_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define QUELORA_SANITIZER_ALLOCATOR 1
#endif
#endif

namespace {

// Constant-initialised thread-locals: no guard, safe inside an allocator.
thread_local bool t_counting = false;
thread_local long t_allocations = 0;

void note_allocation() {
    if (t_counting) ++t_allocations;
}

} // namespace

#ifdef QUELORA_SANITIZER_ALLOCATOR

// The sanitizer runtimes' chained allocation hooks (declared here: GCC ships
// no <sanitizer/allocator_interface.h>).
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*malloc_hook)(const volatile void*, std::size_t),
    void (*free_hook)(const volatile void*));

namespace {

void on_malloc(const volatile void*, std::size_t) { note_allocation(); }
void on_free(const volatile void*) {}

// Installed before main, while the process has one thread.
const bool hooks_installed = __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free) > 0;

} // namespace

#else // the counting replacement of the global allocation functions

// glibc's own allocator entry points, which the interposed C functions below
// and the replaced operator new forward to (each allocation counted once).
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

extern "C" void* malloc(std::size_t size) noexcept {
    note_allocation();
    return __libc_malloc(size);
}
extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
    note_allocation();
    return __libc_calloc(count, size);
}
extern "C" void* realloc(void* pointer, std::size_t size) noexcept {
    note_allocation();
    return __libc_realloc(pointer, size);
}
extern "C" void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    note_allocation();
    return __libc_memalign(alignment, size);
}
extern "C" void* memalign(std::size_t alignment, std::size_t size) noexcept {
    note_allocation();
    return __libc_memalign(alignment, size);
}
extern "C" int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept {
    note_allocation();
    if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) return EINVAL;
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr) return ENOMEM;
    *result = p;
    return 0;
}

namespace {

[[noreturn]] void out_of_memory() { throw std::bad_alloc(); }

void* allocate(std::size_t size) {
    note_allocation();
    if (size == 0) size = 1;
    while (true) {
        if (void* p = __libc_malloc(size)) return p;
        std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) out_of_memory();
        handler();
    }
}

void* allocate_aligned(std::size_t size, std::align_val_t alignment) {
    note_allocation();
    const auto align = std::max(static_cast<std::size_t>(alignment), sizeof(void*));
    // aligned_alloc wants a size that is a multiple of the alignment.
    const std::size_t rounded = (std::max<std::size_t>(size, 1) + align - 1) / align * align;
    while (true) {
        if (void* p = __libc_memalign(align, rounded)) return p;
        std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) out_of_memory();
        handler();
    }
}

template <typename Allocate>
void* without_throwing(Allocate&& allocate_block) noexcept {
    try {
        return allocate_block();
    } catch (...) {
        return nullptr;
    }
}

const bool hooks_installed = true;

} // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return without_throwing([&] { return allocate(size); });
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return without_throwing([&] { return allocate(size); });
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocate_aligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocate_aligned(size, alignment);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return without_throwing([&] { return allocate_aligned(size, alignment); });
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return without_throwing([&] { return allocate_aligned(size, alignment); });
}

void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }

#endif // QUELORA_SANITIZER_ALLOCATOR

namespace {

// Counts this thread's allocations between start() and stop().
class allocation_counter {
public:
    ~allocation_counter() { t_counting = false; }
    void start() {
        t_allocations = 0;
        t_counting = true;
    }
    void pause() { t_counting = false; }
    void resume() { t_counting = true; }
    long stop() {
        t_counting = false;
        return t_allocations;
    }
};

namespace qt = quelora::testing;

constexpr uint32_t room = 1;
constexpr int warm_up_periods = 20;
constexpr int measured_periods = 200;

struct member {
    uint32_t id;
    int32_t rate;
    int32_t channels;
    int32_t type;
    bool talks() const { return type != QEL_PARTICIPANT_LISTENER_ONLY; }
};

constexpr member members[] = {
    {1, 48000, 1, QEL_PARTICIPANT_REGULAR},
    {2, 16000, 1, QEL_PARTICIPANT_REGULAR}, // input resampler
    {3, 48000, 2, QEL_PARTICIPANT_REGULAR},
    {4, 48000, 1, QEL_PARTICIPANT_LISTENER_ONLY},
};
constexpr size_t member_count = std::size(members);

struct library_format {
    const char* name;
    qel_library_configuration configuration;
};

const library_format formats[] = {
    {"Stereo48kInterleaved", {48000, 480, 2, true, 3}},
    {"Mono16k", {16000, 160, 1, false, 3}}, // output resampler
};

// The sample types 0 (short), 1 (float), 2 (double) of Parts 4.1 and 4.2.
int input_block(qel_handle h, uint32_t id, int type, const std::vector<int16_t>& s16,
                const std::vector<float>& f32, const std::vector<double>& f64, int frames) {
    switch (type) {
    case 0: return qel_input_audio_short(h, room, id, s16.data(), frames);
    case 1: return qel_input_audio_float(h, room, id, f32.data(), frames);
    default: return qel_input_audio_double(h, room, id, f64.data(), frames);
    }
}

int output_block(qel_handle h, uint32_t id, int type, std::vector<double>& buffer) {
    // One buffer big enough for any type: doubles are the widest sample.
    switch (type) {
    case 0: return qel_output_audio_short(h, room, id, reinterpret_cast<int16_t*>(buffer.data()));
    case 1: return qel_output_audio_float(h, room, id, reinterpret_cast<float*>(buffer.data()));
    default: return qel_output_audio_double(h, room, id, buffer.data());
    }
}

// A library with one room of the four members, their input blocks (a
// sinusoid at 0.3 of full scale in all three types) and output buffers, all
// made before anything is counted.
class conference_under_test {
public:
    explicit conference_under_test(const qel_library_configuration& configuration)
        : lib_(nullptr, configuration), configuration_(configuration) {
        EXPECT_EQ(lib_.init_error(), QEL_ERROR_NONE);
        EXPECT_EQ(qel_create_room(lib_, room), QEL_ERROR_NONE);
        for (const member& m : members) {
            EXPECT_EQ(
                qel_add_participant(lib_, room, m.id, "p",
                                    qel_participant_configuration{m.rate, m.channels, m.type}),
                QEL_ERROR_NONE);
            const int frames = input_frames(m);
            const size_t samples = static_cast<size_t>(frames * m.channels);
            std::vector<int16_t> s16(samples);
            std::vector<float> f32(samples);
            std::vector<double> f64(samples);
            for (size_t k = 0; k < samples; ++k) {
                const double v =
                    0.3 * std::sin(2.0 * std::numbers::pi * 440.0 *
                                   static_cast<double>(k / static_cast<size_t>(m.channels)) /
                                   static_cast<double>(m.rate));
                f64[k] = v;
                f32[k] = static_cast<float>(v);
                s16[k] = static_cast<int16_t>(std::lround(v * 32767.0));
            }
            s16_.push_back(std::move(s16));
            f32_.push_back(std::move(f32));
            f64_.push_back(std::move(f64));
            out_.emplace_back(static_cast<size_t>(configuration.output_number_frames *
                                                  configuration.output_number_channels));
        }
    }

    qel_handle handle() const { return lib_; }

    int input_frames(const member& m) const {
        return configuration_.output_number_frames * m.rate / configuration_.output_sampling_rate;
    }

    // One input call by talker i in sample type `type`; returns its code.
    int input(size_t i, int type) {
        return input_block(lib_, members[i].id, type, s16_[i], f32_[i], f64_[i],
                           input_frames(members[i]));
    }
    int output(size_t i, int type) { return output_block(lib_, members[i].id, type, out_[i]); }

    // One block period: every talker's input, then every listener's output
    // (skipping `silent_listener`), the sample type rotating by period and
    // participant. Returns the first code that is not QEL_ERROR_NONE, else
    // QEL_ERROR_NONE. Allocates nothing of its own.
    int period(int p, size_t silent_listener = member_count) {
        int unexpected = QEL_ERROR_NONE;
        for (size_t i = 0; i < member_count; ++i) {
            if (!members[i].talks()) continue;
            const int rc = input(i, (p + static_cast<int>(i)) % 3);
            if (rc != QEL_ERROR_NONE && unexpected == QEL_ERROR_NONE) unexpected = rc;
        }
        for (size_t i = 0; i < member_count; ++i) {
            if (i == silent_listener) continue;
            const int rc = output(i, (p + 2 * static_cast<int>(i)) % 3);
            if (rc != QEL_ERROR_NONE && unexpected == QEL_ERROR_NONE) unexpected = rc;
        }
        return unexpected;
    }

private:
    qt::library_handle lib_;
    qel_library_configuration configuration_;
    std::vector<std::vector<int16_t>> s16_;
    std::vector<std::vector<float>> f32_;
    std::vector<std::vector<double>> f64_;
    std::vector<std::vector<double>> out_;
};

// Control settings applied to every participant before warm-up.
struct control_setting {
    const char* name;
    std::vector<std::pair<qel_audio_control, int>> values;
    bool toggle_mute; // mute one talker per period, in turn
};

const control_setting settings[] = {
    {"Defaults", {}, false},
    {"Mixing3D", {{QEL_CONTROL_MIXING_3D_ENABLE, 1}}, false},
    {"AncHigh",
     {{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_HIGH, 1}, {QEL_CONTROL_ANC_MIX, 70}},
     false},
    {"AncLow",
     {{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_HIGH, 0}, {QEL_CONTROL_ANC_MIX, 70}},
     false},
    {"Agc", {{QEL_CONTROL_AGC_ENABLE, 1}}, false},
    {"MasterGain50", {{QEL_CONTROL_MASTER_GAIN, 50}}, false},
    {"StereoBypass",
     {{QEL_CONTROL_STEREO_BYPASS_ENABLE, 1}, {QEL_CONTROL_MIXING_3D_ENABLE, 1}},
     false},
    {"Speaker", {{QEL_CONTROL_DEVICE, QEL_DEVICE_SPEAKER}}, false},
    {"Everything",
     {{QEL_CONTROL_MIXING_3D_ENABLE, 1},
      {QEL_CONTROL_ANC_ENABLE, 1},
      {QEL_CONTROL_AGC_ENABLE, 1},
      {QEL_CONTROL_MASTER_GAIN, 50},
      {QEL_CONTROL_DEVICE, QEL_DEVICE_SPEAKER}},
     false},
    {"MuteToggled", {{QEL_CONTROL_MIXING_3D_ENABLE, 1}}, true},
};

// Readable parameters in gtest's messages.
void PrintTo(const library_format& format, std::ostream* os) { *os << format.name; }
void PrintTo(const control_setting& setting, std::ostream* os) { *os << setting.name; }

// Mutes talker (p mod 3) and unmutes the others: each listener still hears
// at least one talker every period.
void rotate_mute(qel_handle h, int p) {
    for (size_t i = 0; i < 3; ++i) {
        const int muted = static_cast<size_t>(p % 3) == i ? 1 : 0;
        EXPECT_EQ(qel_set_participant_state(h, room, members[i].id, QEL_CONTROL_MUTE_ENABLE, muted),
                  QEL_ERROR_NONE);
    }
}

class Part4_2_Allocation
    : public ::testing::TestWithParam<std::tuple<library_format, control_setting>> {
protected:
    void SetUp() override {
        ASSERT_TRUE(hooks_installed) << "the sanitizer's allocation hooks are not installed";
        qel_enable_logging(false);
    }
};

TEST_P(Part4_2_Allocation, SteadyStateBlockPeriodsAllocateNothing) {
    const auto& [format, setting] = GetParam();
    conference_under_test c(format.configuration);
    const qel_handle h = c.handle();
    for (const auto& [control, value] : setting.values) {
        ASSERT_EQ(qel_set_all_participants_state(h, room, control, value), QEL_ERROR_NONE)
            << qel_audio_control_to_string(control) << " = " << value;
    }
    for (int p = 0; p < warm_up_periods; ++p) {
        if (setting.toggle_mute) rotate_mute(h, p);
        ASSERT_EQ(c.period(p), QEL_ERROR_NONE) << "warm-up period " << p;
    }

    allocation_counter counter;
    int first_failure = QEL_ERROR_NONE;
    int failing_period = -1;
    counter.start();
    for (int p = warm_up_periods; p < warm_up_periods + measured_periods; ++p) {
        if (setting.toggle_mute) {
            // Control calls are not part of the audio path: not counted.
            counter.pause();
            rotate_mute(h, p);
            counter.resume();
        }
        const int rc = c.period(p);
        if (rc != QEL_ERROR_NONE && failing_period < 0) {
            first_failure = rc;
            failing_period = p;
        }
    }
    const long allocations = counter.stop();
    EXPECT_EQ(failing_period, -1) << "code " << first_failure << " in period " << failing_period;
    EXPECT_EQ(allocations, 0) << "over " << measured_periods << " steady-state block periods";
}

INSTANTIATE_TEST_SUITE_P(
    FormatsAndControls, Part4_2_Allocation,
    ::testing::Combine(::testing::ValuesIn(formats), ::testing::ValuesIn(settings)),
    [](const ::testing::TestParamInfo<Part4_2_Allocation::ParamType>& param_info) {
        return std::string(std::get<0>(param_info.param).name) + "_" +
               std::get<1>(param_info.param).name;
    });

// The counter counts: a direct allocation is seen, and a listener that stops
// pulling makes every queue it holds one node deeper per period (Part 4.2
// submit), which allocates. Once it pulls again, one block in and one out per
// source and period, the deeper queues recycle their nodes and the steady
// state allocates nothing again (after one period: the first input after the
// lag still finds the queue one deeper than ever before).
TEST(Part4_2_AllocationCounter, GrowingQueuesAllocateAndDeeperSteadyQueuesDoNot) {
    ASSERT_TRUE(hooks_installed);
    qel_enable_logging(false);
    allocation_counter counter;
    counter.start();
    void* volatile probe = ::operator new(24);
    const long direct = counter.stop();
    ::operator delete(probe);
    EXPECT_EQ(direct, 1);

    for (const library_format& format : formats) {
        SCOPED_TRACE(format.name);
        conference_under_test c(format.configuration);
        for (int p = 0; p < warm_up_periods; ++p) ASSERT_EQ(c.period(p), QEL_ERROR_NONE);

        constexpr size_t lagging = 3; // the listener-only participant
        constexpr int skipped = 5;
        counter.start();
        for (int p = 0; p < skipped; ++p) ASSERT_EQ(c.period(p, lagging), QEL_ERROR_NONE);
        const long growing = counter.stop();
        // With nodes made on demand: a node and its data per source slot and
        // skipped period, less what the free lists held (24 here).
        EXPECT_GT(growing, 0);
        ::testing::Test::RecordProperty(std::string("growing_queue_allocations_") + format.name,
                                        std::to_string(growing));

        // The first period after the lag still deepens each queue by one
        // (the input comes before the pull); from then on depth is constant.
        ASSERT_EQ(c.period(skipped), QEL_ERROR_NONE);
        counter.start();
        int failure = QEL_ERROR_NONE;
        for (int p = 0; p < measured_periods; ++p) {
            const int rc = c.period(p);
            if (rc != QEL_ERROR_NONE && failure == QEL_ERROR_NONE) failure = rc;
        }
        const long steady = counter.stop();
        EXPECT_EQ(failure, QEL_ERROR_NONE);
        EXPECT_EQ(steady, 0) << "with " << skipped << " blocks queued per source";
    }
}

// Part 4.2 step 5: an output call with no source present returns
// QEL_ERROR_NO_INPUT_AUDIO and logs at level 1. The logger is disabled by
// default (Part 1.3) and its threshold is QEL_LOG_WARNING; in both cases the
// call allocates nothing. Only a logger enabled at DEBUG or below formats the
// line, which allocates (the formatted message, the handler's own work); the
// number is recorded, not asserted.
TEST(Part4_2_AllocationCounter, NoInputAudioPathAllocatesOnlyWhenTheLevel1LineIsEmitted) {
    ASSERT_TRUE(hooks_installed);
    qel_enable_logging(false);
    conference_under_test c(formats[0].configuration);
    const qel_handle h = c.handle();
    // Warm the path up once; then nobody talks.
    ASSERT_EQ(c.period(0), QEL_ERROR_NONE);
    for (size_t i = 0; i < member_count; ++i) {
        ASSERT_EQ(qel_flush_data(h, room, members[i].id), QEL_ERROR_NONE);
    }
    for (size_t i = 0; i < member_count; ++i) ASSERT_EQ(c.output(i, 1), QEL_ERROR_NO_INPUT_AUDIO);

    allocation_counter counter;
    auto silent_outputs = [&] {
        int unexpected = QEL_ERROR_NONE;
        counter.start();
        for (int p = 0; p < 50; ++p) {
            for (size_t i = 0; i < member_count; ++i) {
                const int rc = c.output(i, p % 3);
                if (rc != QEL_ERROR_NO_INPUT_AUDIO) unexpected = rc;
            }
        }
        const long allocations = counter.stop();
        EXPECT_EQ(unexpected, QEL_ERROR_NONE);
        return allocations;
    };

    EXPECT_EQ(silent_outputs(), 0) << "logging disabled (the default)";
    {
        qt::log_capture filtered(QEL_LOG_WARNING);
        EXPECT_EQ(silent_outputs(), 0) << "logging enabled, level 1 filtered by the threshold";
        EXPECT_TRUE(filtered.messages().empty());
    }
    long emitted = 0;
    {
        qt::log_capture debug(QEL_LOG_DEBUG);
        emitted = silent_outputs();
        EXPECT_TRUE(debug.contains("There was no input audio for this participant 4 to process"));
    }
    ::testing::Test::RecordProperty("no_input_audio_allocations_at_debug", std::to_string(emitted));
    std::printf("no-input-audio output calls with the level-1 line emitted: %ld allocations "
                "for 200 calls\n",
                emitted);
}

} // namespace

namespace {

// The counter sees C allocations too (Eigen's and KissFFT's come from the
// malloc family), in ordinary and sanitizer builds alike.
TEST(Part4_2_AllocationCounter, CountsTheMallocFamily) {
    allocation_counter counter;
    counter.start();
    void* volatile a = std::malloc(64);
    void* volatile b = std::calloc(4, 16);
    void* volatile c = std::realloc(nullptr, 32);
    void* volatile d = std::aligned_alloc(64, 128);
    void* e = nullptr;
    EXPECT_EQ(posix_memalign(&e, 64, 128), 0);
    const long counted = counter.stop();
    std::free(a);
    std::free(b);
    std::free(c);
    std::free(d);
    std::free(e);
    EXPECT_EQ(counted, 5);
}

} // namespace
