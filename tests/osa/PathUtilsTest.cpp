// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "support/ErrorOf.h"
#include "support/TempDir.h"
#include "zarip/osa/PathUtils.h"

namespace zarip::osa {
namespace {

using std::string;

TEST(PathUtilsTest, Parts) {
    const struct {
        string path, parent, name, stem, extension;
        bool isAbsolute;
    } rows[] = {
        {"/a/b.txt", "/a", "b.txt", "b", ".txt", true},
        {"/a//b///", "/a", "b", "b", "", true},
        {"a.tar.gz", ".", "a.tar.gz", "a.tar", ".gz", false},
        {"d.x/a", "d.x", "a", "a", "", false},
        {"/a", "/", "a", "a", "", true},
        {"//a", "/", "a", "a", "", true},
        {"/", "/", "/", "/", "", true},
        {"///", "/", "/", "/", "", true},
        {"", ".", "", "", "", false},
        {".", ".", ".", ".", "", false},
        {"a/..", "a", "..", "..", "", false},
        {".profile", ".", ".profile", ".profile", "", false},
        {"x/.b.c", "x", ".b.c", ".b", ".c", false},
        {"a.", ".", "a.", "a", ".", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("'" + row.path + "'");
        EXPECT_EQ(PathUtils::GetParent(row.path), row.parent);
        EXPECT_EQ(PathUtils::GetName(row.path), row.name);
        EXPECT_EQ(PathUtils::GetStem(row.path), row.stem);
        EXPECT_EQ(PathUtils::GetExtension(row.path), row.extension);
        EXPECT_EQ(PathUtils::IsAbsolute(row.path), row.isAbsolute);
    }
}

TEST(PathUtilsTest, Join) {
    const string rows[][3] = {{"/a", "b", "/a/b"}, {"/a/", "b", "/a/b"},   {"/", "b", "/b"},
                              {"a", "", "a/"},     {"", "b", "b"},         {"", "", ""},
                              {"a", "/b", "/b"},   {"a", "../b", "a/../b"}};
    for (const auto& row : rows) {
        EXPECT_EQ(PathUtils::Join(row[0], row[1]), row[2]) << row[0] << " and " << row[1];
        EXPECT_EQ((std::filesystem::path(row[0]) / row[1]).string(), row[2]);
    }
}

TEST(PathUtilsTest, Normalise) {
    const string rows[][2] = {{"a//b/./../c/", "a/c"},
                              {"/..", "/"},
                              {"/../../a", "/a"},
                              {"//a//", "/a"},
                              {"../a", "../a"},
                              {"a/../..", ".."},
                              {"a/..", "."},
                              {"", "."},
                              {".", "."},
                              {"./", "."},
                              {"/", "/"},
                              {"../../", "../.."},
                              {"a/...", "a/..."},
                              {".../..", "."},
                              {"/a/../../b", "/b"}};
    for (const auto& row : rows) {
        EXPECT_EQ(PathUtils::Normalise(row[0]), row[1]) << row[0];
        EXPECT_EQ(PathUtils::Normalise(row[1]), row[1]) << row[0];
    }
}

TEST(PathUtilsTest, MakeRelative) {
    const string rows[][3] = {{"/a/c", "/a/b", "../c"},
                              {"/a", "/a/", "."},
                              {"/a/b/c", "/a", "b/c"},
                              {"/a", "/a/b/c", "../.."},
                              {"/", "/a", ".."},
                              {"/ab", "/a", "../ab"},
                              {"a/b", "", "a/b"},
                              {"", "a", ".."},
                              {"../a", "../b", "../a"},
                              {"../../a", "b", "../../../a"},
                              {"/x/../a", "/./b/.", "../a"}};
    for (const auto& row : rows) {
        EXPECT_EQ(PathUtils::MakeRelative(row[0], row[1]), row[2]) << row[0] << " from " << row[1];
        EXPECT_EQ(PathUtils::Normalise(PathUtils::Join(row[1], row[2])), PathUtils::Normalise(row[0]));
    }
    // Nobody knows the name of the folder that ".." leaves.
    EXPECT_EQ(test::ErrorOf([] { PathUtils::MakeRelative("a", "../b"); }),
              "No relative path from '../b' to 'a'");
    EXPECT_EQ(test::ErrorOf([] { PathUtils::MakeRelative("/a", "b"); }), "No relative path from 'b' to '/a'");
}

TEST(PathUtilsTest, MakeAbsolute) {
    const test::TempDir folder;
    const string old = std::filesystem::current_path();
    ASSERT_EQ(::mkdir(folder.File("gone").c_str(), 0700), 0);
    ASSERT_EQ(::chdir(folder.File("gone").c_str()), 0);
    EXPECT_EQ(PathUtils::MakeAbsolute("../x"), folder.File("gone/../x"));
    EXPECT_EQ(PathUtils::MakeAbsolute(""), folder.File("gone"));
    EXPECT_EQ(PathUtils::MakeAbsolute("/x/../y"), "/x/../y");
    ASSERT_EQ(::rmdir(folder.File("gone").c_str()), 0);
    EXPECT_EQ(test::ErrorOf([] { PathUtils::MakeAbsolute("x"); }),
              "Couldn't get the current directory: errno(2): No such file or directory");
    EXPECT_EQ(PathUtils::MakeAbsolute("/x"), "/x");
    ASSERT_EQ(::chdir(old.c_str()), 0);
}

}  // namespace
}  // namespace zarip::osa
