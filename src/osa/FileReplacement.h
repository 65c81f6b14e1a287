#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "osa/UniqueFd.h"

namespace zarip::osa {

/// The path that a chain of symbolic links leads to, whether there is something or not; one that leads in
/// circles stays as it is.
std::string FollowLinks(const std::string& path);

/// Writes all of it; false with errno.
bool WriteAll(int fd, std::string_view text);

/// Has the disk keep what was written; false with errno. A special file (a pipe, /dev/stdout) knows no
/// synchronisation, which is no failure.
bool Synchronise(int fd);

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

    /// Takes over owner and group as far as that is allowed; true when it was both.
    bool TakeOwner(const struct stat& old);

    /// Takes over mode, owner and group.
    bool TakeOver(const struct stat& old);

    int GetFd() const { return _file.Get(); }

    /// Writes and synchronises: what takes a place has to be on the disk before.
    bool Write(std::string_view text);

    /// False also where the target cannot be replaced (another file system is mounted on it).
    bool Commit();

private:
    template <class Make>
    bool MakeTemporary(Make make);

    const std::string _target;
    const std::string _folder;
    std::string _path;
    UniqueFd _file;
};

}  // namespace zarip::osa
