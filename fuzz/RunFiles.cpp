// SPDX-License-Identifier: MIT

// Runs every target with the files of its folder, as a test: what a fuzzer once found stays found.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Targets.h"

namespace {

/// Runs a target with the files of a folder; how many there are.
std::size_t RunFolder(const fuzz::Target& target, const std::filesystem::path& folder, bool withBeginnings) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path& path : files) {
        std::printf("%s\n", path.c_str());
        std::fflush(stdout);  // the last one is the culprit
        std::ifstream file(path, std::ios_base::binary);
        fuzz::Check(file.is_open(), "the file opens");
        const std::string input((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        target.run(input);
        // Every beginning is an input too: a peer may stop anywhere.
        const std::size_t beginnings = withBeginnings ? std::min<std::size_t>(input.size(), 1000) : 0;
        for (std::size_t size = 0; size < beginnings; ++size) {
            target.run(input.substr(0, size));
        }
    }
    return files.size();
}

}  // namespace

/// The second corpus is what a fuzzer has found and may lack targets.
int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        std::fprintf(stderr, "usage: %s CORPUS [FOUND]\n", argv[0]);
        return 2;
    }
    for (const fuzz::Target* target = fuzz::Target::s_first; target != nullptr; target = target->next) {
        if (RunFolder(*target, std::filesystem::path(argv[1]) / target->name, true) == 0) {
            std::fprintf(stderr, "no files for %s\n", target->name);
            return EXIT_FAILURE;
        }
        const std::filesystem::path found = std::filesystem::path(argc == 3 ? argv[2] : "") / target->name;
        if (argc == 3 && std::filesystem::exists(found)) {
            RunFolder(*target, found, false);
        }
    }
    return EXIT_SUCCESS;
}
