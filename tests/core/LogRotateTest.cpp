// SPDX-License-Identifier: MIT

#include "core/LogRotate.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>
#include <string>
#include <vector>

#include "osa/UniqueFd.h"
#include "support/FileSizeLimit.h"
#include "support/InThreads.h"
#include "support/TempDir.h"

namespace zarip::core {
namespace {

using test::TempDir;

class LogRotateTest : public testing::Test {
protected:
    void Edit(const std::string& logFile, const std::string& owner) {
        EditLogRotateConf(logFile, owner, _folder.File("conf"), _folder.File("temp"));
    }

    std::string EditOf(const std::string& before, const std::string& logFile, const std::string& owner) {
        _folder.Write("conf", before);
        Edit(logFile, owner);
        EXPECT_FALSE(std::filesystem::exists(_folder.File("temp")));
        return _folder.Read("conf");
    }

    TempDir _folder;
};

TEST_F(LogRotateTest, EntryIsAddedOnceAndThenReplaced) {
    const std::string marker = "#created by zarip::core::Logger for streamer\n";
    const std::string added = EditOf("weekly\n", "/var/log/a.log", "streamer");
    EXPECT_EQ(added, "weekly\n" + marker + "/var/log/a.log { }\n");
    EXPECT_EQ(EditOf(added + "rotate 4\n" + marker + "second { }\n", "/var/log/b.log", "streamer"),
              "weekly\n" + marker + "/var/log/b.log { }\nrotate 4\n" + marker + "second { }\n");
    EXPECT_EQ(EditOf("", "/a", "streamer"), marker + "/a { }\n");
}

TEST_F(LogRotateTest, LinesAreReadInPieces) {
    const std::string longLine(250, 'l');
    // The owner's name without '#' in the same piece of a line is no marker; a last line without line feed
    // goes.
    EXPECT_EQ(
        EditOf("streamer\n# camera\n" + longLine + "\n# x streamer\nold\nnext\nlast", "/new", "streamer"),
        "streamer\n# camera\n" + longLine + "\n# x streamer\n/new { }\nnext\n");
    EXPECT_EQ(EditOf("#streamer\n" + longLine + "\nnext\n", "/new", "streamer"),
              "#streamer\n/new { }\n" + longLine.substr(99) + "\nnext\n");
    EXPECT_EQ(EditOf("#streamer\n", "/new", "streamer"), "#streamer\n/new { }\n");
    // Appending leaves all of the file as it was.
    EXPECT_EQ(EditOf(longLine + "\nlast", "/new", "o"),
              longLine + "\nlast#created by zarip::core::Logger for o\n/new { }\n");
    // Entry and marker are cut at 99 characters.
    EXPECT_EQ(EditOf("", "/" + longLine, "o"),
              "#created by zarip::core::Logger for o\n/" + longLine.substr(0, 98));
}

TEST_F(LogRotateTest, MissingFileIsNotMade) {
    Edit("/new", "streamer");
    EXPECT_FALSE(std::filesystem::exists(_folder.File("conf")));
}

TEST_F(LogRotateTest, FailedWriteKeepsTheConfiguration) {
    for (const std::string before : {"weekly\n#streamer\nold { }\n", "weekly\n"}) {
        _folder.Write("conf", before);
        {
            const test::FileSizeLimit limit(before.size() + 2);
            Edit("/var/log/new.log", "streamer");
        }
        EXPECT_EQ(_folder.Read("conf"), before);
        EXPECT_FALSE(std::filesystem::exists(_folder.File("temp")));
    }
}

TEST_F(LogRotateTest, SomebodyWhoKeepsTheFileLockedDoesNotHoldUpTheEdit) {
    const osa::UniqueFd reader(::open(_folder.Write("conf", "").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(reader.Get(), LOCK_EX), 0);
    Edit("/new", "o");
    EXPECT_EQ(_folder.Read("conf"), "#created by zarip::core::Logger for o\n/new { }\n");
}

TEST_F(LogRotateTest, EditsTakeTurns) {
    _folder.Write("conf", "weekly\n#owner0\nold { }\n#owner1\nold { }\n#owner2\nold { }\n");
    test::InThreads(3, [&](int i) { Edit("/log" + std::to_string(i), "owner" + std::to_string(i)); });
    EXPECT_EQ(_folder.Read("conf"), "weekly\n#owner0\n/log0 { }\n#owner1\n/log1 { }\n#owner2\n/log2 { }\n");
}

}  // namespace
}  // namespace zarip::core
