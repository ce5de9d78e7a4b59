// SPDX-License-Identifier: Apache-2.0
#include "host/container/MetadataCache.h"

#include <gtest/gtest.h>

#include "tests/host/container/FakeProc.h"

namespace {

using Engine::ContainerInfo;
using Engine::MetadataCache;

ContainerInfo Named(const std::string& id, const std::string& name)
{
    ContainerInfo info;
    info.id = id;
    info.name = name;
    return info;
}

TEST(MetadataCacheTest, RecordedNamespacesOutliveWhatTheEngineSays)
{
    MetadataCache cache;
    cache.RecordNamespaces(idA, {{"mnt", "mnt:[1]"}});
    cache.Put(Named(idA, "one"));
    const auto first = cache.Find(idA);
    ContainerInfo later = Named(idA, "two");
    later.namespaces = {{"mnt", "mnt:[2]"}};
    cache.Put(later);
    EXPECT_EQ(cache.Find(idA)->namespaces.at("mnt"), "mnt:[1]");
    EXPECT_EQ(cache.Find(idA)->name, "two");
    EXPECT_EQ(first->name, "one") << "who holds a record keeps it as it was";
    cache.ForgetNamespaces(idA);
    cache.Put(later);
    EXPECT_EQ(cache.Find(idA)->namespaces.at("mnt"), "mnt:[2]");
    cache.Put(Named(idA, "three"));
    EXPECT_EQ(cache.Find(idA)->namespaces.at("mnt"), "mnt:[2]") << "none are known now, these still hold";
}

TEST(MetadataCacheTest, GoneContainersStayForAWhileUnlessRoomIsNeeded)
{
    MetadataCache cache;
    const MetadataCache::Clock::time_point now{};
    cache.Put(Named(idA, "a"));
    cache.Put(Named(idB, "b"));
    cache.KeepOnly({idA}, now);
    cache.Purge(now + MetadataCache::keepGone);
    EXPECT_NE(cache.Find(idB), nullptr);
    cache.Purge(now + MetadataCache::keepGone * 2);
    EXPECT_EQ(cache.Find(idB), nullptr);
    EXPECT_NE(cache.Find(idA), nullptr);

    for (std::size_t i = 1; i < MetadataCache::maxRecords; ++i) {
        ASSERT_TRUE(cache.Put(Named("c" + std::to_string(i), "")));
    }
    EXPECT_FALSE(cache.Put(Named(idB, "b")));
    EXPECT_TRUE(cache.Put(Named(idA, "again")));
    cache.MarkGone(idA, now);
    EXPECT_TRUE(cache.Put(Named(idB, "b")));
    EXPECT_EQ(cache.Find(idA), nullptr);
}

}  // namespace
