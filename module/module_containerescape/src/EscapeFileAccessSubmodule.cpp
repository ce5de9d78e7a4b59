// SPDX-License-Identifier: Apache-2.0
#include "EscapeFileAccessSubmodule.h"

#include "messages/FileNotifyMessages.h"

namespace Engine {

namespace {

constexpr AlarmClass alarmClass{"containerescape_0004", "Container file escape attack", 4, 2, 3, 2000, 2044, 80};

}  // namespace

EscapeFileAccessSubmodule::EscapeFileAccessSubmodule(ContainerEscapeDetectTask& task, ContainerMetaInfo* metaInfo)
    : BaseSubmodule(task, "EscapeFileAccess", metaInfo)
{
}

EscapeFileAccessSubmodule::~EscapeFileAccessSubmodule() = default;

int EscapeFileAccessSubmodule::Init()
{
    BaseSubmodule::Init({}, hostDirectories);
    return 0;
}

void EscapeFileAccessSubmodule::DeInit()
{
    BaseSubmodule::DeInit();
}

int EscapeFileAccessSubmodule::HandleFileNotifyMsg(FileNotifyMessage* message)
{
    SendAlarm(static_cast<int>(message->GetEventProcessId()), 0, "", message->GetEventFilePath());
    return -1;
}

void EscapeFileAccessSubmodule::Reconfigure(const ContainerEscapeDetectPolicyContent& content)
{
    BaseSubmodule::Reconfigure(content);
    hostDirectories = content.hostDirectories;
}

bool EscapeFileAccessSubmodule::HandleEvent(const FtraceMessage& /*message*/)
{
    return true;
}

void EscapeFileAccessSubmodule::SendAlarm(int pid, int ppid, const std::string& processName, const std::string& path)
{
    AlertInfo info;
    setEscapeAccessFileAlertInfo(info);
    info.processName = processName;
    info.ppid = ppid;
    info.pid = pid;
    Alert(info, Json::Value{}, MakeFileInfo(path));
}

void EscapeFileAccessSubmodule::setEscapeAccessFileAlertInfo(AlertInfo& info)
{
    alarmClass.CopyTo(info);
}

}  // namespace Engine
