// SPDX-License-Identifier: MIT

#include "cutil/chomp.h"

#include <cstring>

namespace zarip::cutil {

void chomp(char* text) {
    chomp(text, std::strlen(text));
}

std::size_t chomp(char* text, std::size_t length) {
    if (length > 0 && text[length - 1] == '\n') {
        --length;
    }
    if (length > 0 && text[length - 1] == '\r') {
        --length;
    }
    text[length] = '\0';
    return length;
}

}  // namespace zarip::cutil
