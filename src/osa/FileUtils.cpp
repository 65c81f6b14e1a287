// SPDX-License-Identifier: MIT

#include "zarip/osa/FileUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>

#include "osa/Errors.h"
#include "osa/FileCalls.h"
#include "osa/FileReplacement.h"
#include "osa/ReadBlocks.h"
#include "osa/UniqueFd.h"
#include "zarip/osa/PathUtils.h"

namespace zarip::osa {

namespace {

constexpr std::size_t kBlockSize = 65'536;

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

[[noreturn]] void Fail(const char* what, const std::string& path, int error = errno) {
    ThrowIOErrno(what, path, error);
}

/// The path for a system call, which would silently use only the part before a zero byte.
const char* Checked(const std::string& path) {
    if (path.find('\0') != std::string::npos) {
        throw IOException("Invalid path");
    }
    return path.c_str();
}

struct stat StatusOf(const std::string& path, const char* what) {
    struct stat status {};
    if (::stat(Checked(path), &status) != 0) {
        Fail(what, path);
    }
    return status;
}

/// Whether the error means that there is nothing at the path. A link that leads in circles counts, too.
bool IsNowhere(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

/// A time outside the range of `DateTime` becomes the nearest one inside.
DateTime ToDateTime(const timespec& time) {
    constexpr long long kFirst = -62'135'596'800;
    constexpr long long kLast = 253'402'300'799;
    const long long seconds = std::clamp<long long>(time.tv_sec, kFirst, kLast);
    return DateTime() + TimeSpan::FromSeconds(seconds) + TimeSpan::FromMicroseconds(time.tv_nsec / 1'000);
}

/// Calls `take` with the name and the dirent type of each entry of an open folder. False with errno.
template <class Take>
bool ReadEntries(UniqueFd folder, Take take) {
    const Directory directory(folder.IsValid() ? ::fdopendir(folder.Get()) : nullptr);
    if (!directory) {
        return false;
    }
    folder.Release();
    for (;;) {
        errno = 0;
        const dirent* const entry = ::readdir(directory.get());
        if (entry == nullptr) {
            return errno == 0;
        }
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            take(name, entry->d_type);
        }
    }
}

/// A file that is to be replaced or made.
struct Target {
    std::string path;  // after links were followed
    bool exists = false;
    struct stat old {};
};

/// If the path exists, it must be a file that may be written. From here on links are not followed any more,
/// so a link that another process puts there meanwhile is refused or replaced.
Target FindTarget(const std::string& path) {
    Target target;
    target.path = FollowLinks(Checked(path));
    if (::lstat(target.path.c_str(), &target.old) != 0) {
        if (errno != ENOENT) {
            Fail("Couldn't write", path);
        }
        return target;
    }
    target.exists = true;
    const mode_t mode = target.old.st_mode;
    if (S_ISLNK(mode)) {
        struct stat ignored {};
        const bool isCircle = ::stat(path.c_str(), &ignored) != 0 && errno == ELOOP;
        Fail("Couldn't write", path, isCircle ? ELOOP : EACCES);
    }
    if (!S_ISREG(mode)) {
        Fail("Couldn't write", path, S_ISDIR(mode) ? EISDIR : EINVAL);
    }
    if (::faccessat(AT_FDCWD, target.path.c_str(), W_OK, AT_EACCESS) != 0) {
        Fail("Couldn't write", path);
    }
    return target;
}

/// Writes a new file, calls `setRights` for it, and puts it in the target's place.
template <class SetRights>
void ReplaceFile(const std::string& path, const Target& target, mode_t mode, std::string_view content,
                 SetRights setRights) {
    FileReplacement replacement(target.path);
    if (!replacement.Open(mode) || !WriteAll(replacement.GetFd(), content) || !setRights(replacement) ||
        replacement.Finish() != FileReplacement::Finished::kDone) {
        Fail("Couldn't write", path);
    }
}

void CopyBlocks(int from, int to, const std::string& source, const std::string& target) {
    const std::unique_ptr<char[]> block(new char[kBlockSize]);
    for (;;) {
        const ssize_t length = ::read(from, block.get(), kBlockSize);
        if (length == 0) {
            return;
        }
        if (length > 0) {
            if (!WriteAll(to, {block.get(), static_cast<std::size_t>(length)})) {
                Fail("Couldn't write", target);
            }
        } else if (errno != EINTR) {
            Fail("Couldn't read", source);
        }
    }
}

UniqueFd OpenSource(const std::string& path, int flags, struct stat& status) {
    UniqueFd file = OpenRegular(Checked(path), flags, status);
    if (!file.IsValid()) {
        Fail("Couldn't read", path);
    }
    return file;
}

bool AreSame(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/// Whether two paths name the same entry of a folder, such as "a" and "./a".
bool AreOneEntry(const std::string& one, const std::string& other) {
    struct stat folders[2] = {};
    return PathUtils::GetName(one) == PathUtils::GetName(other) &&
           ::stat(PathUtils::GetParent(one).c_str(), &folders[0]) == 0 &&
           ::stat(PathUtils::GetParent(other).c_str(), &folders[1]) == 0 && AreSame(folders[0], folders[1]);
}

/// If both names are hard links to one file, renaming does nothing, and the old name still has to be removed.
void RemoveOldLink(const std::string& from, const std::string& to) {
    struct stat left {};
    struct stat moved {};
    if (::lstat(from.c_str(), &left) != 0 || ::lstat(to.c_str(), &moved) != 0 || !AreSame(left, moved) ||
        left.st_nlink < 2 || S_ISDIR(left.st_mode) || AreOneEntry(from, to)) {
        return;
    }
    if (::unlink(from.c_str()) != 0 && errno != ENOENT) {
        Fail("Couldn't delete", from);
    }
}

void MoveToOtherFileSystem(const std::string& from, const std::string& to) {
    struct stat status {};
    if (::lstat(from.c_str(), &status) != 0) {
        Fail("Couldn't move", from);
    }
    FileReplacement replacement(to);
    if (S_ISLNK(status.st_mode)) {
        char content[4096];
        const ssize_t length = ::readlink(from.c_str(), content, sizeof content);
        if (length < 0 || !replacement.OpenLink({content, static_cast<std::size_t>(length)})) {
            Fail("Couldn't move", from);
        }
    } else if (S_ISREG(status.st_mode)) {
        const UniqueFd source = OpenSource(from, O_NOFOLLOW, status);
        if (!replacement.Open(0600)) {
            Fail("Couldn't write", to);
        }
        CopyBlocks(source.Get(), replacement.GetFd(), from, to);
        const timespec times[] = {status.st_atim, status.st_mtim};
        if (!replacement.TakeOver(status, AccessList::Of(source.Get())) ||
            ::futimens(replacement.GetFd(), times) != 0) {
            Fail("Couldn't write", to);
        }
    } else {
        Fail("Couldn't move", from, EXDEV);
    }
    if (replacement.Finish() != FileReplacement::Finished::kDone) {
        Fail("Couldn't write", to);
    }
    if (::unlink(from.c_str()) != 0 && errno != ENOENT) {
        Fail("Couldn't delete", from);
    }
}

/// Whether a file system or another folder is mounted there. Linux before 5.8 does not report it.
bool IsMountPoint(int folder) {
    struct statx status {};
    return ::statx(folder, "", AT_EMPTY_PATH, 0, &status) == 0 &&
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

/// Deletes what is at a path. It has one descriptor open, that of the present folder. It goes up by "..", and
/// only if that leads to the folder from which it has come. It does not enter a mounted file system. `Run` is
/// called once.
class TreeDeleter {
public:
    TreeDeleter(const std::string& path, const std::string& parent, const std::string& name)
        : _path(path), _parent(parent), _name(name) {}

    bool Run() {
        OpenParent();
        while (_levels.size() > 1 || !_levels.back().folders.empty()) {
            if (_levels.back().folders.empty()) {
                DeleteEmptied();
            } else {
                std::string name = std::move(_levels.back().folders.back());
                _levels.back().folders.pop_back();
                DeleteOrEnter(name);
            }
        }
        return _found;
    }

private:
    struct Level {
        dev_t device;
        ino_t inode;
        std::string name;
        std::vector<std::string> folders;  // still to be deleted
    };

    static constexpr int kOpenFolder = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    static constexpr int kMaxAgain = 100;

    [[noreturn]] void ThrowFailure(const std::string& name, int error = errno) const {
        if (_levels.size() <= 1 && name == _name) {
            Fail("Couldn't delete", _path, error);
        }
        throw IOException(WithErrno("Couldn't delete '" + name + "' in tree '" + _path + "'", error));
    }

    /// Another process is changing the tree. That is a failure only if it does not stop.
    void CountAgain(const std::string& name, int error) {
        if (++_again > kMaxAgain) {
            ThrowFailure(name, error);
        }
    }

    void OpenParent() {
        _levels.clear();
        _folder = UniqueFd(::open(_parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat status {};
        if (!_folder.IsValid() || ::fstat(_folder.Get(), &status) != 0) {
            const int error = errno;
            _levels.push_back({});
            if (!IsNowhere(error)) {
                ThrowFailure(_name, error);
            }
            return;
        }
        _levels.push_back({status.st_dev, status.st_ino, "", {_name}});
    }

    /// Deletes an entry of the present folder, or enters it if it is a folder.
    void DeleteOrEnter(const std::string& name) {
        if (::unlinkat(_folder.Get(), name.c_str(), 0) == 0) {
            _found = true;
            return;
        }
        const int error = errno;
        if (error != EISDIR && error != EPERM) {
            if (!IsNowhere(error)) {
                ThrowFailure(name, error);
            }
            return;
        }
        UniqueFd child(::openat(_folder.Get(), name.c_str(), kOpenFolder));
        struct stat status {};
        if (!child.IsValid() || ::fstat(child.Get(), &status) != 0) {
            if (errno == ENOTDIR && error == EISDIR) {
                CountAgain(name, error);  // it is not a folder any more
                _levels.back().folders.push_back(name);
            } else if (errno != ENOENT) {
                ThrowFailure(name, errno == ENOTDIR ? error : errno);
            }
            return;
        }
        if (status.st_dev != _levels.back().device || IsMountPoint(child.Get())) {
            ThrowFailure(name, EXDEV);
        }
        _found = true;
        EnterFolder(name, std::move(child), status);
    }

    /// Deletes what is in the folder, except for other folders, and makes it the present one. A folder that
    /// may not be read is deleted at once, which works if it is empty.
    void EnterFolder(const std::string& name, UniqueFd child, const struct stat& status) {
        Level level = {status.st_dev, status.st_ino, name, {}};
        UniqueFd readable(::openat(child.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!readable.IsValid() && errno == EACCES) {
            if (::unlinkat(_folder.Get(), name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
                ThrowFailure(name, EACCES);
            }
            return;
        }
        const bool isRead = ReadEntries(std::move(readable), [&](const std::string& entry, int type) {
            if (type == DT_DIR) {
                level.folders.push_back(entry);
            } else if (::unlinkat(child.Get(), entry.c_str(), 0) != 0) {
                if (errno == EISDIR) {
                    level.folders.push_back(entry);
                } else if (errno != ENOENT) {
                    ThrowFailure(entry);
                }
            }
        });
        if (!isRead && errno != ENOENT) {
            ThrowFailure(name);
        }
        _levels.push_back(std::move(level));
        _folder = std::move(child);
    }

    /// Goes up and deletes the folder from which it has come, which is empty.
    void DeleteEmptied() {
        const std::string name = std::move(_levels.back().name);
        _levels.pop_back();
        UniqueFd parent(::openat(_folder.Get(), "..", kOpenFolder));
        struct stat status {};
        if (!parent.IsValid() || ::fstat(parent.Get(), &status) != 0 ||
            status.st_dev != _levels.back().device || status.st_ino != _levels.back().inode) {
            CountAgain(name, parent.IsValid() ? EBUSY : errno);  // the folder has been moved
            OpenParent();
            return;
        }
        _folder = std::move(parent);
        if (::unlinkat(_folder.Get(), name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) {
            return;
        }
        if (errno != ENOTEMPTY && errno != EEXIST && errno != ENOTDIR) {
            ThrowFailure(name);
        }
        CountAgain(name, errno);
        _levels.back().folders.push_back(name);
    }

    const std::string& _path;
    const std::string& _parent;
    const std::string& _name;
    std::vector<Level> _levels;  // the first is the folder around the tree
    UniqueFd _folder;            // that of the last level
    bool _found = false;
    int _again = 0;
};

}  // namespace

bool FileUtils::Exists(const std::string& path) {
    struct stat status {};
    if (::stat(Checked(path), &status) == 0) {
        return true;
    }
    if (!IsNowhere(errno)) {
        Fail("Couldn't look at", path);
    }
    return false;
}

FileUtils::Kind FileUtils::GetKind(const std::string& path) {
    struct stat status {};
    if (::lstat(Checked(path), &status) != 0) {
        Fail("Couldn't look at", path);
    }
    return S_ISREG(status.st_mode)   ? kFile
           : S_ISDIR(status.st_mode) ? kDirectory
           : S_ISLNK(status.st_mode) ? kSymbolicLink
                                     : kOther;
}

unsigned long long FileUtils::GetSize(const std::string& path) {
    const struct stat status = StatusOf(path, "Couldn't tell the size of");
    if (!S_ISREG(status.st_mode)) {
        Fail("Couldn't tell the size of", path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    return static_cast<unsigned long long>(status.st_size);
}

FileUtils::Times FileUtils::GetTimes(const std::string& path) {
    const struct stat status = StatusOf(path, "Couldn't tell the times of");
    return {ToDateTime(status.st_mtim), ToDateTime(status.st_atim), ToDateTime(status.st_ctim)};
}

std::vector<std::string> FileUtils::List(const std::string& folder) {
    std::vector<std::string> names;
    const bool isRead = ReadEntries(UniqueFd(::open(Checked(folder), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
                                    [&names](const std::string& name, int) { names.push_back(name); });
    if (!isRead) {
        Fail("Couldn't list", folder);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool FileUtils::CreateDirectory(const std::string& path) {
    Checked(path);
    const std::size_t size = path.find_last_not_of('/') + 1;
    bool made = false;
    int error = 0;
    for (std::size_t end = 0; end < size;) {
        end = std::min(path.find('/', path.find_first_not_of('/', end)), size);
        made = ::mkdir(path.substr(0, end).c_str(), 0777) == 0;
        if (!made && errno != EEXIST && error == 0) {
            error = errno;  // the first error names the obstacle
        }
    }
    struct stat status {};
    if (!made && (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))) {
        Fail("Couldn't create directory", path, error != 0 ? error : path.empty() ? ENOENT : EEXIST);
    }
    return made;
}

void FileUtils::Copy(const std::string& from, const std::string& to) {
    struct stat status {};
    const UniqueFd source = OpenSource(from, 0, status);
    const Target target = FindTarget(to);
    FileReplacement replacement(target.path);
    if (!replacement.Open(0600)) {
        Fail("Couldn't write", to);
    }
    if (target.exists) {
        replacement.TakeOwner(target.old);
    }
    CopyBlocks(source.Get(), replacement.GetFd(), from, to);
    if (!AccessList::Of(source.Get()).ApplyTo(replacement.GetFd(), status.st_mode & 0777) ||
        replacement.Finish() != FileReplacement::Finished::kDone) {
        Fail("Couldn't write", to);
    }
}

void FileUtils::Move(const std::string& from, const std::string& to) {
    if (::rename(Checked(from), Checked(to)) == 0) {
        RemoveOldLink(from, to);
        return;
    }
    if (errno != EXDEV) {
        Fail("Couldn't move", from);
    }
    MoveToOtherFileSystem(from, to);
}

bool FileUtils::Delete(const std::string& path) {
    if (std::remove(Checked(path)) == 0) {
        return true;
    }
    if (!IsNowhere(errno)) {
        Fail("Couldn't delete", path);
    }
    return false;
}

bool FileUtils::DeleteTree(const std::string& path) {
    Checked(path);
    // With a slash at the end, the system would follow a link.
    const std::string tree = path.substr(0, path.find_last_not_of('/') + 1);
    const std::size_t slash = tree.rfind('/');
    const std::string name = tree.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") {
        throw IOException("Invalid path");
    }
    const std::string parent = slash == std::string::npos ? "." : tree.substr(0, slash + 1);
    return TreeDeleter(path, parent, name).Run();
}

std::string FileUtils::Read(const std::string& path, unsigned int maxSize) {
    struct stat status {};
    const UniqueFd file = OpenSource(path, 0, status);
    const auto check = [&](off_t size) {
        if (size > static_cast<off_t>(maxSize)) {
            Fail("Couldn't read", path, EFBIG);
        }
    };
    if (status.st_blocks != 0) {
        check(status.st_size);  // a file of /proc has no blocks and a size of 0 or 4096
    }
    std::string content;
    const bool isRead = ReadBlocks(file.Get(), [&](std::string_view block) {
        check(static_cast<off_t>(content.size() + block.size()));
        content += block;
    });
    if (!isRead) {
        Fail("Couldn't read", path);
    }
    return content;
}

void FileUtils::Write(const std::string& path, const std::string& content) {
    UniqueFd file = OpenAtOnce(Checked(path), O_WRONLY | O_CREAT | O_TRUNC);
    if (!file.IsValid() || !WriteAll(file.Get(), content) || !Close(std::move(file))) {
        Fail("Couldn't write", path);
    }
}

void FileUtils::WriteAtomically(const std::string& path, const std::string& content) {
    const Target target = FindTarget(path);
    ReplaceFile(path, target, target.exists ? 0600 : 0666, content, [&](FileReplacement& replacement) {
        return !target.exists || replacement.TakeOver(target.old);
    });
}

void FileUtils::WriteAtomically(const std::string& path, const void* data, std::size_t size,
                                unsigned int mode) {
    const Target target = FindTarget(path);
    if ((mode & ~0777U) != 0) {
        Fail("Couldn't write", path, EINVAL);
    }
    if (target.exists && !IsTrusted(target.path, target.old)) {
        Fail("Couldn't write", path);
    }
    const std::string_view content(static_cast<const char*>(data), size);
    ReplaceFile(path, target, 0600, content, [&](FileReplacement& replacement) {
        if (target.exists) {
            replacement.TakeOwner(target.old);
        }
        return AccessList().ApplyTo(replacement.GetFd(), mode);
    });
}

}  // namespace zarip::osa
