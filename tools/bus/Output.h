// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <string_view>
#include <vector>

struct DBusMessage;

// What the program prints. Everything goes through `Print` and `Complain`, so that no control character that
// came from the bus reaches a terminal.

namespace bus {

using Strings = std::vector<std::string>;

/// The text with its control characters, and bytes that are not UTF-8, as "\n", "\u001b", "\xff" and the
/// like.
std::string Printable(const std::string& text);

/// Prints one line.
void Print(const std::string& line);

/// Prints one line to the standard error output, after the name of the program.
void Complain(const std::string& line);

/// Throws when something that was printed is lost.
void Flush();

/// The shortest text that is read back as the same number.
std::string Shortest(double number);

std::string JsonString(const std::string& text);
std::string JsonArray(const Strings& elements);

/// An object of JSON in one line.
class JsonObject {
public:
    /// @param json  the value as JSON.
    void Add(const char* name, const std::string& json);
    std::string Get() const { return "{" + _members + "}"; }

private:
    std::string _members;
};

/// The arguments of a message as an array of JSON.
std::string ArgumentsAsJson(DBusMessage* message);

/// The arguments of a message: a string as it is, anything else as JSON.
Strings ArgumentsAsText(DBusMessage* message);

}  // namespace bus
