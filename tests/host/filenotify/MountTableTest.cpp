// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/MountTable.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char mountInfo[] =
    "21 1 254:0 / / rw,relatime - ext4 /dev/vda rw\n"
    "22 21 0:5 / /proc rw - proc proc rw\n"
    "30 21 8:17 / /var/lib/with\\040blank rw shared:1 master:2 - xfs /dev/sdb1 rw\n"
    "31 21 0:40 /sub /var/pool rw - btrfs /dev/sdc rw\n"
    "32 21 0:41 / /var/lib/engine/merged rw - overlay overlay rw,lowerdir=/l\n"
    "33 21 0:42 / /var/shm rw - tmpfs shm rw\n"
    "34 21 8:18 / /various rw - ext4 /dev/sdb2 rw\n"
    "nonsense\n"
    "35 21 x:y / /var/bad rw - ext4 /dev/z rw\n"
    "36 21 8:1 / /var/cut";

TEST(MountTable, DataMountsAreThoseOfTheHostsDisksBelowThePath)
{
    const auto mounts = Engine::ParseMountInfo(mountInfo);
    EXPECT_THAT(Engine::DataMountsBelow(mounts, "/var"), ElementsAre("/var/lib/with blank", "/var/pool"));
    EXPECT_THAT(Engine::DataMountsBelow(mounts, "/"), ElementsAre("/var/lib/with blank", "/var/pool", "/various"));
    EXPECT_THAT(Engine::DataMountsBelow(mounts, "/various"), IsEmpty()) << "a mount does not lie below itself";
}

}  // namespace
