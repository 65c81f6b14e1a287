// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::osa {

/// Paths as text: but for `MakeAbsolute` nobody looks at what is there. *Thread-safe.*
///
/// `GetParent` and `GetName` are those of dirname(1) and basename(1): slashes at the end do not count, and
/// what `GetParent` returns can always be used as a path. `Join`, `GetExtension` and `GetStem` are those of
/// std::filesystem. Text between slashes is taken as it is: no "~", no "$HOME".
class ZARIP_EXPORT PathUtils {
public:
    PathUtils() = delete;

    static bool IsAbsolute(const std::string& path);

    /// With one slash between them: ("/a", "b") and ("/a/", "b") give "/a/b", ("a", "") gives "a/", ("", "b")
    /// gives "b". An absolute second path stays alone, and ".." in it leads out of the first: a name from
    /// outside is not to be trusted for having been joined.
    static std::string Join(const std::string& folder, const std::string& path);

    /// "/a/b" and "/a/b/" give "/a"; "/a" and "/" give "/"; "a", "." and "" give ".".
    static std::string GetParent(const std::string& path);

    /// "/a/b" and "/a/b/" give "b", "/" gives "/", "" gives "".
    static std::string GetName(const std::string& path);

    /// The end of the name from its last dot on: "a.tar.gz" gives ".gz", "a." gives "."; "", "a", ".profile"
    /// and ".." have none.
    static std::string GetExtension(const std::string& path);

    /// The name without its extension.
    static std::string GetStem(const std::string& path);

    /// Without ".", without what ".." takes back, without double slashes and slashes at the end:
    /// "a//b/./../c/" gives "a/c", "/.." gives "/", "../a" stays, "a/.." and "" give ".". Where the folder
    /// before ".." is a symbolic link, the result leads elsewhere than the path.
    static std::string Normalise(const std::string& path);

    /// How to get from a folder to a path, both normalised before: ("/a/b", "/a/c") gives "../b", the folder
    /// itself gives ".". Throws `Exception` "No relative path from '<folder>' to '<path>'" when one of them
    /// is absolute and the other is not, or when the folder begins with a ".." that the path has not.
    static std::string MakeRelative(const std::string& path, const std::string& folder);

    /// In the current folder, unless it is absolute; not normalised. "" gives the current folder. Throws
    /// `IOException` "Couldn't get the current directory: errno(...)...", for one, when it has been deleted.
    static std::string MakeAbsolute(const std::string& path);
};

}  // namespace zarip::osa
