#pragma once

#include <sys/stat.h>

#include <string>

#include "osa/UniqueFd.h"

namespace zarip::osa {

/// The path that a chain of symbolic links leads to, whether there is something or not; one that leads in
/// circles stays as it is.
std::string FollowLinks(const std::string& path);

/// A file that is made beside another and then takes its place in one step; unless it has, it is removed
/// again. *One thread at a time.* Operations return false with errno.
class FileReplacement {
public:
    /// @param target  no symbolic link, or that itself is replaced.
    explicit FileReplacement(const std::string& target);
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;
    ~FileReplacement();

    bool Open(mode_t mode);

    /// Makes a symbolic link instead of a file.
    bool OpenLink(const std::string& content);

    enum class Taken { kNone, kGroup, kBoth };

    /// Takes over owner and group as far as that is allowed.
    Taken TakeOwner(const struct stat& old);

    /// Takes over mode, owner and group, as far as nobody gets a right by it that he had not. After writing,
    /// by which a file loses the set-id bits.
    bool TakeOver(const struct stat& old);

    /// To write, and to synchronise: what takes a place has to be on the disk before.
    int GetFd() const { return _file.Get(); }

    /// False also where the target cannot be replaced (another file system is mounted on it).
    bool Commit();

    /// After `Commit`: only then the disk keeps it in its place. It is there also when this fails.
    bool SynchroniseFolder() const;

private:
    template <class Make>
    bool MakeTemporary(Make make);

    const std::string _target;
    const std::string _folder;
    std::string _path;
    UniqueFd _file;
};

}  // namespace zarip::osa
