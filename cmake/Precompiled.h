// SPDX-License-Identifier: Apache-2.0
// What most sources include sooner or later, for builds with CE_PRECOMPILE. No source relies on it.
#pragma once

#include <Poco/Any.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Task.h>
#include <json/value.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>
