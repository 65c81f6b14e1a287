// SPDX-License-Identifier: MIT

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "osa/UniqueFd.h"

namespace zarip::osa {

/// Opens without waiting for the other end of a named pipe (ENXIO if one that is to be written has no
/// reader) or for a line that is not connected; reading and writing wait as usual. Invalid with errno.
UniqueFd OpenAtOnce(const char* path, int flags, mode_t mode = 0666);

/// Opens a regular file for reading, without waiting. Invalid with errno: EISDIR for a folder, EINVAL for a
/// pipe or a device.
/// @param flags  additional flags of open()
UniqueFd OpenRegular(const char* path, int flags, struct stat& status);

/// As write(), but without SIGPIPE if the pipe has no reader. It takes one system call since Linux 6.18,
/// three before.
ssize_t WriteQuietly(int fd, const char* data, std::size_t length);

/// Writes all of it, without SIGPIPE; false with errno.
bool WriteAll(int fd, std::string_view text);

/// Synchronises the file with the disk; false with errno. If a special file (a pipe, /dev/stdout) or a folder
/// of some file systems does not support that, it is not a failure.
bool Synchronise(int fd);

/// False, with errno, if the file system reports only now that it could not store everything. The file is
/// closed in any case.
bool Close(UniqueFd file);

}  // namespace zarip::osa
