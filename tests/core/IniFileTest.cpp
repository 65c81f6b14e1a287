// SPDX-License-Identifier: MIT

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <functional>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <zarip/core/IniFile.h>
#include <zarip/osa/Exception.h>

#include "support/ErrorOf.h"
#include "support/FileSizeLimit.h"
#include "support/OwnMounts.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

namespace zarip::core {
namespace {

using test::ErrorOf;

using test::TempDir;
using Group = IniFile::Group;

using Names = std::vector<std::string>;

Names NamesIn(const TempDir& folder) {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

IniFile FromString(const std::string& text) {
    IniFile ini;
    ini.LoadFromString(text);
    return ini;
}

TEST(IniFileTest, LoadsAndSaves) {
    IniFile ini = FromString("a = 1\n[net]\nip=10.0.0.1\n");
    EXPECT_TRUE(ini.HasValue("a"));
    EXPECT_EQ(ini.GetValue("__GLOBAL__", "a"), "1");
    EXPECT_EQ(ini["net"], (Group{{"ip", "10.0.0.1"}}));
    EXPECT_EQ(ini.SaveToString(), "a = 1\n\n[net]\nip = 10.0.0.1\n\n");

    ini.SetValue("Zone", "b", "");
    ini.SetValue("Zone", "B", "x");
    ini["empty"];
    ini.SetValue("_first", "k", "v");
    EXPECT_EQ(ini.SaveToString(),
              "a = 1\n\n[Zone]\nB = x\nb = \n\n[_first]\nk = v\n\n[empty]\n\n[net]\nip = 10.0.0.1\n\n");
    std::ostringstream stream;
    ini.SaveGroupToStream(stream, "__GLOBAL__");
    ini.SaveGroupToStream(stream, "no such group");
    EXPECT_EQ(stream.str(), "[__GLOBAL__]\na = 1\n\n");
    EXPECT_EQ(IniFile().SaveToString(), "");
}

TEST(IniFileTest, LineRules) {
    using namespace std::string_literals;
    const struct {
        std::string text;
        std::string saved;
    } rows[] = {
        {"; a = 1\n# b = 2\n\n  c = 3\n_d = 4\n-e = 5\n\xC3\xA4 = 6\n=7\n", ""},
        {"1 = one\n.a = dot\n/b = slash\n\\c = backslash\nplain\n",
         ".a = dot\n/b = slash\n1 = one\n\\c = backslash\n\n"},
        {"k=a=b ; c # d\nq = \"x\" \n", "k = a=b ; c # d\nq = \"x\"\n\n"},
        {"k\t =\v v \f\nlast= 1\r\nin=a\rb\nno end = x", "in = a\rb\nk = v\nlast = 1\nno end = x\n\n"},
        {"k = 1\nk = 2\n[g]\nx=1\n[h]\ny=2\n[g]\nx=3\nz=4\n", "k = 2\n\n[g]\nx = 3\nz = 4\n\n[h]\ny = 2\n\n"},
        {"[ g ]trailing]\nx=1\n", "[ g ]\nx = 1\n\n"},
        {"[g]\n[broken\nx=1\n[none]\n[]\ny=2\n", "[]\ny = 2\n\n[g]\nx = 1\n\n"},
        {"[__GLOBAL__]\nx=1\n", "x = 1\n\n"},
        {"k=ab\0cd\nz=1"s, "k = ab\nz = 1\n\n"},
        {"k=\na = ", "a = \nk = \n\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(FromString(row.text).SaveToString(), row.saved);
        IniFile fromStream;
        std::istringstream stream(row.text);
        fromStream.LoadFromStream(stream);
        EXPECT_EQ(fromStream.SaveToString(), row.saved);
        EXPECT_TRUE(stream.eof());
        EXPECT_TRUE(stream.fail());
        EXPECT_FALSE(stream.bad());
    }
}

TEST(IniFileTest, LoadingAddsToWhatIsThere) {
    const TempDir folder;
    IniFile ini(folder.Write("a", "[g]\nx = 1\ny = 2\n").c_str());
    ini.Load(folder.Write("b", "[g]\ny = 3\nz = 4\n").c_str());
    EXPECT_EQ(ini["g"], (Group{{"x", "1"}, {"y", "3"}, {"z", "4"}}));
    for (const std::string& path : {folder.File("missing"), folder.Path()}) {
        EXPECT_EQ(ErrorOf([&] { ini.Load(path.c_str()); }), "Couldn't open file " + path + " for reading");
    }
}

// Lines of every length around the sizes of the blocks that are read, from a source that fails in the end.
TEST(IniFileTest, FailedLoadKeepsWhatWasRead) {
    class FailingSource : public std::streambuf {
    public:
        explicit FailingSource(std::string text) : _text(std::move(text)) {}

    protected:
        int_type underflow() override {
            if (_done == _text.size()) {
                throw std::runtime_error("broken disk");
            }
            const std::size_t size = std::min<std::size_t>(_text.size() - _done, 1 + _done % 1000);
            setg(&_text[_done], &_text[_done], &_text[_done] + size);
            _done += size;
            return traits_type::to_int_type(*gptr());
        }

    private:
        std::string _text;
        std::size_t _done = 0;
    };
    std::string text;
    Group expected;
    for (int i = 0; i < 300; ++i) {
        const std::string key = "k" + std::to_string(i * 7919 % 300);
        const std::string value(static_cast<std::size_t>(1 + i * 37 % 20'000), 'v');
        text += key + " = " + value + "\n";
        expected[key] = value;
    }
    FailingSource source(text + "unfinished = 1");
    std::istream stream(&source);
    IniFile ini;
    ini.LoadFromStream(stream);
    EXPECT_TRUE(stream.bad());
    EXPECT_EQ(ini["__GLOBAL__"], expected);
    EXPECT_EQ(FromString(text)["__GLOBAL__"], expected);
}

TEST(IniFileTest, SaveReplacesTheFileInOneStep) {
    const TempDir folder;
    IniFile ini = FromString("a = 1\n");
    const std::string path = folder.Write("file", "old content that is much longer than the new one\n");
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    std::filesystem::create_symlink("file", folder.File("link"));
    const int reader = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ini.Save(folder.File("link").c_str());
    EXPECT_EQ(folder.Read("file"), "a = 1\n\n");
    EXPECT_TRUE(std::filesystem::is_symlink(folder.File("link")));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    char first = 0;
    EXPECT_EQ(::read(reader, &first, 1),
              1);  // a process that had the file open still has the complete old file
    EXPECT_EQ(first, 'o');
    ::close(reader);

    const mode_t mask = ::umask(027);
    ini.Save(folder.File("new").c_str());
    ::umask(mask);
    ASSERT_EQ(::stat(folder.File("new").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);

    std::filesystem::create_symlink("target", folder.File("dangling"));
    ini.Save(folder.File("dangling").c_str());
    EXPECT_EQ(folder.Read("target"), "a = 1\n\n");
    EXPECT_EQ(NamesIn(folder), (Names{"dangling", "file", "link", "new", "target"}));
}

TEST(IniFileTest, SaveRemovesWhatKilledWritersLeft) {
    const TempDir folder;
    const IniFile ini = FromString("a = " + std::string(1 << 20, 'x') + "\n");
    const std::string path = folder.Write("file", "");
    const auto hasTemporary = [&] {
        const Names names = NamesIn(folder);
        return std::any_of(names.begin(), names.end(), [](const auto& name) { return name[0] == '.'; });
    };
    // One that is killed while it writes, if need be at the second attempt.
    EXPECT_TRUE(test::WaitUntil([&] {
        const pid_t child = ::fork();
        while (child == 0) {
            ini.Save(path.c_str());
        }
        test::WaitUntil(hasTemporary);
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        return hasTemporary();
    }));
    // A writer that is still there holds a lock.
    const int alive = ::open(folder.File(".zarip-1-0.tmp").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(alive, LOCK_EX), 0);
    folder.Write(".zarip-2-0.tmp", "");
    folder.Write(".zarip-of-somebody-else.tmp", "");
    std::filesystem::create_symlink("young", folder.File(".zarip-3-0.tmp"));
    std::filesystem::create_symlink("old", folder.File(".zarip-4-0.tmp"));
    const timespec longAgo[2] = {{1, 0}, {1, 0}};
    ::utimensat(AT_FDCWD, folder.File(".zarip-4-0.tmp").c_str(), longAgo, AT_SYMLINK_NOFOLLOW);
    ini.Save(path.c_str());
    EXPECT_EQ(NamesIn(folder),
              (Names{".zarip-1-0.tmp", ".zarip-3-0.tmp", ".zarip-of-somebody-else.tmp", "file"}));
    ::close(alive);
}

TEST(IniFileTest, PipesAndDevicesAreRefusedAtOnce) {
    const TempDir folder;
    const std::string fifo = folder.File("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, std::string("/dev/null")}) {
        EXPECT_EQ(ErrorOf([&] { IniFile().Save(path.c_str()); }),
                  "Couldn't open file " + path + " for writing");
    }
    EXPECT_TRUE(std::filesystem::is_fifo(fifo));
}

// On a file system of its own that has no room, once for another file and once for more data.
TEST(IniFileTest, AFullFileSystemKeepsTheOldFile) {
    const TempDir folder;
    const bool isPermitted = test::WithOwnMounts([&] {
        ASSERT_EQ(::mount("none", folder.Path().c_str(), "tmpfs", 0, "size=64k,nr_inodes=3"), 0);
        const std::string path = folder.Write("file", "old = 1\n");
        folder.Write("last", "");
        const std::string other = folder.File("other");
        const std::string large = "b = " + std::string(100'000, 'x') + "\n";
        for (const std::string& text : {std::string("a = 1\n"), large}) {
            const IniFile ini = FromString(text);
            EXPECT_EQ(ErrorOf([&] { ini.Save(path.c_str()); }), "Couldn't write file " + path);
            EXPECT_EQ(ErrorOf([&] { ini.Save(other.c_str()); }),
                      text == large ? "Couldn't write file " + other
                                    : "Couldn't open file " + other + " for writing");
            EXPECT_EQ(folder.Read("file"), "old = 1\n");
            std::filesystem::remove(folder.File("last"));
        }
        EXPECT_EQ(NamesIn(folder), Names{"file"});
        // A file that something is mounted on cannot be replaced, and is written in place.
        ASSERT_EQ(::mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
        EXPECT_EQ(ErrorOf([&] { FromString(large).Save(path.c_str()); }), "Couldn't write file " + path);
        EXPECT_EQ(folder.Read("file"), "old = 1\n");
        EXPECT_EQ(ErrorOf([&] { FromString("a = 1\n").Save(path.c_str()); }), "no exception");
        EXPECT_EQ(folder.Read("file"), "a = 1\n\n");
    });
    if (!isPermitted) {
        GTEST_SKIP() << "no file system of its own";
    }
}

TEST(IniFileTest, FailedSaveKeepsTheOldFile) {
    const TempDir folder;
    const std::string path = folder.Write("file", "old = 1\n");
    const auto expectUntouched = [&] {
        EXPECT_EQ(folder.Read("file"), "old = 1\n");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 1);
    };
    IniFile ini = FromString("a = 1\n");
    for (const std::string& bad : {folder.File("no/file"), folder.Path(), std::string()}) {
        EXPECT_EQ(ErrorOf([&] { ini.Save(bad.c_str()); }), "Couldn't open file " + bad + " for writing");
    }
    {
        const test::FileSizeLimit limit(4);
        EXPECT_EQ(ErrorOf([&] { ini.Save(path.c_str()); }), "Couldn't write file " + path);
    }
    expectUntouched();

    // Each would be read back as a line, a group or a key of its own.
    const struct {
        const char* group;
        const char* key;
        const char* value;
        const char* what;
    } rows[] = {
        {"g\nh", "k", "v", "line feed in a group name"},    {"admin]x", "k", "v", "']' in a group name"},
        {"g", "k\nx", "v", "line feed in a key"},           {"g", "bob=admin;", "v", "'=' in a key"},
        {"g", "[admin]", "v", "'[' at the start of a key"}, {"g", "k", "v\n[admin]", "line feed in a value"}};
    for (const auto& row : rows) {
        IniFile forged = FromString("a = 1\n");
        forged.SetValue(row.group, row.key, row.value);
        const std::string message = std::string("IniFile: ") + row.what;
        std::ostringstream stream;
        EXPECT_EQ(ErrorOf([&] { forged.Save(path.c_str()); }), message);
        EXPECT_EQ(ErrorOf([&] { forged.SaveToStream(stream); }), message);
        EXPECT_EQ(ErrorOf([&] { forged.SaveGroupToStream(stream, row.group); }), message);
        EXPECT_EQ(stream.str(), "");
    }
    expectUntouched();
}

// Where the folder cannot be written, the file is written in place.
TEST(IniFileTest, SaveIntoAFolderThatCannotBeWritten) {
    const TempDir folder;
    const std::string path = folder.Write("file", "old content that is longer\n");
    ::chmod(path.c_str(), 0666);
    ::chmod(folder.Path().c_str(), 0555);
    const uid_t self = ::geteuid();
    if (self == 0 && ::seteuid(65534) != 0) {
        GTEST_SKIP() << "cannot become another user";
    }
    const std::string message = ErrorOf([&] { FromString("a = 1\n").Save(path.c_str()); });
    std::string cut;
    {
        const test::FileSizeLimit limit(4);
        cut = ErrorOf([&] { FromString("b = 12\n").Save(path.c_str()); });
    }
    const std::string other = ErrorOf([&] { IniFile().Save(folder.File("other").c_str()); });
    ::chmod(path.c_str(), 0444);
    EXPECT_EQ(::seteuid(self), 0);
    EXPECT_EQ(message, "no exception");
    EXPECT_EQ(cut, "Couldn't write file " + path);
    EXPECT_EQ(folder.Read("file"), "a = 1\n\n");
    EXPECT_EQ(other, "Couldn't open file " + folder.File("other") + " for writing");
    ::chmod(folder.Path().c_str(), 0777);

    // A file that may not be written is not replaced, although the folder would allow it.
    ::chmod(path.c_str(), 0444);
    if (self == 0 && ::seteuid(65534) != 0) {
        GTEST_SKIP() << "cannot become another user";
    }
    EXPECT_EQ(ErrorOf([&] { IniFile().Save(path.c_str()); }), "Couldn't open file " + path + " for writing");
    EXPECT_EQ(::seteuid(self), 0);
    EXPECT_EQ(folder.Read("file"), "a = 1\n\n");
}

TEST(IniFileTest, GroupsMergeAndCompare) {
    IniFile ini = FromString("[a]\nx=1\ny=2\n");
    const IniFile other = FromString("g=0\n[a]\ny=3\nz=4\n[b]\nk=v\n");
    EXPECT_FALSE(ini.ContainsSettings(other));
    ini.MergeSettings(other, "a");
    ini.MergeSettings(other, "missing");
    EXPECT_EQ(ini.SaveToString(), "[a]\nx = 1\ny = 3\nz = 4\n\n");
    ini.MergeSettings(other);
    EXPECT_EQ(ini.SaveToString(), "g = 0\n\n[a]\nx = 1\ny = 3\nz = 4\n\n[b]\nk = v\n\n");
    EXPECT_TRUE(ini.ContainsSettings(other));
    EXPECT_FALSE(other.ContainsSettings(ini));
    EXPECT_TRUE(ini.ContainsSettings(IniFile()));
    IniFile emptyGroup;
    emptyGroup["c"];
    EXPECT_FALSE(ini.ContainsSettings(emptyGroup));

    ini.MergeGroup("new", {{"p", "q"}});
    ini.OverwriteGroup("a", {{"only", "this"}});
    Group merged = {{"p", "1"}, {"r", "2"}};
    IniFile::MergeGroups(merged, ini["new"]);
    EXPECT_EQ(merged, (Group{{"p", "q"}, {"r", "2"}}));
    ini.RemoveGroup("b");
    EXPECT_FALSE(ini.HasGroup("b"));
    EXPECT_EQ(ini.SaveToString(), "g = 0\n\n[a]\nonly = this\n\n[new]\np = q\n\n");
    ini.Clear();
    EXPECT_EQ(ini.SaveToString(), "");
}

TEST(IniFileTest, ValuesAreFoundOrNot) {
    const IniFile ini = FromString("top=0\n[g]\nk=v\n");
    std::string out = "before";
    EXPECT_FALSE(ini.TryGetValue(out, "g", "x"));
    EXPECT_FALSE(ini.TryGetValue(out, "x", "k"));
    EXPECT_FALSE(IniFile::TryGetValueFromGroup(out, ini["g"], "x"));
    EXPECT_EQ(out, "before");
    EXPECT_TRUE(ini.TryGetValue(out, "g", "k"));
    EXPECT_EQ(out, "v");
    EXPECT_TRUE(ini.HasValue("g", "k"));
    EXPECT_FALSE(ini.HasValue("g", "top"));
    EXPECT_TRUE(ini.HasValue("top"));
    EXPECT_TRUE(IniFile::GroupHasValue(ini["g"], "k"));
    EXPECT_FALSE(IniFile::GroupHasValue(ini["g"], "top"));
    EXPECT_EQ(ini.GetValueOrDefault("g", "k"), "v");
    EXPECT_EQ(ini.GetValueOrDefault("g", "x"), "");
    EXPECT_EQ(ini.GetValueOrDefault("x", "k"), "");
    EXPECT_EQ(ini.GetValueOrDefault("x", "k", "other"), "other");
    EXPECT_EQ(ini.GetValueOrDefault("g", "k", "other"), "v");
    EXPECT_EQ(IniFile::GetValueFromGroup(ini["g"], "k"), "v");
    EXPECT_EQ(ErrorOf([&] { ini["x"]; }), "no group x exists in IniFile");
    EXPECT_EQ(ErrorOf([&] { ini.GetValue("x", "k"); }), "no group x exists in IniFile");
    EXPECT_EQ(ErrorOf([&] { ini.GetValue("g", "x"); }), "no value x exists in group g");
    EXPECT_EQ(ErrorOf([&] { IniFile::GetValueFromGroup(ini["g"], "x"); }), "no value x exists in group");
    EXPECT_FALSE(ini.HasGroup("x"));
}

template <class Value>
std::string Show(const Value& value) {
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

/// Expects that all getters return the value, or that all refuse it.
void ExpectValue(const char* expected, const std::string& type,
                 const std::vector<std::function<std::string()>>& getters) {
    for (const auto& getter : getters) {
        if (expected != nullptr) {
            EXPECT_EQ(getter(), expected);
        } else {
            EXPECT_EQ(ErrorOf(getter), "value k must be a valid " + type);
        }
    }
}

constexpr struct {
    const char* text;
    const char* asInt;
    const char* asDouble;
    const char* asBool;
} kTypedValues[] = {
    {"12", "12", "12", nullptr},
    {" \t-7 \r", "-7", "-7", nullptr},
    {"+5", "5", "5", nullptr},
    {"0", "0", "0", "0"},
    {"1", "1", "1", "1"},
    {" TRUE ", nullptr, nullptr, "1"},
    {"False", nullptr, nullptr, "0"},
    {"010", "10", "10", nullptr},
    {"2147483647", "2147483647", "2.14748e+09", nullptr},
    {"2147483648", nullptr, "2.14748e+09", nullptr},
    {"1.5e3", nullptr, "1500", nullptr},
    {".5", nullptr, "0.5", nullptr},
    {"1,5", nullptr, nullptr, nullptr},
    {"1,234", nullptr, nullptr, nullptr},
    {"12abc", nullptr, nullptr, nullptr},
    {"1 2", nullptr, nullptr, nullptr},
    {"- 1", nullptr, nullptr, nullptr},
    {"+-1", nullptr, nullptr, nullptr},
    {"0x1F", nullptr, nullptr, nullptr},
    {"1e999", nullptr, nullptr, nullptr},
    {"", nullptr, nullptr, nullptr},
    {"yes", nullptr, nullptr, nullptr},
};

TEST(IniFileTest, TypedValues) {
    for (const auto& row : kTypedValues) {
        SCOPED_TRACE(row.text);
        IniFile ini;
        ini.SetValue("g", "k", row.text);
        const Group& group = ini["g"];
        ExpectValue(row.asInt, "integer",
                    {[&] { return Show(ini.GetInt("g", "k")); },
                     [&] { return Show(IniFile::GetIntFromGroup(group, "k")); },
                     [&] { return Show(ini.GetIntOrDefault("g", "k", -99)); },
                     [&] { return Show(IniFile::GetIntOrDefaultFromGroup(group, "k", -99)); }});
        ExpectValue(row.asDouble, "double",
                    {[&] { return Show(ini.GetDouble("g", "k")); },
                     [&] { return Show(IniFile::GetDoubleFromGroup(group, "k")); },
                     [&] { return Show(ini.GetDoubleOrDefault("g", "k", -99)); },
                     [&] { return Show(IniFile::GetDoubleOrDefaultFromGroup(group, "k", -99)); }});
        ExpectValue(row.asBool, "boolean",
                    {[&] { return Show(ini.GetBool("g", "k")); },
                     [&] { return Show(IniFile::GetBoolFromGroup(group, "k")); },
                     [&] { return Show(ini.GetBoolOrDefault("g", "k", true)); },
                     [&] { return Show(IniFile::GetBoolOrDefaultFromGroup(group, "k", true)); }});
    }
}

TEST(IniFileTest, TypedValuesThatAreMissing) {
    IniFile ini;
    ini.SetValue("g", "k", "");
    const Group& group = ini["g"];
    EXPECT_EQ(ini.GetIntOrDefault("g", "x", 5), 5);
    EXPECT_EQ(ini.GetIntOrDefault("x", "k", 5), 5);
    EXPECT_EQ(IniFile::GetIntOrDefaultFromGroup(group, "x", 6), 6);
    EXPECT_EQ(ini.GetDoubleOrDefault("x", "k", 0.5), 0.5);
    EXPECT_EQ(IniFile::GetDoubleOrDefaultFromGroup(group, "x", 1.5), 1.5);
    EXPECT_TRUE(ini.GetBoolOrDefault("x", "k", true));
    EXPECT_TRUE(IniFile::GetBoolOrDefaultFromGroup(group, "x", true));
    EXPECT_EQ(ErrorOf([&] { ini.GetInt("x", "k"); }), "no group x exists in IniFile");
    EXPECT_EQ(ErrorOf([&] { ini.GetBool("g", "x"); }), "no value x exists in group g");
    EXPECT_EQ(ErrorOf([&] { IniFile::GetDoubleFromGroup(group, "x"); }), "no value x exists in group");
}

// Files are the same whatever locale the process has chosen.
TEST(IniFileTest, NumbersKnowNoLocale) {
    struct Grouping : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale old = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    IniFile ini;
    ini.SetInt("g", "int", -1234567);
    ini.SetDouble("g", "double", 1234.5678);
    ini.SetBool("g", "bool", true);
    Group& group = ini["g"];
    IniFile::SetIntToGroup(group, "int2", INT_MIN);
    IniFile::SetDoubleToGroup(group, "double2", 1e100);
    IniFile::SetBoolToGroup(group, "bool2", false);
    const std::string saved = ini.SaveToString();
    const double number = ini.GetDouble("g", "double");
    const int least = ini.GetInt("g", "int2");
    std::locale::global(old);
    EXPECT_EQ(saved,
              "[g]\nbool = true\nbool2 = false\ndouble = 1234.57\ndouble2 = 1e+100\nint = -1234567\n"
              "int2 = -2147483648\n\n");
    EXPECT_EQ(number, 1234.57);
    EXPECT_EQ(least, INT_MIN);
}

TEST(IniFileTest, KeyNamesGoOnLikeAnOdometer) {
    const struct {
        const char* key;
        const char* next;
    } rows[] = {
        {"", "0"},
        {"0", "1"},
        {"9", "A"},
        {"Z", "a"},
        {"z", "z00"},
        {"0z", "10"},
        {"Azz", "B00"},
        {"9zz", "A00"},
        {"z0", "z1"},
        {"z0z", "z10"},
        {"zz", "zz00"},
        {"zzz", "zzz000"},
        {"a-", "a-00"},
        {"a-z", "a-z000"},
        {"-a", "-b"},
        {"zzzzzz", "zzzzzz0000"},
        {"\xC3z", "\xC3z00"},
    };
    for (const auto& row : rows) {
        std::string key = row.key;
        IniFile::GetNextKeyName(key);
        EXPECT_EQ(key, row.next) << row.key;
    }
}

TEST(IniFileTest, GroupsServeAsLists) {
    IniFile ini;
    for (int i = 0; i < 100; ++i) {
        ini.ValueListAppend("list", std::to_string(i));
    }
    std::string keys;
    int expected = 0;
    for (const auto& [key, value] : ini["list"]) {
        EXPECT_EQ(value, std::to_string(expected++));
        keys += key + " ";
    }
    EXPECT_EQ(keys.substr(0, 132),
              "0 1 2 3 4 5 6 7 8 9 A B C D E F G H I J K L M N O P Q R S T U V W X Y Z "
              "a b c d e f g h i j k l m n o p q r s t u v w x y z z00 z01 ");
    EXPECT_TRUE(ini.ValueListContains("list", "99"));
    EXPECT_FALSE(ini.ValueListContains("list", "100"));
    EXPECT_FALSE(ini.ValueListContains("none", "1"));
    ini.ValueListAppendUnique("list", "99");
    EXPECT_EQ(ini["list"].size(), 100U);
    ini.ValueListAppendUnique("list", "100");
    EXPECT_TRUE(ini.ValueListContains("list", "100"));
}

TEST(IniFileTest, GroupsAreNumbered) {
    EXPECT_EQ(IniFile::GetGroupIndexStr("a#b# 3"), " 3");
    EXPECT_EQ(IniFile::GetGroupIndexStr("camera#"), "");
    EXPECT_EQ(IniFile::GetGroupIndex("camera#2"), 2);
    EXPECT_EQ(IniFile::GetGroupIndex("a#b# -3"), -3);
    EXPECT_EQ(ErrorOf([] { IniFile::GetGroupIndex("camera"); }),
              "Group name camera does not contain a '#' character");
    EXPECT_EQ(ErrorOf([] { IniFile::GetGroupIndex("camera#x"); }), "Group index x is not a valid integer");
    EXPECT_EQ(ErrorOf([] { IniFile::GetGroupIndex("camera#"); }), "Group index  is not a valid integer");
}

}  // namespace
}  // namespace zarip::core
