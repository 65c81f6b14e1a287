// SPDX-License-Identifier: MIT

#pragma once

#include <iosfwd>
#include <map>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// A table of named groups, each a table of keys and values, read from and written to INI text. *One thread
/// at a time*, except that several threads may read at the same time.
///
/// An INI text has lines "key = value" below a "[group]" line. Keys before the first group line belong to
/// "__GLOBAL__". Lines that begin with ';' or '#' are comments. A key begins with a letter, a digit, '.', '/'
/// or '\\'. Other lines are ignored, so a key that begins with another character is written but not read
/// back. White space around keys and values is removed; quotes stay.
///
/// Numbers are written and read with a decimal point, whatever the locale of the process. Errors are thrown
/// as `osa::Exception` with the message that the function's comment gives. A getter that throws changes
/// nothing.
class ZARIP_EXPORT IniFile {
public:
    /// Keys and values.
    using Group = std::map<std::string, std::string>;

    IniFile();

    /// Loads the file.
    explicit IniFile(const char* path);

    IniFile(const IniFile& other);
    IniFile& operator=(const IniFile& other);
    ~IniFile();

    /// Adds the content of the file. A value that exists already is replaced. Throws "Couldn't open file " +
    /// path + " for reading", also if the path can be opened but not read, such as a folder. What was read
    /// before the failure stays.
    void Load(const char* path);
    void LoadFromStream(std::istream& stream);
    void LoadFromString(const std::string& text);

    /// Replaces the file in one step, so that a reader, also one after a power cut, finds the complete old or
    /// the complete new content. The mode stays and, if permitted, the owner. A file that may be written but
    /// not replaced (its folder cannot be written, or another file system is mounted on it) is overwritten in
    /// place, after room for the new content has been reserved.
    ///
    /// Throws "Couldn't open file " + path + " for writing", also for a pipe or a device, which is not
    /// touched, and "Couldn't write file " + path. The old content is then still complete, with two
    /// exceptions: overwriting in place failed half-way for another reason than a full disk, or the new file
    /// is in place and only the folder could not be synchronised.
    void Save(const char* path) const;

    /// Each function that saves refuses names and values that would be read back as something else. It then
    /// writes nothing and throws "IniFile: " and "line feed in a group name", "']' in a group name", "line
    /// feed in a key", "'=' in a key", "'[' at the start of a key" or "line feed in a value". The caller
    /// checks the state of the stream.
    void SaveToStream(std::ostream& stream) const;
    std::string SaveToString() const;

    /// Writes one group below its "[group]" line. Writes nothing if the group is missing.
    void SaveGroupToStream(std::ostream& stream, const std::string& group) const;

    /// The group, which is created empty if it is missing.
    Group& operator[](const std::string& group);

    /// Throws "no group " + group + " exists in IniFile".
    const Group& operator[](const std::string& group) const;

    bool HasGroup(const std::string& group) const;
    void RemoveGroup(const std::string& group);
    void Clear();

    /// Replaces the content of the group by `values`.
    void OverwriteGroup(const std::string& group, const Group& values);

    /// Sets every key of `values` in the group, which is created if it is missing. Other keys stay.
    void MergeGroup(const std::string& group, const Group& values);
    static void MergeGroups(Group& destination, const Group& source);

    /// Merges every group of `other`, or the named one. A group that `other` does not have changes nothing.
    void MergeSettings(const IniFile& other);
    void MergeSettings(const IniFile& other, const std::string& group);

    /// Whether every group of `other` is here and holds each of its keys with an equal value.
    bool ContainsSettings(const IniFile& other) const;

    bool HasValue(const std::string& group, const std::string& key) const;

    /// Looks in "__GLOBAL__".
    bool HasValue(const std::string& key) const;
    static bool GroupHasValue(const Group& group, const std::string& key);

    /// Throws "no group " + group + " exists in IniFile" or "no value " + key + " exists in group " + group.
    const std::string& GetValue(const std::string& group, const std::string& key) const;

