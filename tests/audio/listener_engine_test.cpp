// The listener engine of spec Part 4.2 on its own: queues in submission
// order, one pop per source per mix, has-new handling, gains, the plain mix,
// flushes, and the hand-over to a spatial renderer (a recording double: the
// real renderer of Part 4.3 needs the filter bank, docs/status.md).
#include "audio/listener_engine.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using quelora::control_values;
using quelora::listener_engine;
using quelora::rendered_source;
using quelora::spatial_renderer;

constexpr int32_t n = 8;
constexpr float ear = 0.70710677f;

std::vector<float> constant(size_t count, float value) { return std::vector<float>(count, value); }

control_values controls_with(std::initializer_list<std::pair<int32_t, int32_t>> values) {
    control_values c;
    for (auto [control, value] : values) c.set(control, value);
    return c;
}

TEST(Part4_2_ListenerEngine, SubmitNeedsASlot) {
    listener_engine e(n, 4);
    EXPECT_FALSE(e.submit(5, constant(n, 1.0f).data(), 1.0f));
    e.add_source(5, 1);
    EXPECT_TRUE(e.submit(5, constant(n, 1.0f).data(), 1.0f));
    EXPECT_EQ(e.queued_blocks(5), 1);
}

TEST(Part4_2_ListenerEngine, BlocksComeOutInOrderOnePerMix) {
    listener_engine e(n, 4);
    e.add_source(1, 1);
    for (float v : {0.1f, 0.2f, 0.3f}) e.submit(1, constant(n, v).data(), 1.0f);
    std::vector<float> mix(2 * n);
    for (float v : {0.1f, 0.2f, 0.3f}) {
        ASSERT_EQ(e.mix(mix.data(), control_values{}), n);
        for (int32_t i = 0; i < 2 * n; ++i) ASSERT_EQ(mix[static_cast<size_t>(i)], v * ear);
    }
    EXPECT_EQ(e.mix(mix.data(), control_values{}), 0);
    for (float v : mix) EXPECT_EQ(v, 0.0f);
}

TEST(Part4_2_ListenerEngine, GainScalesTheQueuedCopyOnly) {
    listener_engine e(n, 4);
    e.add_source(1, 2);
    std::vector<float> block(2 * n);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<float>(i) * 0.01f;
    const std::vector<float> original = block;
    e.submit(1, block.data(), 0.25f);
    EXPECT_EQ(block, original);
    std::vector<float> mix(2 * n);
    ASSERT_EQ(e.mix(mix.data(), control_values{}), n);
    for (size_t i = 0; i < mix.size(); ++i) EXPECT_EQ(mix[i], original[i] * 0.25f);
}

TEST(Part4_2_ListenerEngine, StereoSourcesAddChannelToChannel) {
    listener_engine e(n, 4);
    e.add_source(1, 2);
    e.add_source(2, 1);
    std::vector<float> stereo(2 * n);
    for (int32_t i = 0; i < n; ++i) {
        stereo[static_cast<size_t>(i)] = 0.1f;
        stereo[static_cast<size_t>(n + i)] = -0.2f;
    }
    e.submit(1, stereo.data(), 1.0f);
    e.submit(2, constant(n, 0.5f).data(), 1.0f);
    std::vector<float> mix(2 * n);
    ASSERT_EQ(e.mix(mix.data(), control_values{}), n);
    EXPECT_EQ(mix[0], 0.1f + 0.5f * ear);
    EXPECT_EQ(mix[static_cast<size_t>(n)], -0.2f + 0.5f * ear);
}

TEST(Part4_2_ListenerEngine, FlushesDiscardQueuedBlocks) {
    listener_engine e(n, 4);
    e.add_source(1, 1);
    e.add_source(2, 1);
    e.submit(1, constant(n, 0.1f).data(), 1.0f);
    e.submit(1, constant(n, 0.1f).data(), 1.0f);
    e.submit(2, constant(n, 0.2f).data(), 1.0f);
    EXPECT_TRUE(e.flush_source(1));
    EXPECT_FALSE(e.flush_source(3));
    EXPECT_EQ(e.queued_blocks(1), 0);
    EXPECT_EQ(e.queued_blocks(2), 1);
    std::vector<float> mix(2 * n);
    ASSERT_EQ(e.mix(mix.data(), control_values{}), n);
    EXPECT_EQ(mix[0], 0.2f * ear);
    e.submit(1, constant(n, 0.1f).data(), 1.0f);
    e.flush();
    EXPECT_EQ(e.mix(mix.data(), control_values{}), 0);
    // Recycled nodes carry no stale data into later blocks.
    e.submit(1, constant(n, 0.4f).data(), 1.0f);
    ASSERT_EQ(e.mix(mix.data(), control_values{}), n);
    EXPECT_EQ(mix[0], 0.4f * ear);
}

