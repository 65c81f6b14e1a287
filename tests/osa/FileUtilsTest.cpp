#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

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
#include "support/SmallStack.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"
#include "zarip/core/IniFile.h"
#include "zarip/osa/FileUtils.h"
#include "zarip/osa/Process.h"

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
    EXPECT_EQ(ErrorOf([&] { FileUtils::Exists(folder.File("circle")); }),
              Failed("look at", folder.File("circle"), "40): Too many levels of symbolic links"));
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
    // A reader who goes does not end the process.
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
        {"fifo", "new", Failed("read", folder.File("fifo"), kInvalid)},  // and nobody waits for its other end
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

// Whoever may write in the tree tries to lead the deletion out of it.
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
        // One who goes on for ever may win; any other failure is ours.
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
    EXPECT_EQ(::read(reader, kept, 4), 3);  // whoever had it open has the old one, whole
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
    EXPECT_EQ(atomic, Failed("write", path, "13): Permission denied"));
    EXPECT_EQ(copied, atomic);
    EXPECT_EQ(folder.Read("file"), "old");
}

string WholeContent(char letter) {
    return string(300'000, letter) + "end";
}

// Run by the test below, in a process of its own.
TEST(FileUtilsTest, DISABLED_WritesUntilItIsKilled) {
    const char* const path = std::getenv("ZARIP_TEST_FILE");
    for (int i = 0; path != nullptr; ++i) {
        FileUtils::WriteAtomically(path, WholeContent(i % 2 == 0 ? 'a' : 'b'));
    }
}

TEST(FileUtilsTest, AKilledWriterLeavesOldOrNewContent) {
    const TempDir folder;
    const string path = folder.Write("file", WholeContent('b'));
    Process::Options options;
    options.environment["ZARIP_TEST_FILE"] = path;
    options.output = Process::Redirect::Null();
    for (int round = 0; round < 5; ++round) {
        Process writer("/proc/self/exe",
                       {"--gtest_also_run_disabled_tests", "--gtest_filter=*DISABLED_WritesUntilItIsKilled"},
                       options);
        const auto isWhole = [&] {
            const string content = FileUtils::Read(path);
            EXPECT_TRUE(content == WholeContent('a') || content == WholeContent('b'));
            return content[0];
        };
        const char first = isWhole();
        EXPECT_TRUE(test::WaitUntil([&] { return isWhole() != first; }));
        writer.Kill(SIGKILL);
        writer.Wait();
        isWhole();
    }
}

}  // namespace
}  // namespace zarip::osa
