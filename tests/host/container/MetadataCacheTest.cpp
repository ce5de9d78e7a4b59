// SPDX-License-Identifier: Apache-2.0
#include "host/container/MetadataCache.h"

#include <gtest/gtest.h>

namespace {

TEST(MetadataCacheTest, GoneContainersMakeRoomForNewOnes)
{
    Engine::MetadataCache cache;
    const auto put = [&](const std::string& id) {
        return cache.Put({id, "", "", "", {}, {}});
    };
    for (std::size_t i = 0; i < Engine::MetadataCache::maxRecords; ++i) {
        ASSERT_TRUE(put(std::to_string(i)));
    }
    EXPECT_FALSE(put("new"));
    cache.MarkGone("7", {});
    EXPECT_TRUE(put("new"));
    EXPECT_EQ(cache.Find("7"), nullptr);
}

}  // namespace
