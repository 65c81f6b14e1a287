#include "osa/FileReplacement.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "osa/FileCalls.h"

namespace zarip::osa {

namespace {

constexpr int kMaxLinks = 40;

constexpr time_t kMaxLinkAge = 60;

/// With its slash; empty for a name in the current folder.
std::string FolderOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

/// For a file just made: false with EEXIST if another writer was quicker and takes it for abandoned.
bool Lock(int fd) {
    struct stat status {};
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            return true;  // a file system without locks: nobody takes the file for abandoned
        }
    } else if (::fstat(fd, &status) != 0 || status.st_nlink != 0) {
        return true;
    }
    errno = EEXIST;
    return false;
}

/// Whether the file of that name is one that its writer does not lock, so that the writer was killed. A link
/// cannot be locked, but it exists only for a moment, so its age tells. `file` holds the lock afterwards.
bool IsAbandoned(int folder, const char* name, UniqueFd& file) {
    struct stat named {};
    if (::fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    if (S_ISLNK(named.st_mode)) {
        return std::abs(::time(nullptr) - named.st_mtime) > kMaxLinkAge;
    }
    file = UniqueFd(::openat(folder, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    return S_ISREG(named.st_mode) && file.IsValid() && ::flock(file.Get(), LOCK_EX | LOCK_NB) == 0 &&
           ::fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && ::fstat(file.Get(), &status) == 0 &&
           status.st_ino == named.st_ino && status.st_dev == named.st_dev;
}

void RemoveAbandoned(const std::string& folder) {
    struct CloseFolder {
        void operator()(DIR* opened) const { ::closedir(opened); }
    };
    const std::unique_ptr<DIR, CloseFolder> opened(::opendir(folder.empty() ? "." : folder.c_str()));
    if (!opened) {
        return;  // one that may be written but not read
    }
    const int fd = ::dirfd(opened.get());
    while (const dirent* const entry = ::readdir(opened.get())) {
        UniqueFd file;
        if (::fnmatch(".zarip-[0-9]*-[0-9]*.tmp", entry->d_name, 0) == 0 &&
            IsAbandoned(fd, entry->d_name, file)) {
            ::unlinkat(fd, entry->d_name, 0);
        }
    }
}

}  // namespace

std::string FollowLinks(const std::string& path) {
    std::string result = path;
    for (int i = 0; i < kMaxLinks; ++i) {
        char target[4096];
        const ssize_t length = ::readlink(result.c_str(), target, sizeof target);
        if (length < 0) {
            return result;  // not a link, nothing there, or the caller will fail there, too
        }
        const std::string name(target, static_cast<std::size_t>(length));
        result = name[0] == '/' ? name : FolderOf(result) + name;
    }
    return path;
}

FileReplacement::FileReplacement(const std::string& target) : _target(target), _folder(FolderOf(target)) {}

FileReplacement::~FileReplacement() {
    if (!_path.empty()) {
        const int error = errno;
        ::unlink(_path.c_str());
        errno = error;
    }
}

template <class Make>
bool FileReplacement::MakeTemporary(Make make) {
    static std::atomic<unsigned int> s_count{0};
    // Not made of the target's name, which may be as long as a name can be.
    const std::string stem = _folder + ".zarip-" + std::to_string(::getpid()) + "-";
    do {
        _path = stem + std::to_string(s_count++) + ".tmp";
        if (make(_path.c_str())) {
            return true;
        }
    } while (errno == EEXIST);
    _path.clear();
    return false;
}

bool FileReplacement::Open(mode_t mode) {
    RemoveAbandoned(_folder);
    return MakeTemporary([&](const char* path) {
        _file = UniqueFd(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
        return _file.IsValid() && Lock(_file.Get());
    });
}

bool FileReplacement::OpenLink(const std::string& content) {
    return MakeTemporary([&](const char* path) { return ::symlink(content.c_str(), path) == 0; });
}

FileReplacement::Taken FileReplacement::TakeOwner(const struct stat& old) {
    // Only root may give files away; anybody else may still set a group of its own.
    if (::fchown(_file.Get(), old.st_uid, old.st_gid) == 0) {
        return Taken::kBoth;
    }
    return ::fchown(_file.Get(), static_cast<uid_t>(-1), old.st_gid) == 0 ? Taken::kGroup : Taken::kNone;
}

bool FileReplacement::TakeOver(const struct stat& old) {
    mode_t mode = old.st_mode & 07777;
    const Taken taken = TakeOwner(old);
    if (taken != Taken::kBoth) {
        mode &= 0777;  // nobody else's program runs with another owner's rights
    }
    if (taken == Taken::kNone) {
        mode &= 0707 | ((mode & 07) << 3);  // nor may another group what not everybody may
    }
    return ::fchmod(_file.Get(), mode) == 0;
}

bool FileReplacement::Commit() {
    if (::rename(_path.c_str(), _target.c_str()) != 0) {
        return false;
    }
    _path.clear();
    return true;
}

bool FileReplacement::SynchroniseFolder() const {
    const UniqueFd folder(
        ::open(_folder.empty() ? "." : _folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.IsValid()) {
        ::sync();  // one that may be written but not read is part of everything
        return true;
    }
    return Synchronise(folder.Get());
}

}  // namespace zarip::osa
