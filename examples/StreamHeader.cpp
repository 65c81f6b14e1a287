// SPDX-License-Identifier: MIT

// Tells what an H.264 stream holds: stream-header SPS, with the sequence parameter set in hexadecimal.

#include <zarip/core/BitStreamReader.h>
#include <zarip/osa/Exception.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using zarip::core::BitStreamReader;
using zarip::osa::Exception;
using Bytes = std::vector<unsigned char>;

Bytes FromHex(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const std::string digits = text.substr(i, 2);
        if (digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos || digits.size() != 2) {
            throw Exception("'" + digits + "' is no byte");
        }
        bytes.push_back(static_cast<unsigned char>(std::stoi(digits, nullptr, 16)));
    }
    return bytes;
}

/// Takes out the bytes that keep the start code 00 00 01 from appearing inside.
Bytes Unescape(const Bytes& escaped) {
    Bytes bytes;
    int zeros = 0;
    for (const unsigned char byte : escaped) {
        if (zeros == 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        bytes.push_back(byte);
    }
    return bytes;
}

void SkipScalingList(BitStreamReader& reader, int size) {
    unsigned int next = 8;
    unsigned int last = 8;
    for (int i = 0; i < size && next != 0; ++i) {
        next = (last + static_cast<unsigned int>(reader.ReadSignedGolomb())) & 0xFFU;
        last = next != 0 ? next : last;
    }
}

bool HasChromaFormat(unsigned int profile) {
    for (const unsigned int known :
         {100U, 110U, 122U, 244U, 44U, 83U, 86U, 118U, 128U, 138U, 139U, 134U, 135U}) {
        if (profile == known) {
            return true;
        }
    }
    return false;
}

/// Returns the visible part of the width or height of a picture.
/// @param blocks  of 16 lines each
unsigned int Crop(unsigned long long blocks, unsigned long long first, unsigned long long last,
                  unsigned int unit) {
    constexpr unsigned long long kMaxBlocks = 4096;
    const unsigned long long size = blocks * 16;
    const unsigned long long cut = (first + last) * unit;
    if (blocks > kMaxBlocks) {
        throw Exception("a picture of %llu lines is too large", size);
    }
    if (cut >= size) {
        throw Exception("nothing is left of %llu lines without %llu", size, cut);
    }
    return static_cast<unsigned int>(size - cut);
}

struct Header {
    unsigned int profile;
    unsigned int level;
    unsigned int width;
    unsigned int height;
};

/// Reads the format of the colours, which only some profiles have. Returns its number.
unsigned int ReadChromaFormat(BitStreamReader& reader, unsigned int profile) {
    if (!HasChromaFormat(profile)) {
        return 1;
    }
    const unsigned int chromaFormat = reader.ReadUnsignedGolomb();
    if (chromaFormat == 3) {
        reader.SkipBits(1);
    }
    reader.ReadUnsignedGolomb();  // bit depths
    reader.ReadUnsignedGolomb();
    reader.SkipBits(1);
    if (reader.ReadBit()) {
        for (int list = 0; list < (chromaFormat == 3 ? 12 : 8); ++list) {
            if (reader.ReadBit()) {
                SkipScalingList(reader, list < 6 ? 16 : 64);
            }
        }
    }
    return chromaFormat;
}

void SkipPictureOrder(BitStreamReader& reader) {
    const unsigned int orderType = reader.ReadUnsignedGolomb();
    if (orderType == 0) {
        reader.ReadUnsignedGolomb();
    } else if (orderType == 1) {
        reader.SkipBits(1);
        reader.ReadSignedGolomb();
        reader.ReadSignedGolomb();
        for (unsigned int left = reader.ReadUnsignedGolomb(); left != 0; --left) {
            reader.ReadSignedGolomb();
        }
    }
}

Header ReadHeader(const Bytes& bytes) {
    BitStreamReader reader(bytes.data(), bytes.size());
    reader.SkipBits(3);
    if (reader.ReadBits(5) != 7) {
        throw Exception("no sequence parameter set");
    }
    Header header{};
    header.profile = static_cast<unsigned int>(reader.ReadBits(8));
    reader.SkipBits(8);  // constraints
    header.level = static_cast<unsigned int>(reader.ReadBits(8));
    reader.ReadUnsignedGolomb();  // number of the set
    const unsigned int chromaFormat = ReadChromaFormat(reader, header.profile);
    reader.ReadUnsignedGolomb();  // length of the frame numbers
    SkipPictureOrder(reader);
    reader.ReadUnsignedGolomb();  // reference frames
    reader.SkipBits(1);
    const unsigned long long columns = reader.ReadUnsignedGolomb() + 1ULL;
    const unsigned long long rows = reader.ReadUnsignedGolomb() + 1ULL;
    const unsigned int fields = reader.ReadBit() ? 1 : 2;
    if (fields == 2) {
        reader.SkipBits(1);
    }
    reader.SkipBits(1);
    unsigned int cut[4] = {};  // left, right, top, bottom
    if (reader.ReadBit()) {
        for (unsigned int& side : cut) {
            side = reader.ReadUnsignedGolomb();
        }
    }
    const unsigned int unitX = chromaFormat == 1 || chromaFormat == 2 ? 2 : 1;
    const unsigned int unitY = (chromaFormat == 1 ? 2 : 1) * fields;
    header.width = Crop(columns, cut[0], cut[1], unitX);
    header.height = Crop(rows * fields, cut[2], cut[3], unitY);
    return header;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: stream-header SPS\n");
        return 2;
    }
    try {
        const Header header = ReadHeader(Unescape(FromHex(argv[1])));
        std::printf("profile %u, level %.1f, %ux%u\n", header.profile, header.level / 10.0, header.width,
                    header.height);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "stream-header: %s\n", e.what());
        return 1;
    }
}
