// SPDX-License-Identifier: MIT

#pragma once

#include <sys/stat.h>

#include <string>

#include "osa/UniqueFd.h"

namespace zarip::osa {

/// The path that a chain of symbolic links leads to, whether a file exists there or not. The result is itself
/// a link if the chain leads in circles, or if it comes to a link that is not trusted (`IsTrusted`); the
/// caller must not follow that link, so it uses `lstat` and O_NOFOLLOW for the result.
std::string FollowLinks(const std::string& path);

/// Whether an entry of a folder can be trusted. In a sticky folder that everybody may write, such as /tmp,
/// any user may have planted it, so it is trusted only if it belongs to this process's user or to the owner
/// of the folder. The system applies the same rule, but only to paths that it resolves, and only if the
/// administrator has switched it on (fs.protected_symlinks).
bool IsTrusted(const struct stat& folder, const struct stat& entry);

/// The same for the file at a path, whose links were followed before; false with errno.
bool IsTrusted(const std::string& path, const struct stat& entry);

/// The access control list of a file, in the system's own form. It gives named users and groups rights that
/// the mode does not show; the group bits of the mode then are a limit to all of them, and not the rights of
/// the file's group.
class AccessList {
public:
    /// An empty list.
    AccessList() = default;

    static AccessList Of(int file);
    static AccessList Of(const std::string& path);  // a link is not followed

    bool IsEmpty() const { return _list.empty(); }

    /// Gives the file's group no more rights than all other users have.
    void RestrictGroup();

    /// Sets mode and list of a file; without a list it removes the one that a new file gets from its folder.
    /// If a list cannot be set, only the owner keeps rights. False with errno.
    bool ApplyTo(int file, mode_t mode) const;

private:
    template <class Get>
    static AccessList Read(Get get);

    std::string _list;
    bool _isKnown = true;
};

/// A file that is made next to the target and then replaces it in one step. If it does not get that far, the
/// destructor removes it. *One thread at a time.* Operations return false with errno. The order of calls is
/// `Open` or `OpenLink`, then writing and taking over, then `Finish`; each of them once.
///
/// It is named ".zarip-<process>-<number>.tmp" and locked (flock) for as long as it is open. If its writer is
/// killed, the lock ends and the file stays; the next writer in that folder removes such files. The process
/// id in the name cannot tell a killed writer from a running one, because the system reuses ids, and another
/// container has its own ids.
class FileReplacement {
public:
    /// @param target  not a symbolic link, because the link itself would be replaced.
    explicit FileReplacement(const std::string& target);
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;
    ~FileReplacement();

    /// Removes the files of killed writers, then makes the file.
    bool Open(mode_t mode);

    /// Makes a symbolic link instead of a file.
    bool OpenLink(const std::string& content);

    enum class Taken { kNone, kGroup, kBoth };

    /// Takes over owner and group as far as the system permits it.
    Taken TakeOwner(const struct stat& old);

    /// Takes over mode, access control list, owner and group, as far as no other user gets more rights by it.
    /// To be called after writing, because writing clears the set-id bits. The list is that of the target.
    bool TakeOver(const struct stat& old) { return TakeOver(old, AccessList::Of(_target)); }
    bool TakeOver(const struct stat& old, AccessList list);

    /// The file to write to; -1 for a link.
    int GetFd() const { return _file.Get(); }

    enum class Finished {
        kDone,
        kNotReplaced,  ///< the target cannot be replaced: another file system is mounted on it, for example
        kFailed,
    };

    /// Synchronises the file with the disk, puts it in the target's place and synchronises the folder. If
    /// only the last step fails, the file is in its place already.
    Finished Finish();

private:
    template <class Make>
    bool MakeTemporary(Make make);
    bool SynchroniseFolder() const;

    const std::string _target;
    const std::string _folder;
    std::string _path;
    UniqueFd _file;
};

}  // namespace zarip::osa
