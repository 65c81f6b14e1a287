// SPDX-License-Identifier: MIT

#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace zarip::test {

/// A folder of its own for a test, removed with all it holds.
class TempDir {
public:
    TempDir() : _path((std::filesystem::temp_directory_path() / "zarip-test-XXXXXX").string()) {
        if (::mkdtemp(_path.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }

    const std::string& Path() const { return _path; }
    std::string File(const std::string& name) const { return _path + "/" + name; }

    /// Writes a file and returns its path.
    std::string Write(const std::string& name, const std::string& content) const {
        std::ofstream(File(name), std::ios::binary) << content;
        return File(name);
    }

    std::string Read(const std::string& name) const {
        std::ifstream file(File(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    std::string _path;
};

}  // namespace zarip::test
