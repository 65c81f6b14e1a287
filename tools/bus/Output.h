// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>
#include <vector>

struct DBusMessage;

// The output of the program. Everything goes through `Print` and `Complain`, so that no control character
// that came from the bus reaches a terminal.

namespace bus {

using Strings = std::vector<std::string>;

/// Replaces control characters, and bytes that are not UTF-8, by "
/// ", "\u001b", "\xff" and the like.
std::string Printable(const std::string& text);

/// Prints one line.
void Print(const std::string& line);

/// Prints one line to the standard error output, after the name of the program.
void Complain(const std::string& line);

/// Throws if not all of the output could be written.
void Flush();

/// Returns the shortest text that is parsed as the same number.
std::string Shortest(double number);

std::string JsonString(const std::string& text);
std::string JsonArray(const Strings& elements);

/// A JSON object in one line.
class JsonObject {
public:
    /// @param json  the value as JSON.
    void Add(const char* name, const std::string& json);
    std::string Get() const { return "{" + _members + "}"; }

private:
    std::string _members;
};

/// Returns the arguments of a message as a JSON array.
std::string ArgumentsAsJson(DBusMessage* message);

/// Returns the arguments of a message. A string is unchanged, any other type is JSON.
Strings ArgumentsAsText(DBusMessage* message);

}  // namespace bus
