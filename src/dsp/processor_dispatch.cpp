#include "dsp/processor_dispatch.h"

#include <mutex>

namespace quelora::dsp {
namespace {

std::mutex dispatch_mutex;
bool dispatch_initialised = false; // never cleared: the processor does not change
processor_features features;

} // namespace

bool initialize_processor_dispatch() {
    std::lock_guard lock(dispatch_mutex);
    if (dispatch_initialised) return false;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    features.sse4_1 = __builtin_cpu_supports("sse4.1") != 0;
    features.avx2 = __builtin_cpu_supports("avx2") != 0;
    features.fma = __builtin_cpu_supports("fma") != 0;
    features.avx512f = __builtin_cpu_supports("avx512f") != 0;
#endif
    dispatch_initialised = true;
    return true;
}

const processor_features& current_processor_features() {
    std::lock_guard lock(dispatch_mutex);
    return features;
}

} // namespace quelora::dsp
