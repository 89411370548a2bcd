// The pair gain of spec Part 4.1, rule by rule.
#include "audio/pair_gain.h"

#include <gtest/gtest.h>

namespace {

using quelora::pair_gain;
using quelora::pair_rooms;

constexpr pair_rooms main_room{0, 0};

TEST(Part4_1_PairGainRule, SourceOnlyListenerGetsNothing) {
    EXPECT_EQ(pair_gain(main_room, main_room, true), 0.0f);
    EXPECT_EQ(pair_gain({2, 0}, {2, 0}, true), 0.0f);
}

TEST(Part4_1_PairGainRule, MainRoomToMainRoomIsUnity) {
    EXPECT_EQ(pair_gain(main_room, main_room, false), 1.0f);
}

TEST(Part4_1_PairGainRule, WhisperSourceReachesOnlyTheSameWhisperRoom) {
    EXPECT_EQ(pair_gain({3, 0}, {3, 0}, false), 1.0f);
    EXPECT_EQ(pair_gain({3, 0}, {4, 0}, false), 0.0f);
    EXPECT_EQ(pair_gain({3, 0}, main_room, false), 0.0f);
    // The whisper room decides before the sidebar: same whisper, other sidebars.
    EXPECT_EQ(pair_gain({3, 1}, {3, 2}, false), 1.0f);
}

TEST(Part4_1_PairGainRule, SidebarSourceReachesOnlyTheSameSidebar) {
    EXPECT_EQ(pair_gain({0, 5}, {0, 5}, false), 1.0f);
    EXPECT_EQ(pair_gain({0, 5}, {0, 6}, false), 0.0f);
    EXPECT_EQ(pair_gain({0, 5}, main_room, false), 0.0f);
    // A listener in whisper room 1 and sidebar 5 hears sidebar 5 fully.
    EXPECT_EQ(pair_gain({0, 5}, {1, 5}, false), 1.0f);
}

TEST(Part4_1_PairGainRule, MainRoomSourceToSidebarListenerIsSilent) {
    EXPECT_EQ(pair_gain(main_room, {0, 7}, false), 0.0f);
    // The sidebar rule comes before the whisper quarter.
    EXPECT_EQ(pair_gain(main_room, {2, 7}, false), 0.0f);
}

TEST(Part4_1_PairGainRule, MainRoomSourceToWhisperListenerIsAQuarter) {
    EXPECT_EQ(pair_gain(main_room, {9, 0}, false), 0.25f);
}

} // namespace
