// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::inet {

class HttpBase;
class HttpResponseBase;

/// Makes the first line of a response, without its line end.
std::string MakeStatusLine(const HttpResponseBase& response);

/// Appends the line end, the headers and an empty line to the first line of a message. Throws "BadRequest" if
/// the first line contains a carriage return, a line feed or a zero byte.
void CompleteHead(std::string& head, const HttpBase& message);

}  // namespace zarip::inet
