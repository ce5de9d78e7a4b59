// SPDX-License-Identifier: Apache-2.0
// In a file of its own because of its compiler option, -fno-delete-null-pointer-checks: callers pass on what
// dynamic_cast<Engine*> gave them, null included. The language lets a compiler assume that `this` is never null, and it
// would drop the test below; with that option it may not.
#include "host/framework/EngineImpl.h"

namespace Framework {

Task* Engine::FindTask(const std::string& name)
{
    const Engine* const self = this;
    return self == nullptr ? nullptr : self->impl->registry.Find(name);
}

}  // namespace Framework
