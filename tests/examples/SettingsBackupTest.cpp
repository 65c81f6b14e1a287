// SPDX-License-Identifier: MIT

#include "../../examples/common/SettingsArchive.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>

#include "support/ErrorOf.h"
#include "support/TempDir.h"

namespace zarip {
namespace {

namespace fs = std::filesystem;
using settings_archive::Files;
using settings_archive::Open;
using settings_archive::Seal;
using test::ErrorOf;

crypto::SecureBuffer PassPhrase(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size())};
}

// Iterations are few, so that every byte of an archive can be tried.
constexpr std::uint32_t kFew = settings_archive::kMinIterations + 5'000;

TEST(SettingsArchiveTest, OnlyTheWholeArchiveAndTheRightPassPhraseOpenIt) {
    const Files files = {
        {"a.ini", "[users]\nalice = secret\n"}, {"etc/b", ""}, {"etc/c/d", std::string(100, '\0')}};
    const std::string archive = Seal(files, PassPhrase("horse"), kFew);
    EXPECT_EQ(archive.find("alice"), std::string::npos);
    EXPECT_NE(Seal(files, PassPhrase("horse"), kFew), archive) << "another salt each time";
    EXPECT_EQ(Open(archive, PassPhrase("horse")), files);
    EXPECT_EQ(Open(Seal({}, PassPhrase("horse"), kFew), PassPhrase("horse")), Files());
    const std::string refusal = "the pass phrase is wrong or the archive was changed";
    for (const char* const wrong : {"Horse", "horse ", "h"}) {
        EXPECT_EQ(ErrorOf([&] { Open(archive, PassPhrase(wrong)); }), refusal);
    }
    for (std::size_t i = 0; i < archive.size(); ++i) {
        std::string changed = archive;
        changed[i] = static_cast<char>(changed[i] ^ (i % 2 == 0 ? 1 : 0x80));
        EXPECT_EQ(ErrorOf([&] { Open(changed, PassPhrase("horse")); }),
                  i < 8                ? "this is no archive of settings"
                  : i < 12             ? "the archive is of an unknown version"
                  : i == 12 || i == 13 ? "the archive is damaged"  // more iterations than it believes
                                       : refusal)
            << "byte " << i;
    }
    for (const std::size_t size : {std::size_t{0}, std::size_t{79}, archive.size() - 1}) {
        EXPECT_NE(ErrorOf([&] { Open(archive.substr(0, size), PassPhrase("horse")); }), "no exception")
            << size;
    }
    EXPECT_EQ(ErrorOf([&] { Open(archive + '\0', PassPhrase("horse")); }), refusal);
}

TEST(SettingsArchiveTest, ArchivesOfVersion1AreStillRead) {
    std::string archive;
    const std::string digits =
        "5a4152495042414b0000000100002710860203794a0dd664a964a7a60b116c90551781a2e84758a23f3dd0a0e4"
        "b5f029206c8d73ca96a3cb5c9ee292e1d5ef5494db590c942b79b3069cceb98331ccac258ed85669a89cd12940"
        "6b85166e80164b9f77e45d1fe939082877";
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        archive += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    EXPECT_EQ(Open(archive, PassPhrase("horse")), (Files{{"a.ini", "x"}, {"etc/b", ""}}));
    for (const std::size_t i : {std::size_t{16}, std::size_t{40}, std::size_t{60}, archive.size() - 1}) {
        std::string changed = archive;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        EXPECT_EQ(ErrorOf([&] { Open(changed, PassPhrase("horse")); }),
                  "the pass phrase is wrong or the archive was changed");
    }
    EXPECT_NE(ErrorOf([&] { Open(archive.substr(0, 79), PassPhrase("horse")); }), "no exception");
}

TEST(SettingsArchiveTest, NamesThatLeaveTheFolderAreRefused) {
    for (const char* const name :
         {"", "/", "/etc/passwd", "..", "../a", "a/../b", "a/..", "a//b", "a/", "./a", "a/./b"}) {
        EXPECT_FALSE(settings_archive::IsGoodName(name)) << name;
        EXPECT_NE(ErrorOf([&] { Seal({{name, "x"}}, PassPhrase("horse"), kFew); }), "no exception") << name;
    }
    for (const char* const name : {"a", "a/b", "..a/b..", "...", ".hidden"}) {
        EXPECT_TRUE(settings_archive::IsGoodName(name)) << name;
    }
    EXPECT_FALSE(settings_archive::IsGoodName(std::string("a\0b", 3)));
}

