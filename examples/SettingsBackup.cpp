// SPDX-License-Identifier: MIT

// Saves settings, which may contain pass phrases, in an encrypted archive.
//
//   settings-backup [--pass-phrase FILE] save ARCHIVE FILE...      writes the files into a new archive
//   settings-backup [--pass-phrase FILE] list ARCHIVE              prints their names
//   settings-backup [--pass-phrase FILE] restore ARCHIVE FOLDER    writes them into a folder
//
// The pass phrase is the first line of the file, or of standard input. If it is wrong or the
// archive was changed, nothing is written. Files keep the folders in their names, but never leave the folder
// that they are restored to. "saved" and "restored" are printed when all data are on the disk.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/Fd.h"
#include "common/SettingsArchive.h"

namespace {

using settings_archive::Files;
using zarip::crypto::SecureBuffer;
using zarip::osa::Exception;

/// At the end of a path: "folder/" and "file", or "" and "file".
std::pair<std::string, std::string> Split(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::make_pair(std::string(), path)
                                      : std::make_pair(path.substr(0, slash + 1), path.substr(slash + 1));
}

/// Switches the echo of the terminal off while it exists.
class HiddenInput {
public:
    HiddenInput() : _isTerminal(::tcgetattr(STDIN_FILENO, &s_before) == 0) {
        if (_isTerminal) {
            struct sigaction action {};
            action.sa_handler = &HiddenInput::Interrupt;
            action.sa_flags = static_cast<int>(SA_RESETHAND);
            for (const int signal : kSignals) {
                ::sigaction(signal, &action, nullptr);
            }
            std::fprintf(stderr, "Pass phrase: ");
            termios hidden = s_before;
            hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
        }
    }
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;
    ~HiddenInput() {
        if (_isTerminal) {
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &s_before);
            std::fprintf(stderr, "\n");
            for (const int signal : kSignals) {
                ::signal(signal, SIG_DFL);
            }
        }
    }

private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGQUIT};

    /// Switches the echo on again before the signal ends the program.
    static void Interrupt(int signal) {
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &s_before);
        ::raise(signal);
    }

    static inline termios s_before;
    const bool _isTerminal;
};

