// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "support/TemporaryDirectory.h"

using TempDirectory = TemporaryDirectory;