    /// `out` changes only when the value exists.
    bool TryGetValue(std::string& out, const std::string& group, const std::string& key) const;
    static bool TryGetValueFromGroup(std::string& out, const Group& group, const std::string& key);

    /// The value, or an empty string that lives as long as this object.
    const std::string& GetValueOrDefault(const std::string& group, const std::string& key) const;
    std::string GetValueOrDefault(const std::string& group, const std::string& key,
                                  const std::string& fallback) const;

    /// Throws "no value " + key + " exists in group". Deliberate: nothing follows the last word, since a
    /// group does not know its name. Callers distinguish the two failures by it.
    static const std::string& GetValueFromGroup(const Group& group, const std::string& key);

    /// The typed getters read as `GetValue` and `GetValueFromGroup` do and throw "value " + key + " must be a
    /// valid " + "integer", "double" or "boolean" for any other value. Those with a default return it if the
    /// key or the group is missing, and throw like the others if the value exists and cannot be converted.
    /// Integers are decimal; "true", "1", "false" and "0" are booleans, in upper or lower case; white space
    /// around any of them is allowed.
    int GetInt(const std::string& group, const std::string& key) const;
    double GetDouble(const std::string& group, const std::string& key) const;
    bool GetBool(const std::string& group, const std::string& key) const;
    static int GetIntFromGroup(const Group& group, const std::string& key);
    static double GetDoubleFromGroup(const Group& group, const std::string& key);
    static bool GetBoolFromGroup(const Group& group, const std::string& key);

    int GetIntOrDefault(const std::string& group, const std::string& key, int fallback) const;
    double GetDoubleOrDefault(const std::string& group, const std::string& key, double fallback) const;
    bool GetBoolOrDefault(const std::string& group, const std::string& key, bool fallback) const;
    static int GetIntOrDefaultFromGroup(const Group& group, const std::string& key, int fallback);
    static double GetDoubleOrDefaultFromGroup(const Group& group, const std::string& key, double fallback);
    static bool GetBoolOrDefaultFromGroup(const Group& group, const std::string& key, bool fallback);

    /// Setters create the group. Doubles are stored with six significant digits, booleans as "true" or
    /// "false".
    void SetValue(const std::string& group, const std::string& key, const std::string& value);
    void SetInt(const std::string& group, const std::string& key, int value);
    void SetDouble(const std::string& group, const std::string& key, double value);
    void SetBool(const std::string& group, const std::string& key, bool value);
    static void SetIntToGroup(Group& group, const std::string& key, int value);
    static void SetDoubleToGroup(Group& group, const std::string& key, double value);
    static void SetBoolToGroup(Group& group, const std::string& key, bool value);

    /// Uses a group as a list: stores the value under "0" in an empty group, otherwise under the key that
    /// `GetNextKeyName` makes of the greatest key.
    void ValueListAppend(const std::string& group, const std::string& value);
    void ValueListAppendUnique(const std::string& group, const std::string& value);
    bool ValueListContains(const std::string& group, const std::string& value) const;

    /// The part after the last '#' of a group's name; throws "Group name " + group + " does not contain a '#'
    /// character".
    static std::string GetGroupIndexStr(const std::string& group);

    /// Throws the same, and "Group index " + text + " is not a valid integer".
    static int GetGroupIndex(const std::string& group);

    /// Advances the key like an odometer over 0-9, A-Z, a-z of constant length. Deliberate: a key that cannot
    /// advance (empty, all 'z', or with another character followed by nothing but 'z') gets '0' appended,
    /// (sqrt(8 * length + 1) + 1) / 2 of them: "" becomes "0", "z" "z00", "zzz" "zzz000". So generated keys
    /// sort in the order in which they were made.
    static void GetNextKeyName(std::string& key);

private:
    std::map<std::string, Group> _groups;
    std::string _empty;
};

}  // namespace zarip::core
