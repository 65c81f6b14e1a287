#include "osa/FileReplacement.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "osa/FileCalls.h"

namespace zarip::osa {

namespace {

constexpr int kMaxLinks = 40;

/// With its slash; empty for a name in the current folder.
std::string FolderOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

}  // namespace

std::string FollowLinks(const std::string& path) {
    std::string result = path;
    for (int i = 0; i < kMaxLinks; ++i) {
        char target[4096];
        const ssize_t length = ::readlink(result.c_str(), target, sizeof target);
        if (length < 0) {
            return result;  // no link, nothing there, or the caller will fail there, too
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
    return MakeTemporary([&](const char* path) {
        _file = UniqueFd(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
        return _file.IsValid();
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
