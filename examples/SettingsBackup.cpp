// Backs up settings, which hold pass phrases of users, in an encrypted archive.
//
//   settings-backup [--pass-phrase FILE] save ARCHIVE FILE...      writes the files into a new archive
//   settings-backup [--pass-phrase FILE] list ARCHIVE              prints their names
//   settings-backup [--pass-phrase FILE] restore ARCHIVE FOLDER    writes them into a folder, which it makes
//
// The pass phrase is the first line of the file, or of standard input. Nothing is written when it is wrong or
// the archive was changed. Files keep the folders in their names, but never leave the folder they are
// restored to.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
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

/// Does not show what is typed, as long as it lives.
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

    /// The signal ends the program, and the terminal shows again what is typed.
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
        // Byte by byte and straight into the buffer: no other one keeps a copy.
        unsigned char* const next = line.GetData() + length;
        if (Check(static_cast<int>(::read(fd, next, 1)), "read") == 0 || *next == '\n') {
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

/// A file that takes the place of an older one only when it is whole. An attempt that is interrupted leaves
/// ".settings-backup-...".
class NewFile {
public:
    /// @param folder  not owned, or AT_FDCWD
    NewFile(int folder, const std::string& name, const std::string& content) : _folder(folder), _name(name) {
        const Fd file(Check(Open(), name.c_str()));
        try {
            for (std::size_t at = 0; at < content.size();) {
                at += static_cast<std::size_t>(
                    Check(static_cast<int>(::write(file.Get(), content.data() + at, content.size() - at)),
                          name.c_str()));
            }
            Check(::fsync(file.Get()), name.c_str());
        } catch (...) {
            ::unlinkat(_folder, _temporary.c_str(), 0);
            throw;
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile() {
        if (!_isPut) {
            ::unlinkat(_folder, _temporary.c_str(), 0);
        }
    }

    void Put() {
        Check(::renameat(_folder, _temporary.c_str(), _folder, _name.c_str()), _name.c_str());
        _isPut = true;
    }

private:
    /// Opens one that nobody has, neither among the files to be written nor beside them.
    int Open() {
        static unsigned int s_count = 0;
        const std::string stem = Split(_name).first + ".settings-backup-" + std::to_string(::getpid()) + "-";
        int fd = -1;
        do {
            _temporary = stem + std::to_string(s_count++);
            fd = ::openat(_folder, _temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        } while (fd < 0 && errno == EEXIST);
        return fd;
    }

    const int _folder;
    const std::string _name;
    std::string _temporary;
    bool _isPut = false;
};

/// Opens what is in a folder step by step, and makes what is missing; a symbolic link on the way ends it.
std::unique_ptr<Fd> OpenFolder(int root, const std::string& path) {
    auto folder =
        std::make_unique<Fd>(Check(::openat(root, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC), "open"));
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = path.find('/', begin);
        const std::string part = path.substr(begin, end - begin);
        if (::mkdirat(folder->Get(), part.c_str(), 0700) != 0 && errno != EEXIST) {
            Check(-1, part.c_str());
        }
        folder = std::make_unique<Fd>(
            Check(::openat(folder->Get(), part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC),
                  part.c_str()));
        begin = end + 1;
    }
    return folder;
}

void Save(const char* archive, char** paths, const SecureBuffer& passPhrase) {
    Files files;
    for (; *paths != nullptr; ++paths) {
        std::string name = *paths;
        name.erase(0, name.find_first_not_of('/'));
        while (name.compare(0, 2, "./") == 0) {
            name.erase(0, 2);
        }
        if (!files.emplace(name, ReadFile(*paths)).second) {
            throw Exception(name + ": given twice");
        }
    }
    NewFile(AT_FDCWD, archive, settings_archive::Seal(files, passPhrase)).Put();
    std::printf("%zu saved\n", files.size());
}

void Restore(const Files& files, const char* folder) {
    if (::mkdir(folder, 0700) != 0 && errno != EEXIST) {
        Check(-1, folder);
    }
    const Fd root(Check(::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC), folder));
    // All are written before the first one takes its place.
    std::vector<std::unique_ptr<Fd>> folders;
    std::vector<std::unique_ptr<NewFile>> restored;
    for (const auto& [path, content] : files) {
        const auto [inside, name] = Split(path);
        folders.push_back(OpenFolder(root.Get(), inside));
        restored.push_back(std::make_unique<NewFile>(folders.back()->Get(), name, content));
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
