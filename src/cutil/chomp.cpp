#include "cutil/chomp.h"

#include <cstring>

namespace zarip::cutil {

void chomp(char* text) {
    std::size_t length = std::strlen(text);
    if (length > 0 && text[length - 1] == '\n') {
        --length;
    }
    if (length > 0 && text[length - 1] == '\r') {
        --length;
    }
    text[length] = '\0';
}

}  // namespace zarip::cutil
