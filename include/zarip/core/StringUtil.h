// SPDX-License-Identifier: MIT

#pragma once

#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <zarip/osa/Export.h>

namespace zarip::core {

/// Operations on strings, byte by byte. *Thread-safe*. White space is what `std::isspace` accepts. Numbers
/// are read as in the classic locale, whatever the locale of the process. If a `TryParse` returns false, it
/// has not changed its output.
class ZARIP_EXPORT StringUtil {
public:
    /// The default of `maxParts`, which in practice means no limit.
    static constexpr unsigned int kMaxParts = 178956970;

    static bool StartsWith(const std::string& text, const std::string& prefix);
    static bool EndsWith(const std::string& text, const std::string& suffix);

    /// Returns at most `length` bytes from `pos`, up to a zero byte, without white space at both ends. Throws
    /// `osa::Exception` "StringUtil::Strip: pos out of range" if `pos` is greater than the string's length.
    static std::string Strip(const std::string& text, unsigned int pos = 0,
                             unsigned int length = 0xFFFFFFFFU);

    /// Returns the part after the first `begin` and before the next `end`, without white space at both ends.
    /// An empty marker means the beginning or the end of the string. If a marker is not found, the result is
    /// empty.
    static std::string Strip(const std::string& text, const std::string& begin, const std::string& end);

    static void ToLower(std::string& text);
    static void ToUpper(std::string& text);

    /// Returns the characters of `text`. Deliberate: the second argument is never used, and an empty string
    /// stays empty. Callers print the result as it is.
    static const char* ToCStr(const std::string& text, const char* fallback);

    /// Replaces every `from` by `to`, from left to right, and continues after each inserted `to`. Does
    /// nothing if `from` is empty.
    static void Replace(std::string& text, const std::string& from, const std::string& to);

    /// Replaces each character that has an entry in the table.
    static void Escape(std::string& text, const std::map<char, std::string>& table);
    static void Escape(std::string& text, char character, const std::string& replacement);

    /// Replaces quotes, ampersands, apostrophes, less-than and greater-than signs by entities.
    static void EscapeForXml(std::string& text);

    /// Decodes percent escapes such as "%41". Incomplete escapes stay. Everything after a decoded zero byte
    /// is lost.
    static void UrlDecode(std::string& text);

    /// Returns whether the string matches a pattern of shell wildcards. `*` matches any characters and `?`
    /// one character, including '/' and a leading '.'. "[a-z]" matches one character of a class.
    static bool MatchesPattern(const std::string& pattern, const std::string& text);

    /// Splits `text` at each of the delimiter characters and appends the pieces to `out`. Empty pieces are
    /// kept, and an empty string is one empty piece. After `maxParts` - 1 pieces, the rest is the last piece.
    /// If `maxParts` is 0, nothing is appended.
    static void Split(std::vector<std::string>& out, const std::string& text, const std::string& delimiters,
                      unsigned int maxParts);
    static std::vector<std::string> Split(const std::string& text, char delimiter);
    static std::vector<std::string> Split(const std::string& text, const std::string& delimiters);
    static std::vector<std::string> Split(const std::string& text, const std::string& delimiters,
                                          unsigned int maxParts);

    /// These functions do the same and store the pieces in a set.
    static void SetSplit(std::set<std::string>& out, const std::string& text, const std::string& delimiters,
                         unsigned int maxParts);
    static std::set<std::string> SetSplit(const std::string& text, char delimiter);
    static std::set<std::string> SetSplit(const std::string& text, const std::string& delimiters);
    static std::set<std::string> SetSplit(const std::string& text, const std::string& delimiters,
                                          unsigned int maxParts);

    /// These functions return the elements in their order, with the separator between them.
    static std::string Join(const std::vector<std::string>& parts, char separator);
    static std::string Join(const std::vector<std::string>& parts, const std::string& separator);
    static std::string Join(const std::set<std::string>& parts, char separator);
    static std::string Join(const std::set<std::string>& parts, const std::string& separator);

    /// Parses "true" or "1", and "false" or "0", in upper or lower case. All forms of `TryParse` allow white
    /// space around the value, and nothing else.
    static bool TryParse(const std::string& text, bool& out);

    /// Parses a decimal number with an optional sign.
    static bool TryParse(const std::string& text, int& out);

    /// Parses the same, from -128 to 127.
    static bool TryParse(const std::string& text, signed char& out);

    /// Parses a decimal number, or a hexadecimal one after "0x" or "0X", without a sign.
    static bool TryParse(const std::string& text, unsigned int& out);

    /// Parses the same, up to 255.
    static bool TryParse(const std::string& text, unsigned char& out);

    static bool TryParse(const std::string& text, double& out);

    /// Appends everything that remains in the stream to `out`.
    static void ReadToEnd(std::istream& stream, std::string& out);

    /// Returns the content of a file. Throws `osa::Exception` "File '" + path + "' does not exist", also if
    /// the path can be opened but not read, such as a folder.
    static std::string ReadTextFile(const std::string& path);
};

}  // namespace zarip::core
