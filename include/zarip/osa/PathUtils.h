// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/osa/Export.h>

namespace zarip::osa {

/// Functions that take paths apart and combine them, as strings. No function looks at files; only
/// `MakeAbsolute` asks the system, for the current folder. *Thread-safe.*
///
/// `GetParent` and `GetName` work as dirname(1) and basename(1): slashes at the end are ignored, and the
/// result of `GetParent` can always be used as a path. `Join`, `GetExtension` and `GetStem` work as in
/// std::filesystem. Nothing is expanded, neither "~" nor "$HOME".
class ZARIP_EXPORT PathUtils {
public:
    PathUtils() = delete;

    static bool IsAbsolute(const std::string& path);

    /// Joins two paths with one slash between them: ("/a", "b") and ("/a/", "b") give "/a/b", ("a", "") gives
    /// "a/", ("", "b") gives "b". If the second path is absolute, it is returned alone. If it contains "..",
    /// the result may lead out of the folder. So joining does not make a name from outside safe.
    static std::string Join(const std::string& folder, const std::string& path);

    /// Returns the folder that contains the path: "/a/b" and "/a/b/" give "/a"; "/a" and "/" give "/"; "a",
    /// "." and "" give ".".
    static std::string GetParent(const std::string& path);

    /// Returns the last name of the path: "/a/b" and "/a/b/" give "b", "/" gives "/", "" gives "".
    static std::string GetName(const std::string& path);

    /// Returns the end of the name from its last dot on: "a.tar.gz" gives ".gz", "a." gives ".". "", "a",
    /// ".profile" and ".." have no extension and give "".
    static std::string GetExtension(const std::string& path);

    /// Returns the name without its extension.
    static std::string GetStem(const std::string& path);

    /// Removes ".", each name with the ".." that follows it, double slashes and slashes at the end:
    /// "a//b/./../c/" gives "a/c", "/.." gives "/", "../a" stays, "a/.." and "" give ".". If the folder
    /// before ".." is a symbolic link, the result leads elsewhere than the path.
    static std::string Normalise(const std::string& path);

    /// Returns the relative path that leads from a folder to a path. Both are normalised before: ("/a/b",
    /// "/a/c") gives "../b", the folder itself gives ".". Throws `Exception` "No relative path from
    /// '<folder>' to '<path>'" if only one of them is absolute, or if the folder begins with a ".." that the
    /// path does not have.
    static std::string MakeRelative(const std::string& path, const std::string& folder);

    /// Joins the current folder and the path, or returns the path itself if it is absolute. The result is not
    /// normalised. "" gives the current folder. Throws `IOException` "Couldn't get the current directory:
    /// errno(...)...", for example if the folder has been deleted.
    static std::string MakeAbsolute(const std::string& path);
};

}  // namespace zarip::osa
