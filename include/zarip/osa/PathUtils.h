// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::osa {

/// Functions on paths as strings. Only `MakeAbsolute` asks the system; no function looks at files.
/// *Thread-safe.*
///
/// `GetParent` and `GetName` are those of dirname(1) and basename(1): slashes at the end are ignored, and the
/// result of `GetParent` can always be used as a path. `Join`, `GetExtension` and `GetStem` are those of
/// std::filesystem. A name between slashes has no special meaning: "~" and "$HOME" are not expanded.
class ZARIP_EXPORT PathUtils {
public:
    PathUtils() = delete;

    static bool IsAbsolute(const std::string& path);

    /// With one slash between them: ("/a", "b") and ("/a/", "b") give "/a/b", ("a", "") gives "a/", ("", "b")
    /// gives "b". An absolute second path is returned alone, and ".." in it leads out of the first. So
    /// joining does not make a name from outside safe.
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

    /// Removes ".", each name with the ".." that follows it, double slashes and slashes at the end:
    /// "a//b/./../c/" gives "a/c", "/.." gives "/", "../a" stays, "a/.." and "" give ".". If the folder
    /// before ".." is a symbolic link, the result leads elsewhere than the path.
    static std::string Normalise(const std::string& path);

    /// The relative path that leads from a folder to a path. Both are normalised before: ("/a/b", "/a/c")
    /// gives "../b", the folder itself gives ".". Throws `Exception` "No relative path from '<folder>' to
    /// '<path>'" if only one of them is absolute, or if the folder begins with a ".." that the path does not
    /// have.
    static std::string MakeRelative(const std::string& path, const std::string& folder);

    /// The path in the current folder, or the path itself if it is absolute. The result is not normalised. ""
    /// gives the current folder. Throws `IOException` "Couldn't get the current directory: errno(...)...",
    /// for example if the folder has been deleted.
    static std::string MakeAbsolute(const std::string& path);
};

}  // namespace zarip::osa
