// SPDX-License-Identifier: Apache-2.0
// For cases that need the real kernel, root or a container engine: they are skipped with the reason where these cannot
// be had, and fail for the same reason where CE_TESTS_MUST_RUN is set, so that a test run that counts cannot skip them.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

#define CE_REQUIRE(condition, reason)                                \
    do {                                                             \
        if (!(condition)) {                                          \
            if (std::getenv("CE_TESTS_MUST_RUN") != nullptr) {       \
                FAIL() << "must run here, but cannot: " << (reason); \
            }                                                        \
            GTEST_SKIP() << (reason);                                \
        }                                                            \
    } while (false)
