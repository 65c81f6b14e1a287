#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "osa/UniqueFd.h"

namespace zarip::osa {

/// Opens without waiting for the other end of a named pipe (ENXIO where one that is to be written has no
/// reader) or for a line that is not connected; reading and writing wait as usual. Invalid with errno.
UniqueFd OpenAtOnce(const char* path, int flags, mode_t mode = 0666);

/// write() without the SIGPIPE that comes when nobody reads.
ssize_t WriteQuietly(int fd, const char* data, std::size_t length);

/// Writes all of it, without SIGPIPE; false with errno.
bool WriteAll(int fd, std::string_view text);

/// Has the disk keep what was written; false with errno. A special file (a pipe, /dev/stdout) knows no
/// synchronisation, nor do the folders of some file systems, which is no failure.
bool Synchronise(int fd);

/// False, with errno, when the file system only now tells that it could not store everything. Closed it is in
/// any case.
bool Close(UniqueFd file);

}  // namespace zarip::osa
