// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/ContainerNames.h"

namespace SDK {

namespace {

std::shared_mutex mutex;
const ContainerNames* inForce = nullptr;

}  // namespace

ContainerNames::InForce::InForce() : lock(mutex), names(inForce)
{
}

void ContainerNames::Provide(const ContainerNames* next)
{
    const std::unique_lock lock(mutex);
    inForce = next;
}

}  // namespace SDK
