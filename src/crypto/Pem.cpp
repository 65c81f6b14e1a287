// SPDX-License-Identifier: MIT

#include "crypto/Pem.h"

#include <cstdint>
#include <string>

#include "zarip/crypto/CryptoException.h"

namespace zarip::crypto {

namespace {

constexpr std::size_t kMaxText = 65'536;
constexpr std::size_t kLineLength = 64;
constexpr std::string_view kDashes = "-----";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // some editors write it at the beginning
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void Require(bool holds) {
    if (!holds) {
        throw CryptoException("invalid PEM text");
    }
}

/// Returns the next line without its line end and the white space before that.
std::string_view TakeLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
        line.remove_suffix(1);
    }
    return line;
}

bool StartsWith(std::string_view line, std::string_view start) {
    return line.substr(0, start.size()) == start;
}

/// Returns the part of a line between `start` and the final dashes; empty if the line does not have both.
std::string_view GetLabel(std::string_view line, std::string_view start) {
    if (!StartsWith(line, start) || line.size() <= start.size() + kDashes.size() ||
        line.substr(line.size() - kDashes.size()) != kDashes) {
        return {};
    }
    return line.substr(start.size(), line.size() - start.size() - kDashes.size());
}

/// Returns whether the label is `kind`, possibly after other words.
bool IsOfKind(std::string_view label, std::string_view kind) {
    return label == kind || (label.size() > kind.size() && label[label.size() - kind.size() - 1] == ' ' &&
                             label.substr(label.size() - kind.size()) == kind);
}

std::string MakeMarker(const char* which, std::string_view label) {
    return std::string(kDashes) + which + " " + std::string(label) + std::string(kDashes);
}

class Base64Decoder {
public:
    void Add(std::string_view line) {
        for (const char c : line) {
            if (c == '=') {
                // One or two padding characters end a group of four.
                ++_padding;
                Require(_padding <= 2 && _count % 4 + _padding <= 4 && _count % 4 >= 2);
                continue;
            }
            const std::size_t value = std::string_view(kAlphabet).find(c);
            Require(value != std::string_view::npos && _padding == 0);
            _group = (_group << 6U | static_cast<std::uint32_t>(value)) & 0xFFFFFFU;
            if (++_count % 4 == 0) {
                Append(3);
            }
        }
    }

    SecureBytes Finish() {
        const std::size_t rest = _count % 4;
        Require(rest == 0 ? _padding == 0 : rest + _padding == 4);
        if (rest != 0) {
            _group <<= 6 * (4 - rest);
            Require((_group & (rest == 2 ? 0xFFFFU : 0xFFU)) == 0);  // otherwise bits would be lost
            Append(rest - 1);
        }
        return std::move(_bytes);
    }

private:
    void Append(std::size_t bytes) {
        for (std::size_t i = 0; i < bytes; ++i) {
            _bytes.push_back(static_cast<unsigned char>(_group >> (16 - 8 * i) & 0xFFU));
        }
    }

    SecureBytes _bytes;
    std::uint32_t _group = 0;
    std::size_t _count = 0;
    std::size_t _padding = 0;
};

}  // namespace

std::optional<PemBlock> FindPem(std::string_view text, std::string_view kind) {
    Require(text.size() <= kMaxText);
    if (StartsWith(text, kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    while (!text.empty()) {
        const std::string_view label = GetLabel(TakeLine(text), "-----BEGIN ");
        if (label.empty()) {
            continue;
        }
        const char* const body = text.data();
        const char* end = nullptr;
        std::string_view line;
        do {
            Require(!text.empty());
            end = text.data();
            line = TakeLine(text);
        } while (!StartsWith(line, kDashes));
        Require(GetLabel(line, "-----END ") == label);
        if (IsOfKind(label, kind)) {
            return PemBlock{label, {body, static_cast<std::size_t>(end - body)}};
        }
    }
    return std::nullopt;
}

SecureBytes DecodePem(const PemBlock& block) {
    Base64Decoder decoder;
    for (std::string_view body = block.body; !body.empty();) {
        const std::string_view line = TakeLine(body);
        if (StartsWith(line, "Proc-Type:") && line.find("ENCRYPTED") != std::string_view::npos) {
            throw CryptoException("encrypted keys are not supported");
        }
        decoder.Add(line);
    }
    return decoder.Finish();
}

SecureBytes EncodePem(const SecureBytes& bytes, std::string_view label) {
    SecureBytes text;
    text.reserve(bytes.size() / 3 * 4 + bytes.size() / 48 + 128);
    const auto append = [&text](std::string_view piece) {
        text.insert(text.end(), piece.begin(), piece.end());
    };
    append(MakeMarker("BEGIN", label));
    std::size_t column = 0;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        if (column++ % (kLineLength / 4) == 0) {
            append("\n");
        }
        const std::size_t count = bytes.size() - i < 3 ? bytes.size() - i : 3;
        std::uint32_t group = 0;
        for (std::size_t j = 0; j < 3; ++j) {
            group = group << 8U | (j < count ? bytes[i + j] : 0U);
        }
        for (std::size_t j = 0; j < 4; ++j) {
            text.push_back(
                static_cast<unsigned char>(j <= count ? kAlphabet[group >> (18 - 6 * j) & 0x3FU] : '='));
        }
    }
    append("\n" + MakeMarker("END", label) + "\n");
    return text;
}

}  // namespace zarip::crypto
