#pragma once

namespace zarip::cutil {

/// Removes the line end, "\n" or "\r\n", from the end of the text; also a "\r" whose line feed is gone
/// already.
void chomp(char* text);

}  // namespace zarip::cutil
