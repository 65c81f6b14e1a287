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

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS\n", argv[0]);
        return 2;
    }
    for (const fuzz::Target* target = fuzz::Target::s_first; target != nullptr; target = target->next) {
        std::vector<std::filesystem::path> files;
        for (const auto& entry :
             std::filesystem::directory_iterator(std::filesystem::path(argv[1]) / target->name)) {
            files.push_back(entry.path());
        }
        std::sort(files.begin(), files.end());
        if (files.empty()) {
            std::fprintf(stderr, "no files for %s\n", target->name);
            return EXIT_FAILURE;
        }
        for (const std::filesystem::path& path : files) {
            std::printf("%s\n", path.c_str());
            std::fflush(stdout);  // the last one is the culprit
            std::ifstream file(path, std::ios_base::binary);
            fuzz::Check(file.is_open(), "the file opens");
            const std::string input((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
            target->run(input);
            // Every beginning is an input too: a peer may stop anywhere.
            for (std::size_t size = 0; size < std::min<std::size_t>(input.size(), 1000); ++size) {
                target->run(input.substr(0, size));
            }
        }
    }
    return EXIT_SUCCESS;
}
