// The port indexes, port-list bits and port texts every platform shares
// (platform/common/port_index.h).
#include <gtest/gtest.h>

#include <cstring>

#include "platform/common/port_index.h"

namespace {

TEST(PortIndex, RunningIndexesNumberEachUnitsPortsThenTheChannels)
{
    EXPECT_EQ(portindex::count(1), 79u);
    EXPECT_EQ(portindex::count(2), 143u);
    EXPECT_EQ(portindex::handleOf(0, 1), UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 1));
    EXPECT_EQ(portindex::handleOf(63, 1), UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 64));
    EXPECT_EQ(portindex::handleOf(64, 1), UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 1));
    EXPECT_EQ(portindex::handleOf(78, 1), UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 15));
    EXPECT_EQ(portindex::handleOf(79, 1), UP_INVALID);
    EXPECT_EQ(portindex::handleOf(64, 2), UP_MAKE(UP_TYPE_PHYSICAL, 2, 0, 1));
    EXPECT_EQ(portindex::handleOf(128, 2), UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 1));
    EXPECT_EQ(portindex::handleOf(0xFFFFFFFFu, 1), UP_INVALID);
}

TEST(PortIndex, FlagZeroCountsFromOne)
{
    up h = 0;
    ASSERT_EQ(portindex::fromIndex(&h, 0, 0, 1), 0u);
    EXPECT_EQ(h, UP_INVALID);
    ASSERT_EQ(portindex::fromIndex(&h, 3, 0, 1), 0u);
    EXPECT_EQ(h, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 3));
    ASSERT_EQ(portindex::fromIndex(&h, 3, 1, 1), 0u);
    EXPECT_EQ(h, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 4));
    EXPECT_EQ(portindex::fromIndex(nullptr, 3, 1, 1), 1u);
    EXPECT_EQ(portindex::unitBase(0), 0u);
    EXPECT_EQ(portindex::unitBase(3), 128u);
    EXPECT_EQ(portindex::slotBase(2), 128u);
}

TEST(PortIndex, ListBitsFollowTheModulesFormulas)
{
    uint32_t w = 99, b = 99;
    ASSERT_TRUE(portindex::bit(UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 3), &w, &b));
    EXPECT_EQ(w, 0u);
    EXPECT_EQ(b, 3u);
    ASSERT_TRUE(portindex::bit(UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 40), &w, &b));
    EXPECT_EQ(w, 1u);
    EXPECT_EQ(b, 8u);
    ASSERT_TRUE(portindex::bit(UP_MAKE(UP_TYPE_PHYSICAL, 2, 0, 1), &w, &b));
    EXPECT_EQ(w, 3u) << "unit 2 shares the channels' words";
    ASSERT_TRUE(portindex::bit(UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 1), &w, &b));
    EXPECT_EQ(w, 3u);
    EXPECT_EQ(b, 0u);
    w = b = 77;
    EXPECT_FALSE(portindex::bit(UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 0), &w, &b));
    EXPECT_FALSE(portindex::bit(UP_MAKE(UP_TYPE_PHYSICAL, 0, 0, 1), &w, &b));
    EXPECT_FALSE(portindex::bit(UP_MAKE(UP_TYPE_PHYSICAL, 3, 0, 1), &w, &b)) << "past the six words";
    EXPECT_FALSE(portindex::bit(UP_MAKE(3, 1, 0, 1), &w, &b));
    EXPECT_EQ(w, 77u) << "left alone when there is no bit";
    uint32_t words[6];
    memset(words, 0, sizeof words);
    portindex::addToList(words, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 5));
    portindex::addToList(words, UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 0));
    EXPECT_EQ(words[0], 1u << 5);
    EXPECT_EQ(words[3], 0u);
    EXPECT_TRUE(portindex::inList(words, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 5)));
    EXPECT_FALSE(portindex::inList(words, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 6)));
}

TEST(PortIndex, ValidityAndText)
{
    EXPECT_TRUE(portindex::validPhysical(UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 28), 28));
    EXPECT_FALSE(portindex::validPhysical(UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 29), 28));
    EXPECT_FALSE(portindex::validPhysical(UP_MAKE(UP_TYPE_PHYSICAL, 1, 1, 1), 28));
    EXPECT_FALSE(portindex::validPhysical(UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 0), 28));
    EXPECT_TRUE(portindex::validChannel(UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 8), 8));
    EXPECT_FALSE(portindex::validChannel(UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 9), 8));
    EXPECT_FALSE(portindex::validChannel(UP_MAKE(UP_TYPE_PHYSICAL, 0, 0, 1), 8));
    char text[UP_STR_BUF];
    portindex::text(UP_MAKE(UP_TYPE_PHYSICAL, 255, 255, 255), text);
    EXPECT_STREQ(text, "255/255/255");
    portindex::text(UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 15), text);
    EXPECT_STREQ(text, "po15");
    portindex::text(UP_INVALID, text);
    EXPECT_STREQ(text, "unknown");
}

}  // namespace
