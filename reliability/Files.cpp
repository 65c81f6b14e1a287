// SPDX-License-Identifier: MIT

// Writers are killed, and disks are full, while files are replaced.

#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Harness.h"
#include "support/FileSizeLimit.h"
#include "support/OwnMounts.h"
#include "support/TempDir.h"
#include "zarip/core/IniFile.h"
#include "zarip/core/Logger.h"
#include "zarip/osa/FileUtils.h"
#include "zarip/xml/XmlDocument.h"
#include "zarip/xml/XmlElement.h"

namespace zarip::reliability {
namespace {

using osa::FileUtils;

/// A way of saving a file whose content is one of two.
struct Saving {
    const char* name;
    std::function<void(const std::string& path, char filler)> save;
};

constexpr std::size_t kSize = 50'000;

std::vector<Saving> Savings(const test::TempDir& sources) {
    for (const char filler : {'a', 'b'}) {
        FileUtils::Write(sources.File(std::string(1, filler)), std::string(kSize, filler));
    }
    return {
        {"IniFile::Save",
         [](const std::string& path, char filler) {
             core::IniFile ini;
             ini.SetValue("group", "key", std::string(kSize, filler));
             ini.Save(path.c_str());
         }},
        {"FileUtils::WriteAtomically",
         [](const std::string& path, char filler) {
             FileUtils::WriteAtomically(path, std::string(kSize, filler));
         }},
        {"XmlDocument::SaveFile",
         [](const std::string& path, char filler) {
             const xml::XmlDocument document("root");
             document.GetRoot().SetText(std::string(kSize, filler));
             document.SaveFile(path);
         }},
        {"FileUtils::Copy",
         [&sources](const std::string& path, char filler) {
             FileUtils::Copy(sources.File(std::string(1, filler)), path);
         }},
    };
}

/// The contents that a way of saving leaves, and whether a file has one of them.
class Contents {
public:
    Contents(const Saving& saving, const test::TempDir& folder) {
        for (const char filler : {'a', 'b'}) {
            const std::string path = folder.File("content");
            saving.save(path, filler);
            _whole.push_back(FileUtils::Read(path));
            FileUtils::Delete(path);
        }
    }
    bool Has(const std::string& path) const {
        const std::string content = FileUtils::Read(path);
        return content == _whole[0] || content == _whole[1];
    }

private:
    std::vector<std::string> _whole;
};

[[noreturn]] void SaveForEver(const Saving& saving, const std::string& path) {
    for (int i = 0;; ++i) {
        saving.save(path, i % 2 == 0 ? 'a' : 'b');
    }
}

void KillWriters(Run& run, const Saving& saving, const test::TempDir& folder, int count) {
    const std::string path = folder.File("file");
    const Contents contents(saving, folder);
    saving.save(path, 'a');
    std::minstd_rand random(1);
    for (int i = 0; i < count; ++i) {
        const pid_t writer = ::fork();
        if (writer == 0) {
            SaveForEver(saving, path);
        }
        ::usleep(1'000 + static_cast<useconds_t>(random() % 20'000));
        ::kill(writer, SIGKILL);
        ::waitpid(writer, nullptr, 0);
        run.Expect(contents.Has(path), "%s: the file is whole after kill %d", saving.name, i);
    }
    saving.save(path, 'a');
    run.Expect(FileUtils::List(folder.Path()).size() == 1, "%s: %zu files are left", saving.name,
               FileUtils::List(folder.Path()).size());
    FileUtils::Delete(path);
}

/// A save that cannot be written completely.
void SaveInVain(Run& run, const Saving& saving, const std::string& path, const Contents& contents) {
    bool isReported = false;
    try {
        saving.save(path, 'b');
    } catch (const std::exception&) {
        isReported = true;
    }
    run.Expect(isReported, "%s: a full disk is reported", saving.name);
    run.Expect(contents.Has(path), "%s: a full disk leaves the old file", saving.name);
}

int FillDisks(Run& run, const Saving& saving, const test::TempDir& folder, int count) {
    const std::string path = folder.File("file");
    const Contents contents(saving, folder);
    saving.save(path, 'a');
    for (int i = 0; i < count; ++i) {
        const test::FileSizeLimit limit(kSize * static_cast<unsigned int>(i) /
                                        static_cast<unsigned int>(count));
        SaveInVain(run, saving, path, contents);
    }
    saving.save(path, 'a');
    run.Expect(FileUtils::List(folder.Path()).size() == 1, "%s: litter of a full disk", saving.name);
    FileUtils::Delete(path);
    return count;
}

/// The same in a file system that has room for one and a half files. False if mounting is not permitted.
bool FillMounted(Run& run, const std::vector<Saving>& savings, const test::TempDir& folder) {
    bool isMounted = false;
    test::WithOwnMounts([&] {
        isMounted = ::mount("none", folder.Path().c_str(), "tmpfs", 0, "size=96k") == 0;
        for (const Saving& saving : savings) {
            if (isMounted) {
                const std::string path = folder.File("file");
                saving.save(path, 'a');
                FileUtils::Write(folder.File("other"), std::string(16'000, 'x'));
                const std::string before = FileUtils::Read(path);
                try {
                    saving.save(path, 'b');
                    run.Expect(false, "%s: a full file system is reported", saving.name);
                } catch (const std::exception&) {
                    run.Expect(FileUtils::Read(path) == before, "%s: a full file system leaves the old file",
                               saving.name);
                }
                run.Expect(FileUtils::List(folder.Path()).size() == 2, "%s: litter in a full file system",
                           saving.name);
                FileUtils::Delete(path);
            }
        }
    });
    return isMounted;
}

}  // namespace

ROW(Files,
    "Writers are killed and disks are full during every kind of saving: the file is the old or the new one, "
    "whole, and the next save leaves no litter",
    60) {
    const test::TempDir folder;
    const test::TempDir sources;
    const std::vector<Saving> savings = Savings(sources);
    const int kills = run.Count(1'000, 40);
    int full = 0;
    for (const Saving& saving : savings) {
        KillWriters(run, saving, folder, kills);
        full += FillDisks(run, saving, folder, run.Count(250, 20));
    }
    const bool isMounted = FillMounted(run, savings, folder);
    run.Figure("%d kills of each of %zu kinds of saving, %d full disks%s", kills, savings.size(), full,
               isMounted ? " and a full file system for each" : "");
}

}  // namespace zarip::reliability
