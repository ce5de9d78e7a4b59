// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

// A directory of the test's own, gone with all its content when the test ends.
class TempDirectory {
public:
    TempDirectory()
    {
        if (::mkdtemp(path.data()) == nullptr) {
            throw std::runtime_error("mkdtemp");
        }
    }
    ~TempDirectory() { std::filesystem::remove_all(path); }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    std::string operator/(const std::string& name) const { return path + '/' + name; }
    const std::string& Path() const { return path; }

    void Write(const std::string& name, std::string_view content) const
    {
        const std::filesystem::path file = *this / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }

private:
    std::string path = std::filesystem::temp_directory_path() / "test_sdk.XXXXXX";
};
