// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::inet {

class HttpBase;
class HttpResponseBase;

/// The first line of a response, without its end.
std::string StatusLine(const HttpResponseBase& response);

/// Completes a first line to the head of a message: the line's end, the headers and an empty line. Throws
/// "BadRequest" for a carriage return, line feed or zero byte in the first line.
void FinishHead(std::string& head, const HttpBase& message);

}  // namespace zarip::inet
