// SPDX-License-Identifier: MIT

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "osa/FailingCalls.h"
#include "support/ErrorOf.h"
#include "support/FileSizeLimit.h"
#include "support/OwnMounts.h"
#include "support/SmallStack.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"
#include "zarip/core/IniFile.h"
#include "zarip/osa/FileUtils.h"

namespace zarip::osa {
namespace {

namespace fs = std::filesystem;
using std::string;
using test::ErrorOf;
using test::TempDir;
using Names = std::vector<string>;

mode_t ModeOf(const string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

string Failed(const string& what, const string& path, const string& why) {
    return "Couldn't " + what + " '" + path + "': errno(" + why;
}
const string kNotThere = "2): No such file or directory";
const string kIsFolder = "21): Is a directory";
const string kBroken = "5): Input/output error";
const string kDenied = "13): Permission denied";
const string kCircle = "40): Too many levels of symbolic links";
const string kInvalid = "22): Invalid argument";

TEST(FileUtilsTest, TellsWhatIsThere) {
    const TempDir folder;
    folder.Write("file", "12345");
    fs::create_symlink("file", folder.File("link"));
    fs::create_symlink("nothing", folder.File("dangling"));
    fs::create_symlink("circle", folder.File("circle"));
    ASSERT_EQ(::mkfifo(folder.File("fifo").c_str(), 0600), 0);
    fs::create_directory(folder.File("folder"));
    const struct {
        const char* name;
        bool exists;
        FileUtils::Kind kind;
        string size;  // or the error
    } rows[] = {
        {"file", true, FileUtils::kFile, "5"},
        {"link", true, FileUtils::kSymbolicLink, "5"},
        {"dangling", false, FileUtils::kSymbolicLink, kNotThere},
        {"circle", false, FileUtils::kSymbolicLink, kCircle},
        {"fifo", true, FileUtils::kOther, kInvalid},
        {"folder", true, FileUtils::kDirectory, kIsFolder},
    };
    for (const auto& row : rows) {
        const string path = folder.File(row.name);
        EXPECT_EQ(FileUtils::Exists(path), row.exists) << path;
        EXPECT_EQ(FileUtils::GetKind(path), row.kind) << path;
        string size;
        const string error = ErrorOf([&] { size = std::to_string(FileUtils::GetSize(path)); });
        EXPECT_EQ(size.empty() ? error : size,
                  row.size.size() == 1 ? row.size : Failed("tell the size of", path, row.size));
    }
    EXPECT_FALSE(FileUtils::Exists(folder.File("file/below")));
    EXPECT_FALSE(FileUtils::Exists(folder.File("circle/below")));
    EXPECT_EQ(ErrorOf([&] { FileUtils::GetKind("/no/file"); }), Failed("look at", "/no/file", kNotThere));
    EXPECT_EQ(FileUtils::List(folder.Path()),
              (Names{"circle", "dangling", "fifo", "file", "folder", "link"}));
    EXPECT_EQ(ErrorOf([&] { FileUtils::List("/no"); }), Failed("list", "/no", kNotThere));

    const timespec times[] = {{1, 2'000}, {1'000'000'000, 123'456'000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, folder.File("file").c_str(), times, 0), 0);
    const FileUtils::Times found = FileUtils::GetTimes(folder.File("link"));
    EXPECT_EQ(found.modified.ToString(), "2001-09-09T01:46:40.123456Z");
    EXPECT_EQ(found.accessed.ToString(), "1970-01-01T00:00:01.000002Z");
    EXPECT_GT(found.changed, found.modified);
    EXPECT_EQ(ErrorOf([] { FileUtils::GetTimes("/no"); }), Failed("tell the times of", "/no", kNotThere));
}

// The system would use the part before it.
TEST(FileUtilsTest, RefusesPathsWithAZeroByte) {
    const TempDir folder;
    const string file = folder.Write("file", "x");
    const string bad = file + string(1, '\0') + ".bak";
    const std::function<void()> actions[] = {[&] { FileUtils::Exists(bad); },
                                             [&] { FileUtils::GetKind(bad); },
                                             [&] { FileUtils::GetSize(bad); },
                                             [&] { FileUtils::GetTimes(bad); },
                                             [&] { FileUtils::List(bad); },
                                             [&] { FileUtils::CreateDirectory(bad); },
                                             [&] { FileUtils::Copy(bad, "x"); },
                                             [&] { FileUtils::Copy(file, bad); },
                                             [&] { FileUtils::Move(bad, "x"); },
                                             [&] { FileUtils::Move(file, bad); },
                                             [&] { FileUtils::Delete(bad); },
                                             [&] { FileUtils::DeleteTree(bad); },
                                             [&] { FileUtils::Read(bad); },
                                             [&] { FileUtils::Write(bad, ""); },
                                             [&] { FileUtils::WriteAtomically(bad, ""); }};
    for (const auto& action : actions) {
        EXPECT_EQ(ErrorOf(action), "Invalid path");
    }
    EXPECT_EQ(folder.Read("file"), "x");
}

TEST(FileUtilsTest, CreatesDirectories) {
    const TempDir folder;
    folder.Write("file", "");
    fs::create_symlink("deep", folder.File("link"));
    EXPECT_TRUE(FileUtils::CreateDirectory(folder.File("deep/er//and/deeper///")));
    EXPECT_FALSE(FileUtils::CreateDirectory(folder.File("deep/er/and/deeper/")));
    EXPECT_TRUE(FileUtils::CreateDirectory(folder.File("link/../deep/x")));
    EXPECT_FALSE(FileUtils::CreateDirectory("/"));
    EXPECT_EQ(FileUtils::List(folder.File("deep")), (Names{"er", "x"}));
    for (const auto& [name, why] :
         {std::pair("file", "17): File exists"), {"file/x", "20): Not a directory"}}) {
        EXPECT_EQ(ErrorOf([&, path = folder.File(name)] { FileUtils::CreateDirectory(path); }),
                  Failed("create directory", folder.File(name), why));
    }
    EXPECT_EQ(ErrorOf([] { FileUtils::CreateDirectory(""); }), Failed("create directory", "", kNotThere));
}

TEST(FileUtilsTest, ReadsAndWrites) {
    const TempDir folder;
    const string path = folder.File("file");
    for (const string& content : {string(100'000, 'x') + '\0' + "\xFF\n", string()}) {
        FileUtils::Write(path, content);
        EXPECT_EQ(folder.Read("file"), content);
        EXPECT_EQ(FileUtils::Read(path), content);
    }
    EXPECT_NE(FileUtils::Read("/proc/self/status").find("Threads:"),
              string::npos);  // whose size is said to be 0
    EXPECT_EQ(ErrorOf([&] { FileUtils::Read(folder.Path()); }), Failed("read", folder.Path(), kIsFolder));
    EXPECT_EQ(ErrorOf([&] { FileUtils::Read("/no"); }), Failed("read", "/no", kNotThere));
    EXPECT_EQ(ErrorOf([&] { FileUtils::Write("/no/file", ""); }), Failed("write", "/no/file", kNotThere));
    EXPECT_EQ(ErrorOf([&] { FileUtils::Write("/dev/full", "x"); }),
              Failed("write", "/dev/full", "28): No space left on device"));
    const FailingCall quota("close", -1, [] { errno = EDQUOT; });
    EXPECT_EQ(ErrorOf([&] { FileUtils::Write(path, "x"); }),
              Failed("write", path, "122): Disk quota exceeded"));
}

// Nor until the memory is full.
TEST(FileUtilsTest, NeitherReadsNorWritesForEver) {
    const TempDir folder;
    const string fifo = folder.File("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const string& path : {fifo, string("/dev/zero")}) {
        EXPECT_EQ(ErrorOf([&] { FileUtils::Read(path); }), Failed("read", path, kInvalid));
    }
    const string file = folder.Write("file", "12345");
    EXPECT_EQ(FileUtils::Read(file, 5), "12345");
    for (const string& path : {file, string("/proc/self/status")}) {
        EXPECT_EQ(ErrorOf([&] { FileUtils::Read(path, 4); }), Failed("read", path, "27): File too large"));
    }
    const string online = "/sys/devices/system/cpu/online";  // says that it has 4096 bytes
    string line;
    EXPECT_TRUE(std::getline(std::ifstream(online), line));
    EXPECT_EQ(FileUtils::Read(online, 200), line + "\n");

    EXPECT_EQ(ErrorOf([&] { FileUtils::Write(fifo, "x"); }),
              Failed("write", fifo, "6): No such device or address"));
    // A reader that goes does not end the process.
    const auto handler = ::signal(SIGPIPE, SIG_DFL);
    pollfd reader = {::open(fifo.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK), POLLIN, 0};
    std::thread writer([&] {
        EXPECT_EQ(ErrorOf([&] { FileUtils::Write(fifo, string(1U << 20U, 'x')); }),
                  Failed("write", fifo, "32): Broken pipe"));
    });
    EXPECT_EQ(::poll(&reader, 1, -1), 1);
    ::close(reader.fd);
    writer.join();
    ::signal(SIGPIPE, handler);
}

TEST(FileUtilsTest, Copies) {
    const TempDir folder;
    const string content(200'000, 'x');
    const string source = folder.Write("source", content);
    fs::permissions(source, fs::perms(04750));
    folder.Write("old", "old");
    fs::create_symlink("old", folder.File("link"));
    for (const char* name : {"new", "link", "source"}) {
        FileUtils::Copy(source, folder.File(name));
        EXPECT_EQ(folder.Read(name), content) << name;
        EXPECT_EQ(ModeOf(folder.File(name)), 0750U) << name;
    }
    EXPECT_TRUE(fs::is_symlink(folder.File("link")));

    fs::create_directory(folder.File("folder"));
    ASSERT_EQ(::mkfifo(folder.File("fifo").c_str(), 0600), 0);
    const struct {
        const char* from;
        const char* to;
        string error;
    } rows[] = {
        {"none", "new", Failed("read", folder.File("none"), kNotThere)},
        {"folder", "new", Failed("read", folder.File("folder"), kIsFolder)},
        {"fifo", "new",
         Failed("read", folder.File("fifo"), kInvalid)},  // and it does not wait for its other end
        {"old", "folder", Failed("write", folder.File("folder"), kIsFolder)},
        {"old", "fifo", Failed("write", folder.File("fifo"), kInvalid)},
        {"old", "no/file", Failed("write", folder.File("no/file"), kNotThere)},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ErrorOf([&] { FileUtils::Copy(folder.File(row.from), folder.File(row.to)); }), row.error);
    }
    folder.Write("old", "old");
    for (const char* name : {"old", "fresh"}) {
        const test::FileSizeLimit fullDisk(100'000);
        EXPECT_EQ(ErrorOf([&] { FileUtils::Copy(source, folder.File(name)); }),
                  Failed("write", folder.File(name), "27): File too large"));
    }
    EXPECT_EQ(folder.Read("old"), "old");
    EXPECT_EQ(FileUtils::List(folder.Path()), (Names{"fifo", "folder", "link", "new", "old", "source"}));
}

TEST(FileUtilsTest, MovesAlsoToOtherFileSystems) {
    const TempDir folder;
    string other = "/dev/shm/zarip-test-XXXXXX";
    struct stat here {};
    struct stat there {};
    const bool hasOther = ::mkdtemp(other.data()) != nullptr && ::stat(other.c_str(), &there) == 0 &&
                          ::stat(folder.Path().c_str(), &here) == 0 && here.st_dev != there.st_dev;
    for (const string& target : {folder.Path(), other}) {
        if (target == other && !hasOther) {
            continue;
        }
        const string file = folder.Write("file", "content");
        const timespec times[] = {{1'000, 0}, {2'000, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
        fs::permissions(file, fs::perms(0640));
        FileUtils::Write(target + "/moved", "old");
        fs::create_symlink(target + "/moved", folder.File("source"));
        FileUtils::Move(folder.File("source"), target + "/link");  // the link, not what it leads to
        EXPECT_EQ(fs::read_symlink(target + "/link"), target + "/moved");
        FileUtils::Move(file, target + "/moved");
        EXPECT_EQ(FileUtils::Read(target + "/moved"), "content");
        EXPECT_EQ(ModeOf(target + "/moved"), 0640U);
        EXPECT_EQ(FileUtils::GetTimes(target + "/moved").modified.ToString(), "1970-01-01T00:33:20Z");
        fs::create_directory(folder.File("folder"));
        EXPECT_EQ(ErrorOf([&] { FileUtils::Move(folder.File("folder"), target + "/renamed"); }),
                  target == other ? Failed("move", folder.File("folder"), "18): Invalid cross-device link")
                                  : "no exception");
        EXPECT_FALSE(fs::exists(file));
    }
    EXPECT_EQ(ErrorOf([&] { FileUtils::Move(folder.File("none"), "/x"); }),
              Failed("move", folder.File("none"), kNotThere));
    if (!hasOther) {
        GTEST_SKIP() << "no second file system";
    }
    const string file = folder.Write("file", string(1'000, 'x'));
    {
        const test::FileSizeLimit fullDisk(100);
        EXPECT_EQ(ErrorOf([&] { FileUtils::Move(file, other + "/moved"); }),
                  Failed("write", other + "/moved", "27): File too large"));
    }
    {
        const FailingCall broken("fsync", -1, [] { errno = EIO; });
        EXPECT_EQ(ErrorOf([&] { FileUtils::Move(file, other + "/moved"); }),
                  Failed("write", other + "/moved", kBroken));
    }
    EXPECT_EQ(folder.Read("file").size(), 1'000U);
    EXPECT_EQ(FileUtils::List(other), (Names{"link", "moved"}));
    FileUtils::DeleteTree(other);
}

TEST(FileUtilsTest, MovesLinksToOneFile) {
    const TempDir folder;
    const string file = folder.Write("file", "content");
    FileUtils::Move(file, folder.File("./file"));
    fs::create_hard_link(file, folder.File("other"));
    FileUtils::Move(file, folder.File("./file"));  // one name, though of a file with two
    EXPECT_EQ(FileUtils::List(folder.Path()), (Names{"file", "other"}));
    FileUtils::Move(file, folder.File("other"));
    EXPECT_EQ(FileUtils::List(folder.Path()), Names{"other"});
    EXPECT_EQ(folder.Read("other"), "content");
}

// A file system, and a folder of the same one.
TEST(FileUtilsTest, DeletesNothingThatIsMountedInATree) {
    const TempDir folder;
    const bool isPermitted = test::WithOwnMounts([&] {
        for (const bool isFolder : {false, true}) {
            for (const string& mounted : {folder.File("tree/sub/mounted"), folder.File("tree")}) {
                fs::create_directories(mounted);
                fs::create_directory(folder.File("outside"));
                ASSERT_EQ(::mount(folder.File("outside").c_str(), mounted.c_str(), "tmpfs",
                                  isFolder ? static_cast<unsigned long>(MS_BIND) : 0, nullptr),
                          0);
                FileUtils::Write(mounted + "/file", "stays");
                const string error = ErrorOf([&] { FileUtils::DeleteTree(folder.File("tree")); });
                const string inTree = mounted == folder.File("tree") ? "" : "mounted' in tree '";
                EXPECT_EQ(error,
                          Failed("delete", inTree + folder.File("tree"), "18): Invalid cross-device link"));
                EXPECT_EQ(FileUtils::Read(mounted + "/file"), "stays");
                ::umount(mounted.c_str());
                EXPECT_TRUE(FileUtils::DeleteTree(folder.File("tree")));
            }
        }
    });
    if (!isPermitted) {
        GTEST_SKIP() << "no mounts of its own";
    }
}

TEST(FileUtilsTest, AFullDiskKeepsTheOldFile) {
    const TempDir folder;
    const bool isPermitted = test::WithOwnMounts([&] {
        ASSERT_EQ(::mount("none", folder.Path().c_str(), "tmpfs", 0, "size=64k"), 0);
        const string file = folder.Write("file", "old");
        const string large(100'000, 'x');
        const string error = Failed("write", file, "28): No space left on device");
        EXPECT_EQ(ErrorOf([&] { FileUtils::WriteAtomically(file, large); }), error);
        EXPECT_EQ(ErrorOf([&] { FileUtils::WriteAtomically(file, large.data(), large.size(), 0600); }),
                  error);
        EXPECT_EQ(folder.Read("file"), "old");
        EXPECT_EQ(FileUtils::List(folder.Path()), Names{"file"});
    });
    if (!isPermitted) {
        GTEST_SKIP() << "no mounts of its own";
    }
}

TEST(FileUtilsTest, DeletesWithoutFollowingLinks) {
    const TempDir folder;
    fs::create_directories(folder.File("outside/below"));
    folder.Write("outside/file", "stays");
    fs::create_directories(folder.File("tree/a/b"));
    fs::create_directories(folder.File("tree/locked"));
    folder.Write("tree/a/file", "");
    fs::create_directory_symlink("../outside", folder.File("tree/link"));
    fs::create_directory_symlink(folder.File("outside"), folder.File("tree/a/b/link"));
    fs::create_directory_symlink("outside", folder.File("top"));
    fs::permissions(folder.File("tree/locked"), fs::perms::none);

    EXPECT_EQ(ErrorOf([&] { FileUtils::Delete(folder.File("tree")); }),
              Failed("delete", folder.File("tree"), "39): Directory not empty"));
    EXPECT_TRUE(FileUtils::DeleteTree(folder.File("tree/")));
    EXPECT_FALSE(FileUtils::DeleteTree(folder.File("tree")));
    EXPECT_FALSE(FileUtils::DeleteTree(folder.File("tree/below/this")));
    EXPECT_TRUE(FileUtils::DeleteTree(folder.File("top//")));
    EXPECT_EQ(FileUtils::List(folder.Path()), Names{"outside"});
    EXPECT_EQ(FileUtils::List(folder.File("outside")), (Names{"below", "file"}));
    EXPECT_TRUE(FileUtils::Delete(folder.File("outside/below")));
    EXPECT_TRUE(FileUtils::Delete(folder.File("outside/file")));
    EXPECT_FALSE(FileUtils::Delete(folder.File("outside/file")));
    EXPECT_TRUE(FileUtils::DeleteTree(folder.Write("file", "")));

    fs::create_directory(folder.File("kept"));
    for (const string& bad :
         {string(), string("/"), string("///"), folder.File("kept/."), folder.File("kept/..")}) {
        EXPECT_EQ(ErrorOf([&] { FileUtils::DeleteTree(bad); }), "Invalid path") << bad;
    }
    // What cannot be deleted is named, with the tree that it is in.
    const string fd = "/proc/self/fd";
    EXPECT_EQ(ErrorOf([&] { FileUtils::DeleteTree(fd); }),
              "Couldn't delete '0' in tree '/proc/self/fd': errno(1): Operation not permitted");
    EXPECT_TRUE(FileUtils::Exists(folder.File("kept")));
}

TEST(FileUtilsTest, DeletesDeepTrees) {
    const TempDir folder;
    const int depth = 700;  // more than a path can have
    int at = ::open(folder.Path().c_str(), O_PATH | O_CLOEXEC);
    for (int i = 0; i < depth; ++i) {
        ASSERT_EQ(::mkdirat(at, "folder", 0700), 0);
        const int next = ::openat(at, "folder", O_PATH | O_CLOEXEC);
        ASSERT_EQ(::symlinkat("folder", at, "link"), 0);
        ::close(at);
        at = next;
    }
    rlimit old{};
    ::getrlimit(RLIMIT_NOFILE, &old);
    const rlimit few = {static_cast<rlim_t>(at) + 4, old.rlim_max};  // 3 free ones at the least
    ::close(at);
    ::setrlimit(RLIMIT_NOFILE, &few);
    test::OnSmallStack([&] { EXPECT_TRUE(FileUtils::DeleteTree(folder.File("folder"))); });
    ::setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(FileUtils::List(folder.Path()), Names{"link"});
}

// As if it had still been a folder a moment ago.
TEST(FileUtilsTest, FollowsNoLinkThatTakesAFoldersPlace) {
    const TempDir folder;
    const string tree = folder.File("tree");
    fs::create_directory(folder.File("outside"));
    folder.Write("outside/file", "stays");
    fs::create_directory_symlink("outside", tree);
    const FailingCall isFolder("unlinkat", -1, [] { errno = EISDIR; });
    EXPECT_EQ(ErrorOf([&] { FileUtils::DeleteTree(tree); }), Failed("delete", tree, kIsFolder));
}

// Another thread tries to lead the deletion out of the tree.
TEST(FileUtilsTest, DeletesTreesThatChangeMeanwhile) {
    const TempDir folder;
    const string tree = folder.File("tree");
    fs::create_directory(folder.File("outside"));
    for (int i = 0; i < 50; ++i) {
        folder.Write("outside/" + std::to_string(i), "");
    }
    std::atomic<bool> isDone{false};
    std::atomic<int> changes{0};
    std::thread changer([&] {
        std::error_code ignored;
        while (!isDone) {
            const string path = tree + "/" + std::to_string(changes % 7);
            fs::create_directories(path + "/a/b/c", ignored);
            fs::rename(path + "/a/b", folder.File("away"), ignored);
            fs::rename(path + "/a", path + "/aside", ignored);
            fs::create_directory_symlink(folder.File("outside"), path + "/a", ignored);
            fs::rename(folder.File("away"), path + "/back", ignored);
            fs::remove_all(folder.File("away"), ignored);
            ++changes;
        }
    });
    const auto deleteTree = [&] {
        const string error = ErrorOf([&] { FileUtils::DeleteTree(tree); });
        // A thread that never stops may win; any other failure is ours.
        EXPECT_TRUE(error == "no exception" || error.find("errno(39)") != string::npos ||
                    error.find("errno(16)") != string::npos)
            << error;
        return changes > 20;
    };
    EXPECT_TRUE(test::WaitUntil(deleteTree, std::chrono::seconds(60)));
    isDone = true;
    changer.join();
    FileUtils::DeleteTree(tree);
    EXPECT_FALSE(FileUtils::Exists(tree));
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(FileUtils::Exists(folder.File("outside/" + std::to_string(i))));
    }
}

TEST(FileUtilsTest, WritesAtomically) {
    const TempDir folder;
    const string path = folder.Write("file", "old");
    fs::permissions(path, fs::perms(0640));
    fs::create_directory(folder.File("sub"));
    fs::create_symlink("../file", folder.File("sub/link"));
    fs::create_symlink(folder.File("sub/link"), folder.File("chain"));
    fs::create_symlink("sub/target", folder.File("dangling"));
    const int reader = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);

    FileUtils::WriteAtomically(folder.File("chain"), "new");
    EXPECT_EQ(folder.Read("file"), "new");
    EXPECT_EQ(ModeOf(path), 0640U);
    EXPECT_TRUE(fs::is_symlink(folder.File("chain")) && fs::is_symlink(folder.File("sub/link")));
    char kept[4] = "";
    EXPECT_EQ(::read(reader, kept, 4), 3);  // a reader that had it open has the old one, whole
    EXPECT_STREQ(kept, "old");
    ::close(reader);
    FileUtils::WriteAtomically(folder.File("dangling"), "made");
    EXPECT_EQ(folder.Read("sub/target"), "made");
    const string longest = folder.File(string(255, 'n'));
    const mode_t mask = ::umask(027);
    FileUtils::WriteAtomically(longest, "");
    ::umask(mask);
    EXPECT_EQ(ModeOf(longest), 0640U);
    fs::remove(longest);

    {
        const test::FileSizeLimit fullDisk(100);
        for (const char* name : {"file", "fresh"}) {
            EXPECT_EQ(ErrorOf([&] { FileUtils::WriteAtomically(folder.File(name), string(200, 'x')); }),
                      Failed("write", folder.File(name), "27): File too large"));
        }
    }
    ASSERT_EQ(::mkfifo(folder.File("fifo").c_str(), 0600), 0);
    for (const auto& [name, why] :
         {std::pair("sub", kIsFolder), {"fifo", kInvalid}, {"no/file", kNotThere}}) {
        EXPECT_EQ(ErrorOf([&, path = folder.File(name)] { FileUtils::WriteAtomically(path, ""); }),
                  Failed("write", folder.File(name), why));
    }
    EXPECT_EQ(folder.Read("file"), "new");
    EXPECT_EQ(FileUtils::List(folder.Path()), (Names{"chain", "dangling", "fifo", "file", "sub"}));
    EXPECT_EQ(FileUtils::List(folder.File("sub")), (Names{"link", "target"}));
}

TEST(FileUtilsTest, TellsThatTheFolderIsNotOnTheDisk) {
    const TempDir folder;
    const string path = folder.Write("file", "old");
    int error = EIO;
    const FailingCall broken("fsync", -1, [&] { errno = error; });
    EXPECT_EQ(ErrorOf([&] { FileUtils::WriteAtomically(path, "new"); }), Failed("write", path, kBroken));
    EXPECT_EQ(folder.Read("file"), "new");
    EXPECT_EQ(ErrorOf([&] { FileUtils::Copy(path, folder.File("copy")); }),
              Failed("write", folder.File("copy"), kBroken));
    core::IniFile ini;
    EXPECT_EQ(ErrorOf([&] { ini.Save(path.c_str()); }), "Couldn't write file " + path);
    error = EINVAL;  // a file system that does not know that
    FileUtils::WriteAtomically(path, "newer");
    EXPECT_EQ(FileUtils::List(folder.Path()), (Names{"copy", "file"}));
}

// Writing costs a file its set-id bits, and a group that cannot be kept has had rights of its own.
TEST(FileUtilsTest, GivesNobodyMoreRights) {
    const TempDir folder;
    const uid_t self = ::geteuid();
    if (self != 0) {
        GTEST_SKIP() << "cannot become another user";
    }
    constexpr uid_t kNobody = 65'534;
    constexpr gid_t kOther = 12'345;
    fs::permissions(folder.Path(), fs::perms(0777));
    const struct {
        uid_t owner;
        gid_t group;
        mode_t mode, expected;
    } rows[] = {
        {kNobody, ::getegid(), 06'754, 06'754},
        {kNobody, kOther, 0664, 0644},
        {kNobody, kOther, 06'754, 0744},
        {0, ::getegid(), 06'776, 0776},
        {0, kOther, 0662, 0622},
    };
    for (const auto& row : rows) {
        const string path = folder.Write("file", "old");
        ASSERT_EQ(::chown(path.c_str(), row.owner, row.group), 0);
        ASSERT_EQ(::chmod(path.c_str(), row.mode), 0);
        ASSERT_EQ(::seteuid(kNobody), 0);
        const string error = ErrorOf([&] { FileUtils::WriteAtomically(path, "new"); });
        ASSERT_EQ(::seteuid(self), 0);
        EXPECT_EQ(error, "no exception");
        EXPECT_EQ(ModeOf(path), row.expected) << std::oct << row.mode;
        fs::remove(path);
    }
}

TEST(FileUtilsTest, WritesWithAMode) {
    const TempDir folder;
    const string secret("secret\0", 7);
    const string old = folder.Write("old", "");
    for (const string& path : {folder.File("new"), old}) {
        for (const mode_t mode : {0600U, 0666U, 0U}) {
            FileUtils::WriteAtomically(path, secret.data(), secret.size(), mode);
            EXPECT_EQ(ModeOf(path), mode) << path;
        }
        EXPECT_EQ(folder.Read(fs::path(path).filename()), secret);
    }
    EXPECT_EQ(ErrorOf([&] { FileUtils::WriteAtomically(old, "", 0, 04600); }),
              Failed("write", old, kInvalid));
}

// In a sticky folder that everybody may write: the links of others are not followed, whenever they have come,
// and a secret is not given to the owner of a file that was there before.
TEST(FileUtilsTest, IsNotMisledInSharedFolders) {
    constexpr uid_t kNobody = 65'534;
    const TempDir folder;
    const string target = folder.Write("target", "old");
    fs::create_directory(folder.File("shared"));
    const string link = folder.File("shared/link");
    const string file = folder.Write("shared/file", "planted");
    fs::create_symlink("../target", link);
    for (const mode_t mode : {0777U, 01777U}) {
        fs::permissions(folder.File("shared"), fs::perms(mode));
        for (const uid_t owner : {::geteuid(), kNobody}) {
            if (::lchown(link.c_str(), owner, kNobody) != 0 || ::chown(file.c_str(), owner, kNobody) != 0) {
                GTEST_SKIP() << "cannot become another user";
            }
            const bool isPlanted = mode == 01777 && owner == kNobody;
            const std::function<void(const string&)> actions[] = {
                [&](const string& path) { FileUtils::WriteAtomically(path, "new"); },
                [&](const string& path) { FileUtils::Copy("/etc/passwd", path); },
                [&](const string& path) { FileUtils::WriteAtomically(path, "key", 3, 0600); }};
            for (const auto& action : actions) {
                EXPECT_EQ(ErrorOf([&] { action(link); }),
                          isPlanted ? Failed("write", link, kDenied) : "no exception");
                EXPECT_EQ(folder.Read("target") == "old", isPlanted);
                folder.Write("target", "old");
            }
            core::IniFile ini;
            EXPECT_EQ(ErrorOf([&] { ini.Save(link.c_str()); }),
                      isPlanted ? "Couldn't open file " + link + " for writing" : "no exception");
            folder.Write("target", "old");
            EXPECT_EQ(ErrorOf([&] { actions[2](file); }),
                      isPlanted ? Failed("write", file, kDenied) : "no exception");
        }
    }
}

constexpr const char* kAccessList = "system.posix_acl_access";

/// The attribute of an access control list: owner, one user, group, limit, others.
string MakeAccessList(uid_t user, char forUser, char forGroup, char forOthers) {
    string list = {2, 0, 0, 0};
    const auto add = [&list](char kind, char rights, unsigned int id) {
        list += {kind, 0, rights, 0};
        for (int i = 0; i < 4; ++i) {
            list += static_cast<char>(id >> (8 * i));
        }
    };
    add(0x01, 6, ~0U);
    add(0x02, forUser, user);
    add(0x04, forGroup, ~0U);
    add(0x10, 6, ~0U);
    add(0x20, forOthers, ~0U);
    return list;
}

string AccessListOf(const string& path) {
    char list[200];
    const ssize_t length = ::getxattr(path.c_str(), kAccessList, list, sizeof list);
    return {list, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

bool SetAccessList(const string& path, const string& list, const char* name = kAccessList) {
    return ::setxattr(path.c_str(), name, list.data(), list.size(), 0) == 0;
}

// A mode alone would give the group what the list gives to one user.
TEST(FileUtilsTest, KeepsAccessLists) {
    constexpr uid_t kNobody = 65'534;
    const TempDir folder;
    const string path = folder.Write("file", "old");
    const string list = MakeAccessList(1'234, 6, 0, 0);
    if (!SetAccessList(path, list)) {
        GTEST_SKIP() << "the file system has no access control lists";
    }
    FileUtils::WriteAtomically(path, "new");
    EXPECT_EQ(AccessListOf(path), list);
    core::IniFile().Save(path.c_str());
    EXPECT_EQ(AccessListOf(path), list);
    FileUtils::Copy(path, folder.File("copy"));
    EXPECT_EQ(AccessListOf(folder.File("copy")), list);
    {
        const FailingCall noLists("fsetxattr", -1, [] { errno = ENOTSUP; });
        FileUtils::WriteAtomically(folder.File("copy"), "new");
        EXPECT_EQ(AccessListOf(folder.File("copy")), "");
        EXPECT_EQ(ModeOf(folder.File("copy")), 0600U);
    }
    // A file without a list does not get the one that its folder has for new files.
    ASSERT_TRUE(SetAccessList(folder.Path(), list, "system.posix_acl_default"));
    for (const auto& write : {std::function<void()>([&] { FileUtils::WriteAtomically(path, "new"); }),
                              {[&] { FileUtils::WriteAtomically(path, "new", 3, 0640); }},
                              {[&] { FileUtils::Copy("/etc/passwd", path); }}}) {
        ::removexattr(path.c_str(), kAccessList);
        fs::permissions(path, fs::perms(0640));
        write();
        EXPECT_EQ(AccessListOf(path), "");
    }
    if (::geteuid() != 0) {
        GTEST_SKIP() << "cannot become another user";
    }
    // A writer that cannot keep the group has another, which gets no more than everybody.
    fs::permissions(folder.Path(), fs::perms(0777));
    ASSERT_TRUE(SetAccessList(path, MakeAccessList(kNobody, 6, 6, 4)));
    ASSERT_EQ(::chown(path.c_str(), 0, 12'345), 0);
    ASSERT_EQ(::seteuid(kNobody), 0);
    const string error = ErrorOf([&] { FileUtils::WriteAtomically(path, "new"); });
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(error, "no exception");
    EXPECT_EQ(AccessListOf(path), MakeAccessList(kNobody, 6, 4, 4));
}

TEST(FileUtilsTest, KeepsFilesThatMayNotBeWritten) {
    const TempDir folder;
    const string path = folder.Write("file", "old");
    fs::permissions(path, fs::perms(0444));
    fs::permissions(folder.Path(), fs::perms(0777));
    const uid_t self = ::geteuid();
    if (self == 0 && ::seteuid(65534) != 0) {
        GTEST_SKIP() << "cannot become another user";
    }
    const string atomic = ErrorOf([&] { FileUtils::WriteAtomically(path, "new"); });
    const string copied = ErrorOf([&] { FileUtils::Copy("/etc/passwd", path); });
    EXPECT_EQ(::seteuid(self), 0);
    EXPECT_EQ(atomic, Failed("write", path, kDenied));
    EXPECT_EQ(copied, atomic);
    EXPECT_EQ(folder.Read("file"), "old");
}

}  // namespace
}  // namespace zarip::osa
