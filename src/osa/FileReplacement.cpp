// SPDX-License-Identifier: MIT

#include "osa/FileReplacement.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "osa/FileCalls.h"

namespace zarip::osa {

namespace {

constexpr int kMaxLinks = 40;

constexpr time_t kMaxLinkAge = 60;

/// The folder of a path, with its slash; empty for a name in the current folder.
std::string FolderOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

UniqueFd OpenFolderOf(const std::string& path) {
    const std::string folder = FolderOf(path);
    return UniqueFd(::open(folder.empty() ? "." : folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

/// The content of a link that may be followed; false for anything else. The link that is checked is also the
/// one that is read, even if another process replaces it meanwhile.
bool ReadLink(const std::string& path, std::string& content) {
    const UniqueFd folder = OpenFolderOf(path);
    const std::string name = path.substr(FolderOf(path).size());
    const UniqueFd link(::openat(folder.Get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat around {};
    struct stat status {};
    if (!link.IsValid() || ::fstat(folder.Get(), &around) != 0 || ::fstat(link.Get(), &status) != 0 ||
        !S_ISLNK(status.st_mode) || !IsTrusted(around, status)) {
        return false;
    }
    char target[4096];
    const ssize_t length = ::readlinkat(link.Get(), "", target, sizeof target);
    content.assign(target, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return length > 0;
}

constexpr const char* kAccessList = "system.posix_acl_access";

/// An entry of the attribute, after a header of four bytes; all of it is little-endian.
constexpr std::size_t kHeaderSize = 4;
constexpr std::size_t kEntrySize = 8;
constexpr std::size_t kRightsAt = 2;
constexpr char kGroupEntry = 0x04;
constexpr char kOthersEntry = 0x20;

/// Where the rights of the entry of that kind are; npos if the list has none.
std::size_t FindRights(const std::string& list, char kind) {
    for (std::size_t at = kHeaderSize; at + kEntrySize <= list.size(); at += kEntrySize) {
        if (list[at] == kind && list[at + 1] == 0) {
            return at + kRightsAt;
        }
    }
    return std::string::npos;
}

bool IsNoList(int error) {
    return error == ENODATA || error == ENOTSUP || error == ENOSYS;
}

/// Locks a new file. False with EEXIST if another writer was quicker and takes it for abandoned.
bool Lock(int fd) {
    struct stat status {};
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            return true;  // without locks no writer takes the file for abandoned
        }
    } else if (::fstat(fd, &status) != 0 || status.st_nlink != 0) {
        return true;
    }
    errno = EEXIST;
    return false;
}

/// Whether the file of that name is one that its writer does not lock, so that the writer was killed. A link
/// cannot be locked, but it exists only for a moment, so its age decides. `file` holds the lock afterwards.
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
        return;  // a folder that may be written but not read
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
    std::string content;
    for (int i = 0; i < kMaxLinks; ++i) {
        if (!ReadLink(result, content)) {
            return result;
        }
        result = content[0] == '/' ? content : FolderOf(result).append(content);
    }
    return path;
}

bool IsTrusted(const struct stat& folder, const struct stat& entry) {
    constexpr mode_t kShared = S_ISVTX | S_IWOTH;
    return (folder.st_mode & kShared) != kShared || entry.st_uid == ::geteuid() ||
           entry.st_uid == folder.st_uid;
}

bool IsTrusted(const std::string& path, const struct stat& entry) {
    struct stat around {};
    if (::fstat(OpenFolderOf(path).Get(), &around) != 0) {
        return false;
    }
    errno = EACCES;
    return IsTrusted(around, entry);
}

template <class Get>
AccessList AccessList::Read(Get get) {
    AccessList result;
    char list[4096];  // a longer list cannot be kept
    const ssize_t length = get(list, sizeof list);
    result._isKnown = length >= 0 || IsNoList(errno);
    result._list.assign(list, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return result;
}

AccessList AccessList::Of(int file) {
    return Read([&](char* list, std::size_t size) { return ::fgetxattr(file, kAccessList, list, size); });
}

AccessList AccessList::Of(const std::string& path) {
    return Read(
        [&](char* list, std::size_t size) { return ::lgetxattr(path.c_str(), kAccessList, list, size); });
}

void AccessList::RestrictGroup() {
    const std::size_t group = FindRights(_list, kGroupEntry);
    const std::size_t others = FindRights(_list, kOthersEntry);
    if (group != std::string::npos && others != std::string::npos) {
        _list[group] = static_cast<char>(_list[group] & _list[others]);
    }
}

bool AccessList::ApplyTo(int file, mode_t mode) const {
    if (!_list.empty() && ::fsetxattr(file, kAccessList, _list.data(), _list.size(), 0) == 0) {
        return ::fchmod(file, mode) == 0;
    }
    if (::fremovexattr(file, kAccessList) != 0 && !IsNoList(errno)) {
        return false;
    }
    const bool hadNone = _isKnown && _list.empty();
    return ::fchmod(file, hadNone ? mode : mode & 0700) == 0;
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
    // The target's name is not used, because it may have the greatest length that the system allows.
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
    // Only root may give files away. Other users may still set a group that they belong to.
    if (::fchown(_file.Get(), old.st_uid, old.st_gid) == 0) {
        return Taken::kBoth;
    }
    return ::fchown(_file.Get(), static_cast<uid_t>(-1), old.st_gid) == 0 ? Taken::kGroup : Taken::kNone;
}

bool FileReplacement::TakeOver(const struct stat& old, AccessList list) {
    mode_t mode = old.st_mode & 07777;
    const Taken taken = TakeOwner(old);
    if (taken != Taken::kBoth) {
        mode &= 0777;  // a program must not run with the rights of another owner
    }
    if (taken == Taken::kNone) {
        // Another group gets no more rights than all other users have. With a list, the group bits of the
        // mode are not the rights of the group.
        list.RestrictGroup();
        mode &= list.IsEmpty() ? 0707 | ((mode & 07) << 3) : 0777;
    }
    return list.ApplyTo(_file.Get(), mode);
}

FileReplacement::Finished FileReplacement::Finish() {
    if (_file.IsValid() && !Synchronise(_file.Get())) {
        return Finished::kFailed;
    }
    if (::rename(_path.c_str(), _target.c_str()) != 0) {
        return Finished::kNotReplaced;
    }
    _path.clear();
    return SynchroniseFolder() ? Finished::kDone : Finished::kFailed;
}

bool FileReplacement::SynchroniseFolder() const {
    const UniqueFd folder(
        ::open(_folder.empty() ? "." : _folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.IsValid()) {
        ::sync();  // a folder that may be written but not read
        return true;
    }
    return Synchronise(folder.Get());
}

}  // namespace zarip::osa
