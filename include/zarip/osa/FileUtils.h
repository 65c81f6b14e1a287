// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <zarip/osa/DateTime.h>
#include <zarip/osa/Export.h>

namespace zarip::osa {

/// Operations on files and folders. *Thread-safe*. Other threads and processes may change the same files
/// meanwhile.
///
/// Symbolic links are followed, except by the functions that name the link itself: `GetKind`, `Move`,
/// `Delete` and `DeleteTree`. Failures throw `IOException` "Couldn't <what> '<path>': errno(<number>):
/// <description>"; a path with a zero byte is "Invalid path". New files and folders get the mode that the
/// process's umask leaves.
class ZARIP_EXPORT FileUtils {
public:
    enum Kind { kFile, kDirectory, kSymbolicLink, kOther };

    struct Times {
        DateTime modified;
        DateTime accessed;
        DateTime changed;  ///< of owner, mode and the like, and of the content
    };

    FileUtils() = delete;

    /// False also for a link that leads nowhere or in circles. Throws if the system does not say.
    static bool Exists(const std::string& path);

    static Kind GetKind(const std::string& path);

    /// The size of a file in bytes. Throws for anything else.
    static unsigned long long GetSize(const std::string& path);

    static Times GetTimes(const std::string& path);

    /// The names in a folder, sorted by their bytes, without "." and "..".
    static std::vector<std::string> List(const std::string& folder);

    /// Makes a folder and the missing folders above it. False if the folder exists already.
    static bool CreateDirectory(const std::string& path);

    /// Copies content and permissions (the lower nine bits and the access control list) of a file. An older
    /// file is replaced in one step, once the copy is complete and on the disk.
    static void Copy(const std::string& from, const std::string& to);

    /// Renames a file, a folder or a link. It replaces a file or a link that is there; a folder may replace
    /// an empty folder. If both paths are hard links to one file, the first is removed. On the way to another
    /// file system a link is copied, and a file with its rights, its times and, if permitted, its owner. The
    /// original is deleted when the copy is on the disk. A folder cannot be moved to another file system:
    /// errno 18 (EXDEV).
    static void Move(const std::string& from, const std::string& to);

    /// Deletes a file, a link or an empty folder. False if there is nothing at that path.
    static bool Delete(const std::string& path);

    /// Deletes a file, a link, or a folder with everything in it. False if there is nothing at that path. No
    /// link is followed, not even one that takes a folder's place meanwhile. A file system that is mounted at
    /// the path or in the tree is not entered: errno 18 (EXDEV), and nothing in it is deleted. The function
    /// stops at the first failure. If other processes keep filling the tree, it gives up with errno 39
    /// (ENOTEMPTY) or 16 (EBUSY). Memory grows with the depth of the tree; the numbers of descriptors and the
    /// stack do not. A path that ends in "/" alone, "." or ".." is "Invalid path".
    static bool DeleteTree(const std::string& path);

    /// The content of a file, also of one in /proc or /sys. Anything else is refused with errno 22 (EINVAL),
    /// or 21 (EISDIR) for a folder, so the function never waits for the other end of a named pipe.
    /// @param maxSize  in bytes; a larger file is errno 27 (EFBIG).
    static std::string Read(const std::string& path, unsigned int maxSize = 64U << 20U);

    /// Writes in place and does not wait for the disk. After a failure the file holds a part of the content.
    /// Suits named pipes, devices, and files that may be lost. A pipe without a reader is errno 6 (ENXIO). If
    /// the reader goes away meanwhile, that is errno 32 (EPIPE), without SIGPIPE. A reader that takes nothing
    /// is waited for.
    static void Write(const std::string& path, const std::string& content);

    /// Replaces a file in one step. Whatever happens, the file has the old content or the new. When the
    /// function returns, the new content is on the disk. If it throws because the folder cannot be
    /// synchronised (errno 5, EIO), the new content is in place, but a power cut may bring the old one back.
    ///
    /// The file keeps its mode and access control list and, if permitted, its owner and group. If the group
    /// cannot be kept, the new group gets no more rights than all other users have; if the owner cannot be
    /// kept, the set-id bits are dropped; if the list cannot be kept, only the owner keeps rights. A symbolic
    /// link stays, and the file that it leads to is replaced. In a sticky folder that everybody may write,
    /// such as /tmp, the link of another user is refused with errno 13 (EACCES). Other hard links keep the
    /// old content. A path that is not a file, or that may not be written, is refused. A writer that is
    /// killed may leave a file ".zarip-<number>-<number>.tmp", which the next writer in that folder removes.
    static void WriteAtomically(const std::string& path, const std::string& content);

    /// The same for secret bytes, such as a key. The file has exactly this mode, whatever the umask, the mode
    /// of an older file and access control lists say, and at no moment more rights. If the file belongs to
    /// another user and is in a sticky folder that everybody may write, it is refused with errno 13 (EACCES),
    /// because the new file would belong to that user.
    /// @param mode  up to 0777, for a secret 0600; another one is errno 22 (EINVAL)
    static void WriteAtomically(const std::string& path, const void* data, std::size_t size,
                                unsigned int mode);
};

}  // namespace zarip::osa
