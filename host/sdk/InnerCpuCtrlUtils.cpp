// SPDX-License-Identifier: Apache-2.0
#include "sdk/InnerCpuCtrlUtils.h"

#include <limits>

namespace SDK {

bool InnerCpuCtrlUtils::IsEnabled()
{
    return false;
}

std::uint64_t InnerCpuCtrlUtils::GetSuggestedRunTick()
{
    return std::numeric_limits<std::uint64_t>::max();
}

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* /*file*/, int /*line*/, const char* /*label*/,
                                        unsigned long /*now*/, unsigned long /*elapsed*/)
{
}

}  // namespace SDK
