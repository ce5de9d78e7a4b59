// SPDX-License-Identifier: Apache-2.0
// The module of libfilenotify_module.so: registers the task "filenotify_task". Where fanotify cannot be had (no
// CAP_SYS_ADMIN, a kernel without it or before Linux 5.9) there is no such task, one warning says so, and the agent
// goes on without file notifications.
#pragma once

#include "framework/Module.h"

namespace Engine {

class FileNotifyModule : public Framework::Module {
public:
    FileNotifyModule();
    int Init() override;
    int UnInit() override;
};

}  // namespace Engine

extern "C" Framework::Module* CreateModule();
