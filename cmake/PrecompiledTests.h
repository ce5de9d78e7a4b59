// SPDX-License-Identifier: Apache-2.0
// The same for the tests.
#pragma once

#include "Precompiled.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
