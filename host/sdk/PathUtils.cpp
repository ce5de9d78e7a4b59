// SPDX-License-Identifier: Apache-2.0
#include "sdk/PathUtils.h"

namespace SDK {

std::string PathUtils::GetFileNameFromPath(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);  // npos + 1 is 0: no slash, the whole path
}

}  // namespace SDK
