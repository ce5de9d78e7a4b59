// SPDX-License-Identifier: Apache-2.0
#include "host/container/MetadataCache.h"

#include <gtest/gtest.h>

namespace {

using Engine::MetadataCache;

Engine::ContainerInfo Made(const std::string& id)
{
    Engine::ContainerInfo info;
    info.id = id;
    return info;
}

TEST(MetadataCacheTest, GoneContainersStayForAWhileUnlessRoomIsNeeded)
{
    MetadataCache cache;
    const MetadataCache::Clock::time_point now{};
    cache.Put(Made("a"));
    cache.Put(Made("b"));
    cache.KeepOnly({"a"}, now);
    cache.Purge(now + MetadataCache::keepGone);
    EXPECT_NE(cache.Find("b"), nullptr);
    cache.Purge(now + MetadataCache::keepGone * 2);
    EXPECT_EQ(cache.Find("b"), nullptr);
    for (std::size_t i = 1; i < MetadataCache::maxRecords; ++i) {
        ASSERT_TRUE(cache.Put(Made(std::to_string(i))));
    }
    EXPECT_FALSE(cache.Put(Made("b")));
    cache.MarkGone("a", now);
    EXPECT_TRUE(cache.Put(Made("b")));
    EXPECT_EQ(cache.Find("a"), nullptr);
}

}  // namespace