/// Runs the program with "horse" as the pass phrase. @param before  of the shell
int RunBackup(const std::string& arguments, const std::string& before = "") {
    const int status = std::system(
        (before + " echo horse | " + SETTINGS_BACKUP + " " + arguments + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(SettingsBackupTest, FilesComeBackAndLinksAreNotFollowed) {
    const test::TempDir folder;
    const std::string archive = folder.File("archive");
    const std::string settings = folder.Write("settings.ini", "[a]\nb = c\n");
    ASSERT_EQ(RunBackup("save " + archive + " " + settings), 0);
    EXPECT_EQ(fs::status(archive).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    ASSERT_EQ(RunBackup("restore " + archive + " " + folder.File("out")), 0);
    EXPECT_EQ(folder.Read("out" + settings), folder.Read("settings.ini"));
    EXPECT_EQ(RunBackup("restore " + archive + " " + folder.File("out")), 0) << "over what is there";

    // Names that the program might have used for itself.
    folder.Write(".backup.new", "mine");
    const std::string temporary = folder.Write(".settings.ini.new", "other settings");
    ASSERT_EQ(RunBackup("save " + folder.File("backup") + " " + settings + " " + temporary), 0);
    EXPECT_EQ(folder.Read(".backup.new"), "mine");
    ASSERT_EQ(RunBackup("restore " + folder.File("backup") + " " + folder.File("both")), 0);
    EXPECT_EQ(folder.Read("both" + settings), folder.Read("settings.ini"));
    EXPECT_EQ(folder.Read("both" + temporary), "other settings");

    // The first folder of the name is a link out of the target.
    const std::string first = settings.substr(1, settings.find('/', 1) - 1);
    fs::create_directory(folder.File("trap"));
    fs::create_directory(folder.File("elsewhere"));
    fs::create_directory_symlink(folder.File("elsewhere"), folder.File("trap/" + first));
    EXPECT_EQ(RunBackup("restore " + archive + " " + folder.File("trap")), 1);
    EXPECT_TRUE(fs::is_empty(folder.File("elsewhere")));
    folder.Write("archive", folder.Read("archive") + "x");
    EXPECT_EQ(RunBackup("restore " + archive + " " + folder.File("none")), 1);
    EXPECT_FALSE(fs::exists(folder.File("none")));
    EXPECT_EQ(RunBackup("save " + archive + " " + folder.File("out/../settings.ini")), 1);
    EXPECT_EQ(RunBackup("save " + archive), 2);
}

TEST(SettingsBackupTest, AnyNumberOfFilesAndNamesWithDotsComeBack) {
    const test::TempDir folder;
    fs::create_directories(folder.File("many/deep"));
    std::string names;
    for (int i = 0; i < 100; ++i) {
        const std::string name = (i % 2 == 0 ? "many/./" : ".//many/deep/./") + std::to_string(i);
        folder.Write(name, std::to_string(i));
        names += " " + name;
    }
    const std::string there = "cd " + folder.Path() + "; ulimit -n 20;";
    ASSERT_EQ(RunBackup("save archive" + names, there), 0);
    ASSERT_EQ(RunBackup("restore archive out", there), 0);
    EXPECT_EQ(folder.Read("out/many/98"), "98");
    EXPECT_EQ(folder.Read("out/many/deep/99"), "99");
    const std::string phrase = folder.Write("phrase", "horse\r\nnot this\n");
    EXPECT_EQ(RunBackup("--pass-phrase " + phrase + " list archive", there), 0);
}

TEST(SettingsBackupTest, FoldersAreOnTheDiskBeforeItSaysSo) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer has to be preloaded first";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    GTEST_SKIP() << "a sanitizer has to be preloaded first";
#endif
#endif
    const test::TempDir folder;
    folder.Write("a", "1");
    const std::string there = "cd " + folder.Path() +
                              "; export LD_PRELOAD=" CALL_LOG_LIBRARY " CALL_LOG=" + folder.File("log") + ";";
    ASSERT_EQ(RunBackup("save archive a " + folder.File("a"), there), 0);
    EXPECT_EQ(folder.Read("log"), "file rename folder ");
    fs::remove(folder.File("log"));
    fs::create_directory(folder.File("out"));
    ASSERT_EQ(RunBackup("restore archive out", there), 0);
    EXPECT_EQ(folder.Read("log").substr(0, 18), "file mkdir folder ");
    EXPECT_EQ(folder.Read("log").substr(folder.Read("log").size() - 28), "rename folder rename folder ");
}

TEST(SettingsBackupTest, AnInterruptAtThePromptLeavesTheTerminalAsItWas) {
    const test::TempDir folder;
    const std::string archive = folder.File("archive");
    const std::string settings = folder.Write("settings.ini", "secret");
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        ::execl(SETTINGS_BACKUP, SETTINGS_BACKUP, "save", archive.c_str(), settings.c_str(), nullptr);
        ::_exit(127);
    }
    ASSERT_GT(pid, 0);
    termios mode{};
    int status = 0;
    do {
        ASSERT_EQ(::waitpid(pid, &status, WNOHANG), 0);
        ASSERT_EQ(::tcgetattr(terminal, &mode), 0);
    } while ((mode.c_lflag & ECHO) != 0);
    ASSERT_EQ(::write(terminal, "\x03", 1), 1);
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
    ASSERT_EQ(::tcgetattr(terminal, &mode), 0);
    EXPECT_NE(mode.c_lflag & ECHO, 0U);
    EXPECT_FALSE(fs::exists(archive));
    ::close(terminal);
}

}  // namespace
}  // namespace zarip
