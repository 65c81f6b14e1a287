// SPDX-License-Identifier: MIT

#pragma once

#include <ios>
#include <locale>
#include <sstream>
#include <utility>

namespace zarip::core {

/// A string stream with numbers as in the "C" locale, `std::ostringstream` or `std::istringstream`. It throws
/// if memory is short. A plain stream only sets its state then, and the incomplete string looks like a
/// complete one.
template <class Stream>
class TextStream : public Stream {
public:
    template <class... Arguments>
    explicit TextStream(Arguments&&... arguments) : Stream(std::forward<Arguments>(arguments)...) {
        this->imbue(std::locale::classic());
        this->exceptions(std::ios_base::badbit);
    }
};

using OutputText = TextStream<std::ostringstream>;
using InputText = TextStream<std::istringstream>;

}  // namespace zarip::core
