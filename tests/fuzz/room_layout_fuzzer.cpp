// libFuzzer target for the room configuration document (spec Part 2.2): text
// -> parse_json_text -> room_layout_set -> lookups. Only the failures the
// library is specified to raise are caught; anything else (a crash, a
// sanitizer report, another exception, a broken invariant) ends the run so
// that the fuzzer reports it.
#include "api/quelora_exception.h"
#include "config/room_layout.h"

#include "fuzz_support.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

using quelora::fuzz::require;

namespace {

void exercise(const std::string& text) {
    const quelora::room_layout_set set(quelora::parse_json_text(text));

    // Invariants of Part 2.2 "Document parsing".
    const nlohmann::json reparsed = quelora::parse_json_text(set.json_text());
    require(set.layouts().size() == reparsed.at("room_list").size());
    if (const quelora::quelora_room_layout* chosen = set.default_layout()) {
        require(chosen->key == reparsed.at("default").get<std::string>());
    }

    for (const int32_t id : {0, 1, -1, std::numeric_limits<int32_t>::max(),
                             std::numeric_limits<int32_t>::min()}) {
        if (const quelora::quelora_room_layout* found = set.find(id)) require(found->id == id);
    }
    if (!set.layouts().empty()) {
        const int32_t first_id = set.layouts().front()->id;
        require(set.find(first_id) == set.layouts().front().get());
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quelora::fuzz::discard_all_log_lines();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        exercise(text);
    } catch (const quelora_exception&) {
    } catch (const nlohmann::json::exception&) {
    }
    return 0;
}
