// SPDX-License-Identifier: MIT

#include "zarip/osa/PathUtils.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

#include "osa/Errors.h"

namespace zarip::osa {

namespace {

std::string_view WithoutEndSlashes(std::string_view path) {
    const std::size_t last = path.find_last_not_of('/');
    return last != std::string_view::npos ? path.substr(0, last + 1) : path.substr(0, path.empty() ? 0 : 1);
}

/// The steps of the normalised path; ".." is only at the beginning, and never in an absolute path.
std::vector<std::string_view> Split(std::string_view path) {
    const bool isAbsolute = !path.empty() && path[0] == '/';
    std::vector<std::string_view> steps;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        const std::string_view step = path.substr(0, end);
        path.remove_prefix(std::min(end + 1, path.size()));
        if (step == "..") {
            if (!steps.empty() && steps.back() != "..") {
                steps.pop_back();
            } else if (!isAbsolute) {
                steps.push_back(step);
            }
        } else if (!step.empty() && step != ".") {
            steps.push_back(step);
        }
    }
    return steps;
}

std::string Assemble(bool isAbsolute, const std::vector<std::string_view>& steps) {
    std::string path = isAbsolute ? "/" : "";
    for (const std::string_view step : steps) {
        if (!path.empty() && path.back() != '/') {
            path += '/';
        }
        path += step;
    }
    return path.empty() ? "." : path;
}

std::size_t FindExtension(const std::string& name) {
    const std::size_t dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 || name == ".." ? name.size() : dot;
}

}  // namespace

bool PathUtils::IsAbsolute(const std::string& path) {
    return !path.empty() && path[0] == '/';
}

std::string PathUtils::Join(const std::string& folder, const std::string& path) {
    if (folder.empty() || IsAbsolute(path)) {
        return path;
    }
    return folder + (folder.back() == '/' ? "" : "/") + path;
}

std::string PathUtils::GetParent(const std::string& path) {
    const std::string_view whole = WithoutEndSlashes(path);
    const std::size_t slash = whole.rfind('/');
    return slash == std::string_view::npos ? "." : std::string(WithoutEndSlashes(whole.substr(0, slash + 1)));
}

std::string PathUtils::GetName(const std::string& path) {
    const std::string_view whole = WithoutEndSlashes(path);
    return std::string(whole == "/" ? whole : whole.substr(whole.rfind('/') + 1));
}

std::string PathUtils::GetExtension(const std::string& path) {
    const std::string name = GetName(path);
    return name.substr(FindExtension(name));
}

std::string PathUtils::GetStem(const std::string& path) {
    const std::string name = GetName(path);
    return name.substr(0, FindExtension(name));
}

std::string PathUtils::Normalise(const std::string& path) {
    return Assemble(IsAbsolute(path), Split(path));
}

std::string PathUtils::MakeRelative(const std::string& path, const std::string& folder) {
    const std::vector<std::string_view> to = Split(path);
    const std::vector<std::string_view> from = Split(folder);
    const auto [fork, rest] = std::mismatch(from.begin(), from.end(), to.begin(), to.end());
    if (IsAbsolute(path) != IsAbsolute(folder) || (fork != from.end() && *fork == "..")) {
        throw Exception("No relative path from '" + folder + "' to '" + path + "'");
    }
    std::vector<std::string_view> steps(static_cast<std::size_t>(from.end() - fork), "..");
    steps.insert(steps.end(), rest, to.end());
    return Assemble(false, steps);
}

std::string PathUtils::MakeAbsolute(const std::string& path) {
    if (IsAbsolute(path)) {
        return path;
    }
    const std::unique_ptr<char, decltype(&std::free)> current(::getcwd(nullptr, 0), &std::free);
    if (!current) {
        ThrowIOErrno("Couldn't get the current directory");
    }
    return path.empty() ? current.get() : Join(current.get(), path);
}

}  // namespace zarip::osa