SecureBuffer ReadLine(int fd) {
    SecureBuffer line(1'024);
    unsigned int length = 0;
    for (; length < line.GetSize(); ++length) {
        // It reads byte by byte directly into the buffer, so that no other buffer keeps a copy.
        unsigned char* const next = line.GetData() + length;
        if (Check(static_cast<int>(::read(fd, next, 1)), "read") == 0 || *next == '\n') {
            length -= length > 0 && next[-1] == '\r' ? 1 : 0;  // a file that was written on another system
            line.Shrink(length);
            if (length == 0) {
                throw Exception("the pass phrase is empty");
            }
            return line;
        }
    }
    throw Exception("the pass phrase is too long");
}

SecureBuffer ReadPassPhrase(const char* path) {
    if (path != nullptr) {
        const Fd file(Check(::open(path, O_RDONLY | O_CLOEXEC), path));
        return ReadLine(file.Get());
    }
    const HiddenInput hidden;
    return ReadLine(STDIN_FILENO);
}

std::string ReadFile(const std::string& path) {
    const Fd file(Check(::open(path.c_str(), O_RDONLY | O_CLOEXEC), path.c_str()));
    std::string content;
    char block[16'384];
    while (const int length =
               Check(static_cast<int>(::read(file.Get(), block, sizeof(block))), path.c_str())) {
        content.append(block, static_cast<std::size_t>(length));
        if (content.size() > settings_archive::kMaxSize) {
            throw Exception(path + ": too large");
        }
    }
    return content;
}

/// Writes the entries of a folder to the disk. Some file systems do so by themselves and refuse the call.
void Synchronise(int folder, const std::string& name) {
    if (::fsync(folder) != 0 && errno != EINVAL) {
        Check(-1, name.c_str());
    }
}

using FolderPtr = std::unique_ptr<Fd>;

/// Opens the folders of a path step by step and makes those that are missing. Throws at a symbolic link.
FolderPtr OpenFolder(int root, const std::string& path) {
    auto folder =
        std::make_unique<Fd>(Check(::openat(root, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC), "open"));
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = path.find('/', begin);
        const std::string part = path.substr(begin, end - begin);
        if (::mkdirat(folder->Get(), part.c_str(), 0700) == 0) {
            Synchronise(folder->Get(), part);
        } else if (errno != EEXIST) {
            Check(-1, part.c_str());
        }
        folder = std::make_unique<Fd>(
            Check(::openat(folder->Get(), part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC),
                  part.c_str()));
        begin = end + 1;
    }
    return folder;
}

/// A file that replaces an older one only when it is complete. It is open only while it is written, so any
/// number of them may exist. An attempt that is interrupted leaves ".settings-backup-...".
class NewFile {
public:
    using Open = std::function<FolderPtr()>;

    /// @param openFolder  opens the folder of the file, whenever it is needed
    NewFile(Open openFolder, std::string name, const std::string& content)
        : _openFolder(std::move(openFolder)), _name(std::move(name)) {
        const FolderPtr folder = _openFolder();
        const Fd file(Check(Make(folder->Get()), _name.c_str()));
        try {
            for (std::size_t at = 0; at < content.size();) {
                at += static_cast<std::size_t>(
                    Check(static_cast<int>(::write(file.Get(), content.data() + at, content.size() - at)),
                          _name.c_str()));
            }
            Check(::fsync(file.Get()), _name.c_str());
        } catch (...) {
            ::unlinkat(folder->Get(), _temporary.c_str(), 0);
            throw;
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile() {
        try {
            if (!_isPut) {
                ::unlinkat(_openFolder()->Get(), _temporary.c_str(), 0);
            }
        } catch (const Exception&) {
            // The folder is gone, and the file with it.
        }
    }

    void Put() {
        const FolderPtr folder = _openFolder();
        Check(::renameat(folder->Get(), _temporary.c_str(), folder->Get(), _name.c_str()), _name.c_str());
        _isPut = true;
        Synchronise(folder->Get(), _name);
    }

private:
    /// Opens a file with a name that no file has yet, neither in the archive nor in the folder.
    int Make(int folder) {
        static unsigned int s_count = 0;
        const std::string stem = ".settings-backup-" + std::to_string(::getpid()) + "-";
        int fd = -1;
        do {
            _temporary = stem + std::to_string(s_count++);
            fd = ::openat(folder, _temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        } while (fd < 0 && errno == EEXIST);
        return fd;
    }

    const Open _openFolder;
    const std::string _name;
    std::string _temporary;
    bool _isPut = false;
};

/// Opens a folder by its path, or the current folder if the path is empty.
FolderPtr OpenPath(const std::string& path) {
    return std::make_unique<Fd>(
        Check(::open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), path.c_str()));
}

/// Makes the name of a file in the archive: relative, and without the empty parts "" and ".".
std::string NameOf(const std::string& path) {
    std::string name;
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string part = path.substr(begin, end - begin);
        if (!part.empty() && part != ".") {
            name += (name.empty() ? "" : "/") + part;
        }
        begin = end + 1;
    }
    return name;
}

void Save(const char* archive, char** paths, const SecureBuffer& passPhrase) {
    Files files;
    for (; *paths != nullptr; ++paths) {
        const std::string name = NameOf(*paths);
        if (!files.emplace(name, ReadFile(*paths)).second) {
            throw Exception(name + ": given twice");
        }
    }
    const auto [folder, name] = Split(archive);
    NewFile([path = folder] { return OpenPath(path); }, name, settings_archive::Seal(files, passPhrase))
        .Put();
    std::printf("%zu saved\n", files.size());
}

void Restore(const Files& files, const char* folder) {
    if (::mkdir(folder, 0700) == 0) {
        const std::string path = folder;
        const std::string parent = Split(path.substr(0, path.find_last_not_of('/') + 1)).first;
        Synchronise(OpenPath(parent)->Get(), parent);
    } else if (errno != EEXIST) {
        Check(-1, folder);
    }
    const FolderPtr root = OpenPath(folder);
    // All files are written before the first one replaces an older file.
    std::vector<std::unique_ptr<NewFile>> restored;
    for (const auto& [path, content] : files) {
        const auto [inside, name] = Split(path);
        restored.push_back(std::make_unique<NewFile>(
            [&root, where = inside] { return OpenFolder(root->Get(), where); }, name, content));
    }
    for (const auto& file : restored) {
        file->Put();
    }
    std::printf("%zu restored\n", files.size());
}

}  // namespace

int main(int argc, char** argv) {
    const char* passPhraseFile = nullptr;
    if (argc > 2 && argv[1] == std::string("--pass-phrase")) {
        passPhraseFile = argv[2];
        argv += 2;
        argc -= 2;
    }
    const std::string command = argc > 1 ? argv[1] : "";
    try {
        if (command == "save" && argc >= 4) {
            Save(argv[2], argv + 3, ReadPassPhrase(passPhraseFile));
            return 0;
        }
        if ((command == "list" && argc == 3) || (command == "restore" && argc == 4)) {
            const Files files = settings_archive::Open(ReadFile(argv[2]), ReadPassPhrase(passPhraseFile));
            if (command == "restore") {
                Restore(files, argv[3]);
            } else {
                for (const auto& [name, content] : files) {
                    std::printf("%s %zu\n", name.c_str(), content.size());
                }
            }
            return 0;
        }
    } catch (const Exception& e) {
        std::fprintf(stderr, "settings-backup: %s\n", e.ToString().c_str());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "settings-backup: %s\n", e.what());
        return 1;
    }
    std::fprintf(stderr,
                 "usage: settings-backup [--pass-phrase FILE] save ARCHIVE FILE... | list ARCHIVE |"
                 " restore ARCHIVE FOLDER\n");
    return 2;
}