TEST(Part4_2_ListenerEngine, RemovedSourceIsGoneWithItsQueue) {
    listener_engine e(n, 4);
    e.add_source(1, 1);
    e.submit(1, constant(n, 0.1f).data(), 1.0f);
    e.remove_source(1);
    EXPECT_EQ(e.source_count(), 0u);
    std::vector<float> mix(2 * n);
    EXPECT_EQ(e.mix(mix.data(), control_values{}), 0);
    EXPECT_FALSE(e.submit(1, constant(n, 0.1f).data(), 1.0f));
}

TEST(Part4_2_ListenerEngine, LongQueuesAreFreedWithoutRecursion) {
    listener_engine* e = new listener_engine(n, 1);
    e->add_source(1, 1);
    const std::vector<float> block = constant(n, 0.1f);
    for (int i = 0; i < 200000; ++i) e->submit(1, block.data(), 1.0f);
    delete e; // a recursive unique_ptr chain this long would overflow the stack
    SUCCEED();
}

// A renderer double that records what the engine hands it and writes a
// marker into the mix, so the 1.07 lift and the hand-over are observable.
class recording_renderer : public spatial_renderer {
public:
    struct seen {
        int32_t source_id;
        int32_t channels;
        bool received;
        float first_left;
    };
    std::vector<seen>* log;
    explicit recording_renderer(std::vector<seen>* l) : log(l) {}
    void render(const rendered_source* sources, int32_t count, const control_values&,
                float* mix) override {
        for (int32_t i = 0; i < count; ++i) {
            const rendered_source& s = sources[i];
            log->push_back({s.source_id, s.channels, s.received, s.received ? s.left[0] : 0.0f});
            if (s.received) mix[0] += s.left[0];
        }
    }
    void reset() override {}
};

TEST(Part4_2_ListenerEngine, ThreeDimensionalMixGoesThroughTheRendererAndIsLifted) {
    listener_engine e(n, 4);
    e.add_source(1, 1);
    e.add_source(2, 2);
    std::vector<recording_renderer::seen> seen;
    e.attach_renderer(std::make_unique<recording_renderer>(&seen));
    e.submit(1, constant(n, 0.5f).data(), 1.0f);
    std::vector<float> mix(2 * n);
    ASSERT_EQ(e.mix(mix.data(), controls_with({{QEL_CONTROL_MIXING_3D_ENABLE, 1}})), n);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].source_id, 1);
    EXPECT_TRUE(seen[0].received);
    EXPECT_EQ(seen[0].first_left, 0.5f); // the popped block, not pre-scaled by 1/sqrt(2)
    EXPECT_EQ(seen[1].source_id, 2);
    EXPECT_FALSE(seen[1].received);
    EXPECT_EQ(mix[0], 0.5f * 1.07f);
    EXPECT_EQ(mix[1], 0.0f);
}

TEST(Part4_2_ListenerEngine, StereoBypassMixesPlainlyEvenWithThreeD) {
    listener_engine e(n, 4);
    e.add_source(1, 1);
    std::vector<recording_renderer::seen> seen;
    e.attach_renderer(std::make_unique<recording_renderer>(&seen));
    e.submit(1, constant(n, 0.5f).data(), 1.0f);
    std::vector<float> mix(2 * n);
    ASSERT_EQ(e.mix(mix.data(), controls_with({{QEL_CONTROL_MIXING_3D_ENABLE, 1},
                                               {QEL_CONTROL_STEREO_BYPASS_ENABLE, 1}})),
              n);
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(mix[0], 0.5f * ear);
}

TEST(Part4_2_ListenerEngine, WithoutARendererThreeDMixesPlainly) {
    // The named gap of docs/status.md: no filter bank, no renderer attached.
    listener_engine e(n, 4);
    e.add_source(1, 1);
    EXPECT_FALSE(e.has_renderer());
    e.submit(1, constant(n, 0.5f).data(), 1.0f);
    std::vector<float> mix(2 * n);
    ASSERT_EQ(e.mix(mix.data(), controls_with({{QEL_CONTROL_MIXING_3D_ENABLE, 1}})), n);
    EXPECT_EQ(mix[0], 0.5f * ear);
}

} // namespace
