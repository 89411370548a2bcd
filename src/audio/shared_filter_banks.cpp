#include "audio/shared_filter_banks.h"

#include <map>
#include <mutex>
#include <tuple>

namespace quelora {

namespace {

std::mutex& banks_mutex() {
    static std::mutex mutex;
    return mutex;
}

// Looks up a living bank or builds one; the caller holds banks_mutex().
template <typename Bank, typename Key, typename Build>
std::shared_ptr<const Bank> find_or_build(std::map<Key, std::weak_ptr<const Bank>>& banks,
                                          const Key& key, Build build) {
    if (std::shared_ptr<const Bank> living = banks[key].lock()) return living;
    std::shared_ptr<const Bank> built = build();
    banks[key] = built;
    return built;
}

} // namespace

std::shared_ptr<const spatial_filter_bank> shared_spatial_bank(const measured_hrtf_set& measured,
                                                               int32_t filter_length,
                                                               int32_t block,
                                                               int32_t transform_size) {
    using key = std::tuple<const measured_hrtf_set*, int32_t, int32_t, int32_t>;
    static std::map<key, std::weak_ptr<const spatial_filter_bank>> banks;
    std::lock_guard lock(banks_mutex());
    return find_or_build(banks, key{&measured, filter_length, block, transform_size}, [&] {
        return std::make_shared<const spatial_filter_bank>(measured, filter_length, block,
                                                           transform_size);
    });
}

std::shared_ptr<const crosstalk_filter_bank> shared_crosstalk_bank(
    const measured_hrtf_set& measured) {
    static std::map<const measured_hrtf_set*, std::weak_ptr<const crosstalk_filter_bank>> banks;
    std::lock_guard lock(banks_mutex());
    return find_or_build(banks, &measured,
                         [&] { return std::make_shared<const crosstalk_filter_bank>(measured); });
}

} // namespace quelora
