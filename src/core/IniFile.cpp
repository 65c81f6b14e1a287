// SPDX-License-Identifier: MIT

#include "zarip/core/IniFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <istream>
#include <locale>
#include <string_view>

#include "core/ReadFileBlocks.h"
#include "core/TextStream.h"
#include "core/Trim.h"
#include "osa/FileCalls.h"
#include "osa/FileReplacement.h"
#include "osa/UniqueFd.h"
#include "zarip/core/StringUtil.h"
#include "zarip/osa/Exception.h"

namespace zarip::core {

namespace {

const std::string& GlobalGroup() {
    static const auto* const name = new std::string("__GLOBAL__");
    return *name;
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool IsLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool MayBeginKey(char c) {
    return IsLetter(c) || IsDigit(c) || c == '.' || c == '/' || c == '\\';
}

/// Parses lines and stores their content.
class Loader {
public:
    explicit Loader(std::map<std::string, IniFile::Group>& groups) : _groups(groups), _name(GlobalGroup()) {}

    /// Parses the complete lines of a block, which continues the block before it.
    void TakeBlock(std::string_view block) {
        for (;;) {
            const std::size_t end = block.find('\n');
            if (end == std::string_view::npos) {
                _begun.append(block);
                return;
            }
            if (_begun.empty()) {
                TakeLine(block.substr(0, end));
            } else {
                _begun.append(block.substr(0, end));
                TakeLine(_begun);
                _begun.clear();
            }
            block.remove_prefix(end + 1);
        }
    }

    /// A last line needs no line feed.
    void TakeRest() { TakeLine(_begun); }

private:
    void TakeLine(std::string_view line) {
        if (line.empty()) {
            return;
        }
        if (line[0] == '[') {
            const std::size_t end = line.find(']');
            if (end != std::string_view::npos) {
                _name.assign(line.substr(1, end - 1));
                _group = nullptr;
            }
            return;
        }
        const std::size_t equals = MayBeginKey(line[0]) ? line.find('=') : std::string_view::npos;
        if (equals == std::string_view::npos) {
            return;
        }
        if (_group == nullptr) {
            _group = &_groups[_name];  // only now: a group without keys is not kept
        }
        const std::string_view value = TrimBeforeZero(line.substr(equals + 1));
        const std::string_view key = TrimBeforeZero(line.substr(0, equals));
        // A file that this class has saved has its keys in order, so the end of the group is usually the
        // right place.
        const std::size_t size = _group->size();
        const auto entry = _group->emplace_hint(_group->end(), key, value);
        if (_group->size() == size) {
            entry->second.assign(value);
        }
    }

    std::map<std::string, IniFile::Group>& _groups;
    std::string _name;
    IniFile::Group* _group = nullptr;
    std::string _begun;
};

void Refuse(bool isWrong, const char* what) {
    if (isWrong) {
        throw osa::Exception(std::string("IniFile: ") + what);
    }
}

bool Contains(const std::string& text, char c) {
    return text.find(c) != std::string::npos;
}

/// Refuses names and values that would be read back as another line, another group or another key.
void CheckGroup(const std::string& name, const IniFile::Group& group) {
    Refuse(Contains(name, '\n'), "line feed in a group name");
    Refuse(Contains(name, ']'), "']' in a group name");
    for (const auto& [key, value] : group) {
        Refuse(Contains(key, '\n'), "line feed in a key");
        Refuse(Contains(key, '='), "'=' in a key");
        Refuse(!key.empty() && key[0] == '[', "'[' at the start of a key");
        Refuse(Contains(value, '\n'), "line feed in a value");
    }
}

void WriteKeys(std::ostream& stream, const IniFile::Group& group) {
    for (const auto& [key, value] : group) {
        stream << key << " = " << value << '\n';
    }
    stream << '\n' << std::flush;
}

void WriteGroup(std::ostream& stream, const std::string& name, const IniFile::Group& group) {
    stream << '[' << name << "]\n";
    WriteKeys(stream, group);
}

/// Opens a file for writing and brings `status` up to date. False for a pipe, a device or anything else that
/// is not a file. Opening one of these may wait or have an effect, so they are recognised before.
bool OpenFile(const std::string& path, struct stat& status, osa::UniqueFd& file) {
    if (!S_ISREG(status.st_mode)) {
        return false;
    }
    file = osa::UniqueFd(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
    return file.IsValid() && ::fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode);
}

enum class Replaced { kDone, kNotOpened, kNotWritten };

/// Writes a new file that takes the place of the old one, if there is one. On failure errno is set.
Replaced Replace(const std::string& target, const struct stat* old, const std::string& text) {
    osa::FileReplacement replacement(target);
    if (!replacement.Open(old != nullptr ? 0600 : 0666)) {
        return Replaced::kNotOpened;
    }
    if (!osa::WriteAll(replacement.GetFd(), text) || (old != nullptr && !replacement.TakeOver(*old))) {
        return Replaced::kNotWritten;
    }
    switch (replacement.Finish()) {
        case osa::FileReplacement::Finished::kDone:
            return Replaced::kDone;
        case osa::FileReplacement::Finished::kNotReplaced:
            return Replaced::kNotOpened;
        case osa::FileReplacement::Finished::kFailed:
            break;
    }
    return Replaced::kNotWritten;
}

/// Whether a file that could not be replaced may still be writable: its folder or its file system does not
/// permit replacing, or another file system is mounted on it.
bool IsOnlyIrreplaceable(int error) {
    return error == EACCES || error == EPERM || error == EROFS || error == EBUSY || error == EXDEV;
}

/// Overwrites a file. The room is reserved first, so a full disk does not damage the old content. False with
/// errno.
bool WriteInPlace(int fd, off_t oldSize, const std::string& text) {
    const auto size = static_cast<off_t>(text.size());
    if (size > oldSize) {
        const int error = ::posix_fallocate(fd, oldSize, size - oldSize);
        if (error != 0) {
            static_cast<void>(::ftruncate(fd, oldSize) == 0);
            errno = error;
            return false;
        }
    }
    return osa::WriteAll(fd, text) && ::ftruncate(fd, size) == 0 && osa::Synchronise(fd);
}

[[noreturn]] void ThrowNotConverted(const std::string& key, const char* type) {
    throw osa::Exception("value " + key + " must be a valid " + type);
}

template <class T>
constexpr const char* kTypeName = nullptr;
template <>
constexpr const char* kTypeName<int> = "integer";
template <>
constexpr const char* kTypeName<double> = "double";
template <>
constexpr const char* kTypeName<bool> = "boolean";

template <class T>
T Convert(const std::string& value, const std::string& key) {
    T result{};
    if (!StringUtil::TryParse(value, result)) {
        ThrowNotConverted(key, kTypeName<T>);
    }
    return result;
}

const std::string* FindIn(const IniFile::Group& group, const std::string& key) {
    const auto entry = group.find(key);
    return entry != group.end() ? &entry->second : nullptr;
}

const std::string* FindIn(const std::map<std::string, IniFile::Group>& groups, const std::string& group,
                          const std::string& key) {
    const auto entry = groups.find(group);
    return entry != groups.end() ? FindIn(entry->second, key) : nullptr;
}

template <class T>
T ConvertOr(const std::string* value, const std::string& key, T fallback) {
    return value != nullptr ? Convert<T>(*value, key) : fallback;
}

bool TryCopy(std::string& out, const std::string* value) {
    if (value == nullptr) {
        return false;
    }
    out = *value;
    return true;
}

}  // namespace

IniFile::IniFile() = default;

IniFile::IniFile(const char* path) {
    Load(path);
}

IniFile::IniFile(const IniFile& other) = default;
IniFile& IniFile::operator=(const IniFile& other) = default;
IniFile::~IniFile() = default;

void IniFile::Load(const char* path) {
    const std::string name = path != nullptr ? path : "";
    Loader loader(_groups);
    if (!ReadBlocks(name.c_str(), [&](std::string_view block) { loader.TakeBlock(block); })) {
        throw osa::Exception("Couldn't open file " + name + " for reading");
    }
    loader.TakeRest();
}

void IniFile::LoadFromStream(std::istream& stream) {
    const std::istream::sentry ready(stream, true);
    if (!ready) {
        return;
    }
    Loader loader(_groups);
    char block[16384];
    std::ios_base::iostate state = std::ios_base::goodbit;
    try {
        // It reads only as much as the stream has buffered, so that nothing is lost if a later read fails.
        std::streambuf& source = *stream.rdbuf();
        while (source.sgetc() != std::streambuf::traits_type::eof()) {
            const auto available = std::max<std::streamsize>(source.in_avail(), 1);
            const auto read = source.sgetn(block, std::min<std::streamsize>(available, sizeof block));
            loader.TakeBlock({block, static_cast<std::size_t>(read)});
        }
        loader.TakeRest();
        state = std::ios_base::eofbit | std::ios_base::failbit;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        state = std::ios_base::badbit;
    }
    stream.setstate(state);
}

void IniFile::LoadFromString(const std::string& text) {
    Loader loader(_groups);
    loader.TakeBlock(text);
    loader.TakeRest();
}

void IniFile::Save(const char* path) const {
    const std::string name = path != nullptr ? path : "";
    const std::string text = SaveToString();
    const std::string target = osa::FollowLinks(name);

    // A file that may not be written is not replaced either.
    struct stat old {};
    osa::UniqueFd file;
    const bool exists = ::lstat(target.c_str(), &old) == 0;
    Replaced result = Replaced::kNotOpened;
    if (exists ? OpenFile(target, old, file) : errno == ENOENT) {
        result = Replace(target, exists ? &old : nullptr, text);
        if (result != Replaced::kDone && exists) {
            const bool isDone = IsOnlyIrreplaceable(errno) && WriteInPlace(file.Get(), old.st_size, text);
            result = isDone ? Replaced::kDone : Replaced::kNotWritten;
        }
    }
    if (result == Replaced::kNotOpened) {
        throw osa::Exception("Couldn't open file " + name + " for writing");
    }
    if (result == Replaced::kNotWritten) {
        throw osa::Exception("Couldn't write file " + name);
    }
}

void IniFile::SaveToStream(std::ostream& stream) const {
    for (const auto& [name, group] : _groups) {
        CheckGroup(name, group);
    }
    const auto global = _groups.find(GlobalGroup());
    if (global != _groups.end()) {
        WriteKeys(stream, global->second);
    }
    for (auto entry = _groups.begin(); entry != _groups.end(); ++entry) {
        if (entry != global) {
            WriteGroup(stream, entry->first, entry->second);
        }
    }
}

std::string IniFile::SaveToString() const {
    OutputText stream;
    SaveToStream(stream);
    return stream.str();
}

void IniFile::SaveGroupToStream(std::ostream& stream, const std::string& group) const {
    const auto entry = _groups.find(group);
    if (entry != _groups.end()) {
        CheckGroup(group, entry->second);
        WriteGroup(stream, group, entry->second);
    }
}

IniFile::Group& IniFile::operator[](const std::string& group) {
    return _groups[group];
}

const IniFile::Group& IniFile::operator[](const std::string& group) const {
    const auto entry = _groups.find(group);
    if (entry == _groups.end()) {
        throw osa::Exception("no group " + group + " exists in IniFile");
    }
    return entry->second;
}

bool IniFile::HasGroup(const std::string& group) const {
    return _groups.count(group) != 0;
}

void IniFile::RemoveGroup(const std::string& group) {
    _groups.erase(group);
}

void IniFile::Clear() {
    _groups.clear();
}

void IniFile::OverwriteGroup(const std::string& group, const Group& values) {
    _groups[group] = values;
}

void IniFile::MergeGroup(const std::string& group, const Group& values) {
    MergeGroups(_groups[group], values);
}

void IniFile::MergeGroups(Group& destination, const Group& source) {
    for (const auto& [key, value] : source) {
        destination[key] = value;
    }
}

void IniFile::MergeSettings(const IniFile& other) {
    for (const auto& [name, group] : other._groups) {
        MergeGroup(name, group);
    }
}

void IniFile::MergeSettings(const IniFile& other, const std::string& group) {
    const auto entry = other._groups.find(group);
    if (entry != other._groups.end()) {
        MergeGroup(group, entry->second);
    }
}

bool IniFile::ContainsSettings(const IniFile& other) const {
    for (const auto& [name, group] : other._groups) {
        const auto own = _groups.find(name);
        if (own == _groups.end()) {
            return false;
        }
        for (const auto& [key, value] : group) {
            const std::string* const found = FindIn(own->second, key);
            if (found == nullptr || *found != value) {
                return false;
            }
        }
    }
    return true;
}

bool IniFile::HasValue(const std::string& group, const std::string& key) const {
    return FindIn(_groups, group, key) != nullptr;
}

bool IniFile::HasValue(const std::string& key) const {
    return HasValue(GlobalGroup(), key);
}

bool IniFile::GroupHasValue(const Group& group, const std::string& key) {
    return FindIn(group, key) != nullptr;
}

const std::string& IniFile::GetValue(const std::string& group, const std::string& key) const {
    const std::string* const value = FindIn((*this)[group], key);
    if (value == nullptr) {
        throw osa::Exception("no value " + key + " exists in group " + group);
    }
    return *value;
}

bool IniFile::TryGetValue(std::string& out, const std::string& group, const std::string& key) const {
    return TryCopy(out, FindIn(_groups, group, key));
}

bool IniFile::TryGetValueFromGroup(std::string& out, const Group& group, const std::string& key) {
    return TryCopy(out, FindIn(group, key));
}

const std::string& IniFile::GetValueOrDefault(const std::string& group, const std::string& key) const {
    const std::string* const value = FindIn(_groups, group, key);
    return value != nullptr ? *value : _empty;
}

std::string IniFile::GetValueOrDefault(const std::string& group, const std::string& key,
                                       const std::string& fallback) const {
    const std::string* const value = FindIn(_groups, group, key);
    return value != nullptr ? *value : fallback;
}

const std::string& IniFile::GetValueFromGroup(const Group& group, const std::string& key) {
    const std::string* const value = FindIn(group, key);
    if (value == nullptr) {
        // Deliberate: the message ends here. Callers distinguish this failure from that of GetValue by it.
        throw osa::Exception("no value " + key + " exists in group");
    }
    return *value;
}

int IniFile::GetInt(const std::string& group, const std::string& key) const {
    return Convert<int>(GetValue(group, key), key);
}

double IniFile::GetDouble(const std::string& group, const std::string& key) const {
    return Convert<double>(GetValue(group, key), key);
}

bool IniFile::GetBool(const std::string& group, const std::string& key) const {
    return Convert<bool>(GetValue(group, key), key);
}

int IniFile::GetIntFromGroup(const Group& group, const std::string& key) {
    return Convert<int>(GetValueFromGroup(group, key), key);
}

double IniFile::GetDoubleFromGroup(const Group& group, const std::string& key) {
    return Convert<double>(GetValueFromGroup(group, key), key);
}

bool IniFile::GetBoolFromGroup(const Group& group, const std::string& key) {
    return Convert<bool>(GetValueFromGroup(group, key), key);
}

int IniFile::GetIntOrDefault(const std::string& group, const std::string& key, int fallback) const {
    return ConvertOr(FindIn(_groups, group, key), key, fallback);
}

double IniFile::GetDoubleOrDefault(const std::string& group, const std::string& key, double fallback) const {
    return ConvertOr(FindIn(_groups, group, key), key, fallback);
}

bool IniFile::GetBoolOrDefault(const std::string& group, const std::string& key, bool fallback) const {
    return ConvertOr(FindIn(_groups, group, key), key, fallback);
}

int IniFile::GetIntOrDefaultFromGroup(const Group& group, const std::string& key, int fallback) {
    return ConvertOr(FindIn(group, key), key, fallback);
}

double IniFile::GetDoubleOrDefaultFromGroup(const Group& group, const std::string& key, double fallback) {
    return ConvertOr(FindIn(group, key), key, fallback);
}

bool IniFile::GetBoolOrDefaultFromGroup(const Group& group, const std::string& key, bool fallback) {
    return ConvertOr(FindIn(group, key), key, fallback);
}

void IniFile::SetValue(const std::string& group, const std::string& key, const std::string& value) {
    _groups[group][key] = value;
}

void IniFile::SetInt(const std::string& group, const std::string& key, int value) {
    SetIntToGroup(_groups[group], key, value);
}

void IniFile::SetDouble(const std::string& group, const std::string& key, double value) {
    SetDoubleToGroup(_groups[group], key, value);
}

void IniFile::SetBool(const std::string& group, const std::string& key, bool value) {
    SetBoolToGroup(_groups[group], key, value);
}

void IniFile::SetIntToGroup(Group& group, const std::string& key, int value) {
    group[key] = std::to_string(value);
}

void IniFile::SetDoubleToGroup(Group& group, const std::string& key, double value) {
    OutputText stream;
    stream << value;
    group[key] = stream.str();
}

void IniFile::SetBoolToGroup(Group& group, const std::string& key, bool value) {
    group[key] = value ? "true" : "false";
}

void IniFile::ValueListAppend(const std::string& group, const std::string& value) {
    Group& list = _groups[group];
    std::string key;
    if (!list.empty()) {
        key = list.rbegin()->first;
    }
    GetNextKeyName(key);
    list[key] = value;
}

void IniFile::ValueListAppendUnique(const std::string& group, const std::string& value) {
    if (!ValueListContains(group, value)) {
        ValueListAppend(group, value);
    }
}

bool IniFile::ValueListContains(const std::string& group, const std::string& value) const {
    const auto entry = _groups.find(group);
    return entry != _groups.end() &&
           std::any_of(entry->second.begin(), entry->second.end(),
                       [&](const Group::value_type& item) { return item.second == value; });
}

std::string IniFile::GetGroupIndexStr(const std::string& group) {
    const std::size_t mark = group.rfind('#');
    if (mark == std::string::npos) {
        throw osa::Exception("Group name " + group + " does not contain a '#' character");
    }
    return group.substr(mark + 1);
}

int IniFile::GetGroupIndex(const std::string& group) {
    const std::string text = GetGroupIndexStr(group);
    int index = 0;
    if (!StringUtil::TryParse(text, index)) {
        throw osa::Exception("Group index " + text + " is not a valid integer");
    }
    return index;
}

void IniFile::GetNextKeyName(std::string& key) {
    std::size_t position = key.find_last_not_of('z');
    if (position != std::string::npos && (IsDigit(key[position]) || IsLetter(key[position]))) {
        char& c = key[position];
        c = c == '9' ? 'A' : c == 'Z' ? 'a' : static_cast<char>(c + 1);
        while (++position < key.size()) {
            key[position] = '0';
        }
        return;
    }
    const double length = static_cast<double>(key.size());
    key.append(static_cast<std::size_t>((std::sqrt(8 * length + 1) + 1) / 2), '0');
}

}  // namespace zarip::core
