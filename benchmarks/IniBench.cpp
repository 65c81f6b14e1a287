// SPDX-License-Identifier: MIT

// Loading an INI file of 10,000 keys in 100 groups, beside a plain loop and GKeyFile.

#include <glib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include <zarip/core/IniFile.h>

#include "Rounds.h"

namespace {

/// The least that a program would write for itself: lines into the same maps, no rules beyond that.
std::size_t LoadPlainly(const std::string& path) {
    std::map<std::string, std::map<std::string, std::string>> groups;
    std::ifstream file(path);
    std::string line;
    std::string group;
    while (std::getline(file, line)) {
        if (line.empty()) {
            continue;
        }
        if (line[0] == '[') {
            group = line.substr(1, line.find(']') - 1);
            continue;
        }
        const std::size_t equals = line.find(" = ");
        if (equals != std::string::npos) {
            groups[group][line.substr(0, equals)] = line.substr(equals + 3);
        }
    }
    return groups.size();
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    std::string folder = (std::filesystem::temp_directory_path() / "zarip-bench-XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr) {
        return EXIT_FAILURE;
    }
    for (const bool sorted : {true, false}) {
        const std::string path = folder + (sorted ? "/sorted" : "/mixed");
        std::ofstream out(path);
        for (int group = 0; group < 100; ++group) {
            out << "[section-" << group << "]\n";
            for (int key = 0; key < 100; ++key) {
                out << "setting-" << 1000 + (sorted ? key : key * 37 % 100) << " = value number " << key
                    << '\n';
            }
            out << '\n';
        }
        out.close();

        bench::Rounds rounds(sorted ? "10,000 keys in 100 groups, in order" : "the same, in no order",
                             options);
        rounds.Add("plain loop, same maps", [&] {
            if (LoadPlainly(path) != 100) {
                std::abort();
            }
        });
        rounds.Add("GKeyFile", [&] {
            GKeyFile* const file = ::g_key_file_new();
            if (::g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr) == FALSE) {
                std::abort();
            }
            ::g_key_file_free(file);
        });
        rounds.Add("zarip", [&] {
            if (!zarip::core::IniFile(path.c_str()).HasGroup("section-99")) {
                std::abort();
            }
        });
        rounds.Run();
    }
    std::filesystem::remove_all(folder);
    return EXIT_SUCCESS;
}
