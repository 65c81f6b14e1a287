#pragma once

#include <sys/stat.h>

#include <string>

#include "osa/UniqueFd.h"

namespace zarip::osa {

/// The path that a chain of symbolic links leads to, whether there is something or not; one that leads in
/// circles stays as it is.
std::string FollowLinks(const std::string& path);

/// A file that is made beside another one and then takes its place in one step. If it does not, it is removed
/// again. *One thread at a time.* Operations return false with errno.
///
/// It is named ".zarip-<process>-<number>.tmp" and locked (flock) for as long as it is open. If its writer is
/// killed, the lock ends and the file stays; the next writer in that folder removes such files. A process id
/// in the name would not do for that: the system gives it to other processes, and another container has its
/// own ids.
class FileReplacement {
public:
    /// @param target  not a symbolic link: that would itself be replaced.
    explicit FileReplacement(const std::string& target);
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;
    ~FileReplacement();

    /// Makes the file, after those of killed writers were removed.
    bool Open(mode_t mode);

    /// Makes a symbolic link instead of a file.
    bool OpenLink(const std::string& content);

    enum class Taken { kNone, kGroup, kBoth };

    /// Takes over owner and group as far as that is allowed.
    Taken TakeOwner(const struct stat& old);

    /// Takes over mode, owner and group, as far as this gives nobody more rights. To be called after writing,
    /// by which a file loses the set-id bits.
    bool TakeOver(const struct stat& old);

    /// To write, and to synchronise: what takes a place has to be on the disk before.
    int GetFd() const { return _file.Get(); }

    /// False also if the target cannot be replaced (another file system is mounted on it).
    bool Commit();

    /// To be called after `Commit`: only then the disk keeps the file in its place. It is in its place also
    /// if this fails.
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
