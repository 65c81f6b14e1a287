// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <zarip/osa/DateTime.h>
#include <zarip/osa/Export.h>

namespace zarip::osa {

/// Files and folders. *Thread-safe*, and ready for other threads and processes that change the same files
/// meanwhile.
///
/// Symbolic links are followed, except by what names them: `GetKind`, `Move`, `Delete` and `DeleteTree`.
/// Failures throw `IOException` "Couldn't <what> '<path>': errno(<number>): <description>"; a path with a
/// zero byte is "Invalid path". New files and folders get the mode that the process's umask leaves.
class ZARIP_EXPORT FileUtils {
public:
    enum Kind { kFile, kDirectory, kSymbolicLink, kOther };

    struct Times {
        DateTime modified;
        DateTime accessed;
        DateTime changed;  ///< of owner, mode and the like, and of the content
    };

    FileUtils() = delete;

    /// False also for a link that leads nowhere or in circles; throws if it cannot be known.
    static bool Exists(const std::string& path);

    static Kind GetKind(const std::string& path);

    /// The bytes of a file; throws for anything else.
    static unsigned long long GetSize(const std::string& path);

    static Times GetTimes(const std::string& path);

    /// The names in a folder, sorted by their bytes, without "." and "..".
    static std::vector<std::string> List(const std::string& folder);

    /// Makes a folder and those above it that are missing; false if it is there already.
    static bool CreateDirectory(const std::string& path);

    /// Copies content and permissions (the lower nine bits and the access control list) of a file. Until the
    /// copy is whole and on the disk, an older file stays in its place.
    static void Copy(const std::string& from, const std::string& to);

    /// Renames a file, a folder or a link, and replaces a file or link, or an empty folder by a folder. If
    /// both paths are hard links to one file, the first is removed. To another file system it copies a file
    /// with its rights, times and, if permitted, owner, or a link, and deletes it when the copy is on the
    /// disk; a folder cannot be moved there: errno 18 (EXDEV).
    static void Move(const std::string& from, const std::string& to);

    /// Deletes a file, a link or an empty folder; false if nothing has that path.
    static bool Delete(const std::string& path);

    /// Deletes a file, a link, or a folder with everything in it; false if nothing has that path. No link is
    /// followed, not even one that takes a folder's place meanwhile. What is mounted at the path or in the
    /// tree is not entered: errno 18 (EXDEV), and nothing in it is deleted. Stops at the first failure; if
    /// others keep filling the tree, that is errno 39 (ENOTEMPTY) or 16 (EBUSY) in the end. Memory grows with
    /// the depth, descriptors and stack do not. "/", "." and ".." at the end are "Invalid path".
    static bool DeleteTree(const std::string& path);

    /// The content of a file, also of one of /proc or /sys. Anything else is refused, so that nobody waits
    /// for the other end of a named pipe: errno 22 (EINVAL), 21 (EISDIR) for a folder.
    /// @param maxSize  in bytes; a larger file is errno 27 (EFBIG).
    static std::string Read(const std::string& path, unsigned int maxSize = 64U << 20U);

    /// Writes in place, so that after a failure a part is there, and does not wait for the disk. For named
    /// pipes and devices, and for what may be lost. A pipe that nobody reads is errno 6 (ENXIO), one whose
    /// reader goes meanwhile errno 32 (EPIPE), without SIGPIPE; a reader that takes nothing is waited for.
    static void Write(const std::string& path, const std::string& content);

    /// Replaces a file in one step: whatever happens, it has the old content or the new, and from the return
    /// on the new content is on the disk. When it throws because the folder cannot be synchronised (errno 5,
    /// EIO), the new content is in its place, but a power cut may bring the old one back.
    ///
    /// The file keeps its mode and access control list and, if permitted, its owner and group. What its group
    /// may and others may not is not passed on to another group, nor the set-id bits to another owner; if the
    /// list cannot be kept, only the owner keeps rights. A symbolic link stays, and the file that it leads to
    /// is replaced; in a sticky folder that everybody may write, such as /tmp, the link of another user is
    /// refused, errno 13 (EACCES). Other hard links keep the old content. What is not a file, or may not be
    /// written, is refused. A writer that is killed may leave a file ".zarip-<number>-<number>.tmp", which
    /// the next writer in that folder removes.
    static void WriteAtomically(const std::string& path, const std::string& content);

    /// The same for bytes that are not everybody's, such as a key: the file has exactly this mode, whatever
    /// the umask, the mode of an older file and access control lists say, and at no moment more. The file
    /// of another user in a sticky folder that everybody may write is refused, errno 13 (EACCES): the
    /// new one would belong to that user.
    /// @param mode  up to 0777, for a secret 0600; another one is errno 22 (EINVAL)
    static void WriteAtomically(const std::string& path, const void* data, std::size_t size,
                                unsigned int mode);
};

}  // namespace zarip::osa
