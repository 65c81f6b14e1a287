// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <zarip/osa/DateTime.h>
#include <zarip/osa/Export.h>

namespace zarip::osa {

/// Operations on files and folders. *Thread-safe*. Other threads and processes may change the same files at
/// the same time.
///
/// Symbolic links are followed, except by the functions that name the link itself: `GetKind`, `Move`,
/// `Delete` and `DeleteTree`. Failures throw `IOException` "Couldn't <what> '<path>': errno(<number>):
/// <description>"; a path with a zero byte is "Invalid path". The umask of the process limits the mode of new
/// files and folders.
class ZARIP_EXPORT FileUtils {
public:
    enum Kind { kFile, kDirectory, kSymbolicLink, kOther };

    struct Times {
        DateTime modified;
        DateTime accessed;
        DateTime changed;  ///< of the content, the owner, the mode and other attributes
    };

    FileUtils() = delete;

    /// Returns whether the path exists. Returns false for a link that leads nowhere or in circles. Throws if
    /// the system cannot tell.
    static bool Exists(const std::string& path);

    static Kind GetKind(const std::string& path);

    /// Returns the size of a file in bytes. Throws for anything else.
    static unsigned long long GetSize(const std::string& path);

    static Times GetTimes(const std::string& path);

    /// Returns the names in a folder, sorted by their bytes, without "." and "..".
    static std::vector<std::string> List(const std::string& folder);

    /// Makes a folder and the missing folders above it. Returns false if the folder exists already.
    static bool CreateDirectory(const std::string& path);

    /// Copies content and permissions (the lower nine bits and the access control list) of a file. If the
    /// target exists, it is replaced in one step, once the copy is complete and on the disk.
    static void Copy(const std::string& from, const std::string& to);

    /// Renames a file, a folder or a link. It replaces a file or a link at the new path; a folder may replace
    /// an empty folder. If both paths are hard links to one file, the first is removed. To another file
    /// system, a link or a file is copied, a file with its rights, its times and, if permitted, its owner.
    /// The original is deleted when the copy is on the disk. Moving a folder to another file system fails
    /// with errno 18 (EXDEV).
    static void Move(const std::string& from, const std::string& to);

    /// Deletes a file, a link or an empty folder. Returns false if the path does not exist.
    static bool Delete(const std::string& path);

    /// Deletes a file, a link, or a folder with everything in it. Returns false if the path does not exist.
    /// No link is followed, not even one that replaces a folder while the function runs. If a file system is
    /// mounted at the path or in the tree, the function fails with errno 18 (EXDEV) and deletes nothing in
    /// that file system. It stops at the first failure. If other processes keep filling the tree, it gives up
    /// with errno 39 (ENOTEMPTY) or 16 (EBUSY). Memory grows with the depth of the tree; the number of
    /// descriptors and the stack do not. The root folder, and a path that ends in "." or "..", is an "Invalid
    /// path".
    static bool DeleteTree(const std::string& path);

    /// Returns the content of a file, also of one in /proc or /sys. Anything else is refused with errno 22
    /// (EINVAL), or 21 (EISDIR) for a folder, so the function never waits for the other end of a named pipe.
    /// @param maxSize  in bytes; a larger file fails with errno 27 (EFBIG).
    static std::string Read(const std::string& path, unsigned int maxSize = 64U << 20U);

    /// Writes to a file in place and does not wait for the disk. After a failure the file contains a part of
    /// the content. Use it for named pipes, devices, and files that may be lost. If a pipe has no reader, the
    /// function fails with errno 6 (ENXIO). If the reader closes the pipe during the write, it fails with
    /// errno 32 (EPIPE), without SIGPIPE. While the reader takes nothing, the function waits.
    static void Write(const std::string& path, const std::string& content);

    /// Replaces a file in one step. Whatever happens, the file has the complete old or the complete new
    /// content. When the function returns, the new content is on the disk. If it throws because the folder
    /// cannot be synchronised (errno 5, EIO), the new content is in place, but a power cut may bring the old
    /// one back.
    ///
    /// The file keeps its mode and access control list and, if permitted, its owner and group. If the group
    /// cannot be kept, the new group gets no more rights than all other users have. If the owner cannot be
    /// kept, the set-id bits are dropped. If the list cannot be kept, only the owner keeps rights. A symbolic
    /// link stays, and the file that it leads to is replaced. In a sticky folder that everybody may write,
    /// such as /tmp, a link of another user is refused with errno 13 (EACCES). Other hard links of the file
    /// keep the old content. A path that is not a file, or that may not be written, is refused. If a writer
    /// is killed, it may leave a file ".zarip-<number>-<number>.tmp", which the next writer in that folder
    /// removes.
    static void WriteAtomically(const std::string& path, const std::string& content);

    /// Does the same for secret bytes, such as a key. The file gets exactly this mode, whatever the umask,
    /// the mode of an older file and access control lists say, and has no more rights at any moment. If the
    /// existing file belongs to another user and is in a sticky folder that everybody may write, it is
    /// refused with errno 13 (EACCES), because the new file would belong to that user.
    /// @param mode  up to 0777; use 0600 for a secret. Another mode fails with errno 22 (EINVAL).
    static void WriteAtomically(const std::string& path, const void* data, std::size_t size,
                                unsigned int mode);
};

}  // namespace zarip::osa
