// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Poco/Exception.h>

#include <exception>
#include <string>

namespace Framework {

// What the exception that is being handled says. Only inside a catch block.
inline std::string CurrentExceptionText()
{
    try {
        throw;
    } catch (const Poco::Exception& error) {
        return error.displayText();
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace Framework
