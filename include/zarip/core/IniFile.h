// SPDX-License-Identifier: MIT

#pragma once

#include <iosfwd>
#include <map>
#include <string>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// A table of named groups, each of which is a table of keys and values. It is read from and written to INI
/// files. *One thread at a time*, except that several threads may read at the same time.
///
/// An INI file has lines "key = value" after a line "[group]". Keys before the first such line belong to the
/// group "__GLOBAL__". Lines that begin with ';' or '#' are comments. A key begins with a letter, a digit,
/// '.', '/' or '\\'. Other lines are ignored, so a key that begins with another character is written but not
/// read back. White space around keys and values is removed; quotes stay.
///
/// Numbers are written and read with a decimal point, whatever the locale of the process. Errors are thrown
/// as `osa::Exception` with the message that the function's comment gives. A getter that throws changes
/// nothing.
class ZARIP_EXPORT IniFile {
public:
    /// Keys and values.
    using Group = std::map<std::string, std::string>;

    IniFile();

    /// Loads a file as `Load` does.
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

    /// Replaces the file in one step. So a reader finds the complete old or the complete new content, even
    /// after a power cut. The file keeps its mode and, if permitted, its owner. If the file may be written
    /// but not replaced (because its folder cannot be written, or a file system is mounted on it), it is
    /// overwritten in place, after room for the new content has been reserved.
    ///
    /// Throws "Couldn't open file " + path + " for writing", also for a pipe or a device, which is not
    /// touched, and "Couldn't write file " + path. The old content is then still complete, with two
    /// exceptions: overwriting in place failed half-way for another reason than a full disk, or the new file
    /// is in place and only the folder could not be synchronised.
    void Save(const char* path) const;

    /// The functions that save refuse names and values that would be read back as something else. They then
    /// write nothing and throw "IniFile: " followed by "line feed in a group name", "']' in a group name",
    /// "line feed in a key", "'=' in a key", "'[' at the start of a key" or "line feed in a value". The
    /// caller must check the state of the stream.
    void SaveToStream(std::ostream& stream) const;
    std::string SaveToString() const;

    /// Writes one group below its "[group]" line. Writes nothing if the group is missing.
    void SaveGroupToStream(std::ostream& stream, const std::string& group) const;

    /// Returns the group, which is created empty if it does not exist.
    Group& operator[](const std::string& group);

    /// Returns the group. Throws "no group " + group + " exists in IniFile".
    const Group& operator[](const std::string& group) const;

    bool HasGroup(const std::string& group) const;
    void RemoveGroup(const std::string& group);
    void Clear();

    /// Replaces the content of the group by `values`.
    void OverwriteGroup(const std::string& group, const Group& values);

    /// Sets every key of `values` in the group, which is created if it does not exist. Other keys stay.
    void MergeGroup(const std::string& group, const Group& values);
    static void MergeGroups(Group& destination, const Group& source);

    /// Merges every group of `other`, or only the named group. Does nothing if `other` does not have that
    /// group.
    void MergeSettings(const IniFile& other);
    void MergeSettings(const IniFile& other, const std::string& group);

    /// Returns whether this table has every group of `other`, and in it each key with the same value.
    bool ContainsSettings(const IniFile& other) const;

    bool HasValue(const std::string& group, const std::string& key) const;

    /// Looks in the group "__GLOBAL__".
    bool HasValue(const std::string& key) const;
    static bool GroupHasValue(const Group& group, const std::string& key);

    /// Returns the value. Throws "no group " + group + " exists in IniFile" or "no value " + key + " exists
    /// in group " + group.
    const std::string& GetValue(const std::string& group, const std::string& key) const;

    /// Stores the value in `out`. Returns false and does not change `out` if the value does not exist.
    bool TryGetValue(std::string& out, const std::string& group, const std::string& key) const;
    static bool TryGetValueFromGroup(std::string& out, const Group& group, const std::string& key);

    /// Returns the value, or an empty string that exists as long as this object.
    const std::string& GetValueOrDefault(const std::string& group, const std::string& key) const;
    std::string GetValueOrDefault(const std::string& group, const std::string& key,
                                  const std::string& fallback) const;

    /// Returns the value. Throws "no value " + key + " exists in group". Deliberate: the message ends there,
    /// because a group does not contain its name. Callers distinguish this failure from that of `GetValue` by
    /// the message.
    static const std::string& GetValueFromGroup(const Group& group, const std::string& key);

    /// The typed getters read a value as `GetValue` and `GetValueFromGroup` do and convert it. If it cannot
    /// be converted, they throw "value " + key + " must be a valid " followed by "integer", "double" or
    /// "boolean". The getters with a default return the default if the key or the group does not exist. They
    /// throw like the others if the value exists but cannot be converted. Integers are decimal. Booleans are
    /// "true", "1", "false" and "0", in upper or lower case. White space around a value is allowed.
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

    /// These functions use a group as a list. A value is stored under the key "0" in an empty group,
    /// otherwise under the key that `GetNextKeyName` makes from the greatest key.
    void ValueListAppend(const std::string& group, const std::string& value);
    void ValueListAppendUnique(const std::string& group, const std::string& value);
    bool ValueListContains(const std::string& group, const std::string& value) const;

    /// Returns the part of a group name after its last '#'. Throws "Group name " + group + " does not contain
    /// a '#' character".
    static std::string GetGroupIndexStr(const std::string& group);

    /// Returns the same part as a number. Also throws "Group index " + text + " is not a valid integer".
    static int GetGroupIndex(const std::string& group);

    /// Advances the key to the next one of the same length, like an odometer with the digits 0-9, A-Z, a-z.
    /// Deliberate: if the key cannot advance (because all of its characters are 'z', or its last character
    /// other than 'z' is neither a digit nor a letter), zeros are appended. Their number is (sqrt(8 * length
    /// + 1) + 1) / 2: "" becomes "0", "z" becomes "z00", "zzz" becomes "zzz000". So generated keys sort in
    /// the order in which they were made.
    static void GetNextKeyName(std::string& key);

private:
    std::map<std::string, Group> _groups;
    std::string _empty;
};

}  // namespace zarip::core
