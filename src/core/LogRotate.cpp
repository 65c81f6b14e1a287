// SPDX-License-Identifier: MIT

#include "core/LogRotate.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace zarip::core {

namespace {

constexpr int kLineSize = 100;
constexpr int kLockLooks = 100;
constexpr int kLockPauseMs = 20;

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

/// A second descriptor of a stream's open file, which keeps the file's lock after the stream has been closed.
class KeptDescriptor {
public:
    explicit KeptDescriptor(FILE* file)
        : _fd(file != nullptr ? ::fcntl(::fileno(file), F_DUPFD_CLOEXEC, 0) : -1) {}
    KeptDescriptor(const KeptDescriptor&) = delete;
    KeptDescriptor& operator=(const KeptDescriptor&) = delete;
    ~KeptDescriptor() {
        if (_fd >= 0) {
            ::close(_fd);
        }
    }

    void Truncate(off_t size) const {
        const int result = ::ftruncate(_fd, size);
        static_cast<void>(result);  // nothing else is left to try
    }

private:
    int _fd;
};

bool IsStillAt(FILE* file, const char* path) {
    struct stat opened {};
    struct stat named {};
    return ::fstat(::fileno(file), &opened) == 0 && ::stat(path, &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

/// Opens the file for reading and writing without truncating it. Waits for at most two seconds until no other
/// process edits it. If such a process has replaced the file meanwhile, the new file is opened.
File OpenLocked(const char* path) {
    for (;;) {
        File file(std::fopen(path, "r+e"));
        if (!file) {
            return file;
        }
        // The wait is limited, because any process that may read the file can hold this lock for ever.
        for (int i = 0; i < kLockLooks && ::flock(::fileno(file.get()), LOCK_EX | LOCK_NB) != 0; ++i) {
            ::poll(nullptr, 0, kLockPauseMs);
        }
        if (IsStillAt(file.get(), path)) {
            return file;
        }
    }
}

bool Flush(FILE* file) {
    return std::fflush(file) == 0 && ::fsync(::fileno(file)) == 0;
}

/// Copies the configuration up to its last line feed, with `entry` in the place of the entry of the owner.
/// Returns whether everything was written.
///
/// Deliberate: a last line without line feed is not copied, because the file is always written in complete
/// lines, so such a line is the rest of a broken edit. A long line is processed in pieces.
bool CopyWithEntry(std::FILE* input, std::FILE* output, const char* owner, const char* entry, bool& isFound) {
    bool isWritten = true;
    char line[kLineSize];
    while (std::fgets(line, sizeof line, input) != nullptr && std::feof(input) == 0) {
        isWritten = std::fputs(line, output) >= 0 && isWritten;
        if (!isFound && std::strstr(line, owner) != nullptr && std::strchr(line, '#') != nullptr) {
            isFound = true;
            isWritten = std::fputs(entry, output) >= 0 && isWritten;
            if (std::fgets(line, sizeof line, input) == nullptr) {
                break;
            }
        }
    }
    return isWritten;
}

}  // namespace

void EditLogRotateConf(const std::string& logFile, const std::string& owner, const std::string& configuration,
                       const std::string& temporary) {
    char marker[kLineSize];
    char entry[kLineSize];
    std::snprintf(marker, sizeof marker, "#created by zarip::core::Logger for %s\n", owner.c_str());
    std::snprintf(entry, sizeof entry, "%s { }\n", logFile.c_str());

    std::string command;
    File input = OpenLocked(configuration.c_str());
    const KeptDescriptor kept(input.get());
    off_t cutAt = -1;
    File output(std::fopen(temporary.c_str(), "w+e"));
    if (input && output) {
        const std::string remove = "rm -rf " + temporary;
        bool found = false;
        bool written = CopyWithEntry(input.get(), output.get(), owner.c_str(), entry, found);
        if (found) {
            written = Flush(output.get()) && std::ferror(input.get()) == 0 && written;
            // An incomplete configuration must not replace the complete one.
            command = written ? "mv " + temporary + " " + configuration : remove;
        } else {
            const off_t end = ::fseeko(input.get(), 0, SEEK_END) == 0 ? ::ftello(input.get()) : -1;
            written = std::fputs(marker, input.get()) >= 0;
            written = std::fputs(entry, input.get()) >= 0 && written;
            if (!Flush(input.get()) || !written) {
                cutAt = end;
            }
            command = remove;
        }
    }
    input.reset();
    output.reset();
    if (cutAt >= 0) {
        kept.Truncate(cutAt);  // half an entry would make logrotate refuse the whole file
    }
    // NOLINTNEXTLINE(cert-env33-c): both names in the command are the library's own.
    const int status = std::system(command.c_str());
    static_cast<void>(status);  // deliberate: a configuration that cannot be edited is no reason to fail
}

}  // namespace zarip::core
