#pragma once

#include <zarip/crypto/Digests.h>

#include <string>

/// The "Content-Security-Policy" of a page with its scripts and styles in it: these run, and what somebody
/// manages to put into the page does not. Nothing comes from elsewhere, no other site shows the page in a
/// frame, and a form whose script does not run sends its password nowhere.
class ContentPolicy {
public:
    /// Attributes such as "style" and "onclick" in the page have no effect.
    static std::string Of(const std::string& page) {
        return "default-src 'none'; style-src" + HashesOf(page, "style") + "; script-src" +
               HashesOf(page, "script") +
               "; img-src 'self'; connect-src 'self'; form-action 'none'; frame-ancestors 'none'; base-uri "
               "'none'";
    }

    /// The sources for all elements of that name that have no attributes; 'none' if no element has that name.
    static std::string HashesOf(const std::string& page, const std::string& element) {
        const std::string begin = "<" + element + ">";
        std::string hashes;
        for (std::size_t at = 0; (at = page.find(begin, at)) != std::string::npos;) {
            at += begin.size();
            const std::size_t end = page.find("</" + element, at);
            zarip::crypto::SHA256 digest;
            digest.Update(page.substr(at, end - at));
            hashes += " 'sha256-" + ToBase64(digest.Finish()) + "'";
        }
        return hashes.empty() ? " 'none'" : hashes;
    }

private:
    static std::string ToBase64(const std::string& bytes) {
        constexpr const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string text;
        unsigned int waiting = 0;
        unsigned int bits = 0;
        for (const char byte : bytes) {
            waiting = (waiting << 8U | static_cast<unsigned char>(byte)) & 0xFFFFU;
            for (bits += 8; bits >= 6; bits -= 6) {
                text += digits[waiting >> (bits - 6) & 63U];
            }
        }
        if (bits > 0) {
            text += digits[waiting << (6 - bits) & 63U];
        }
        text.resize((text.size() + 3) / 4 * 4, '=');
        return text;
    }
};
