// SPDX-License-Identifier: MIT

#pragma once

#include <sys/stat.h>

#include <string>

#include "osa/UniqueFd.h"

namespace zarip::osa {

/// The path that a chain of symbolic links leads to, whether something is there or not. The result is itself
/// a link if the chain leads in circles, or if it comes to a link that is not trusted (`IsTrusted`); the
/// caller must not follow that one, so it looks at the result with `lstat` and O_NOFOLLOW.
std::string FollowLinks(const std::string& path);

/// Whether what is in a folder may be taken for what its owner says. In a sticky folder that everybody may
/// write, such as /tmp, anybody may have planted it, so that only what belongs to this process's user or to
/// the owner of the folder is trusted. The system has the same rule, but only for paths that it resolves, and
/// only if the administrator has switched it on (fs.protected_symlinks).
bool IsTrusted(const struct stat& folder, const struct stat& entry);

/// The same for the file at a path, whose links were followed before; false with errno.
bool IsTrusted(const std::string& path, const struct stat& entry);

/// The access control list of a file, in the system's own form. It gives named users and groups rights that
/// the mode does not show; the group bits of the mode then are a limit to all of them, and not the rights of
/// the file's group.
class AccessList {
public:
    /// That of no list.
    AccessList() = default;

    static AccessList Of(int file);
    static AccessList Of(const std::string& path);  // a link is not followed

    bool IsEmpty() const { return _list.empty(); }

    /// Gives the file's group no more than everybody has.
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

    /// Takes over mode, access control list, owner and group, as far as this gives nobody more rights. To be
    /// called after writing, by which a file loses the set-id bits. The list is that of the target.
    bool TakeOver(const struct stat& old) { return TakeOver(old, AccessList::Of(_target)); }
    bool TakeOver(const struct stat& old, AccessList list);

    /// The file to write to; -1 for a link.
    int GetFd() const { return _file.Get(); }

    enum class Finished {
        kDone,
        kNotReplaced,  ///< the target cannot be replaced: another file system is mounted on it, for example
        kFailed,
    };

    /// Has the disk keep the content, puts the file in the target's place and has the disk keep that, too. If
    /// only the last step fails, the file is in its place already. To be called once, as the last function.
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
