// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <zarip/osa/Exception.h>

/// A picture to draw on, with smooth edges. Coordinates are in pixels, the origin is the upper left corner.
/// *One thread at a time*.
class Picture {
public:
    struct Color {
        int red;
        int green;
        int blue;
    };
    struct Point {
        double x;
        double y;
    };

    Picture(int width, int height)
        : _width(width), _height(height), _bytes(static_cast<std::size_t>(width * height) * 3) {}

    int GetWidth() const { return _width; }
    int GetHeight() const { return _height; }

    /// Fills the rows from `top` to `bottom`, the color changing from one to the other.
    void FillRows(int top, int bottom, Color first, Color last) {
        for (int y = std::max(top, 0); y < std::min(bottom, _height); ++y) {
            const double way = static_cast<double>(y - top) / std::max(bottom - top - 1, 1);
            const Color color = {Between(first.red, last.red, way), Between(first.green, last.green, way),
                                 Between(first.blue, last.blue, way)};
            for (int x = 0; x < _width; ++x) {
                Blend(x, y, color, 1);
            }
        }
    }

    /// A line with round ends; a disc if both ends are the same.
    void DrawLine(Point from, Point to, double radius, Color color, double opacity = 1) {
        const double dx = to.x - from.x;
        const double dy = to.y - from.y;
        const double length = dx * dx + dy * dy;
        DrawShape({std::min(from.x, to.x) - radius, std::min(from.y, to.y) - radius},
                  {std::max(from.x, to.x) + radius, std::max(from.y, to.y) + radius}, color, opacity,
                  [&](double x, double y) {
                      const double way = ((x - from.x) * dx + (y - from.y) * dy) / std::max(length, 1e-9);
                      const double nearest = std::clamp(way, 0.0, 1.0);
                      return std::hypot(x - from.x - nearest * dx, y - from.y - nearest * dy) - radius;
                  });
    }

    /// @param corners  of a convex shape, clockwise on the screen.
    void DrawConvex(const std::vector<Point>& corners, Color color, double opacity = 1) {
        Point least = corners.front();
        Point most = corners.front();
        for (const Point& corner : corners) {
            least = {std::min(least.x, corner.x), std::min(least.y, corner.y)};
            most = {std::max(most.x, corner.x), std::max(most.y, corner.y)};
        }
        DrawShape(least, most, color, opacity, [&](double x, double y) {
            double outside = -1e9;
            Point last = corners.back();
            for (const Point& corner : corners) {
                const double dx = corner.x - last.x;
                const double dy = corner.y - last.y;
                outside = std::max(outside, ((x - last.x) * dy - (y - last.y) * dx) / std::hypot(dx, dy));
                last = corner;
            }
            return outside;
        });
    }

    void DrawBox(double left, double top, double right, double bottom, Color color, double opacity = 1) {
        DrawConvex({{left, top}, {right, top}, {right, bottom}, {left, bottom}}, color, opacity);
    }

    /// Digits, colons, hyphens and spaces, as a camera writes the time into its picture.
    void DrawDigits(int left, int top, int scale, const std::string& digits, Color color) {
        // Five rows of three bits each for '0' to ':'.
        static constexpr std::uint16_t kFont[] = {075557, 026227, 071747, 071717, 055711, 074717,
                                                  074757, 071111, 075757, 075717, 002020};
        for (const char digit : digits) {
            const unsigned int rows = digit == '-' ? 000700U : digit == ' ' ? 0U : kFont[(digit - '0') % 11];
            for (int bit = 0; bit < 15; ++bit) {
                if ((rows >> (14 - bit) & 1U) != 0) {
                    const int x = left + bit % 3 * scale;
                    const int y = top + bit / 3 * scale;
                    DrawBox(x, y, x + scale, y + scale, color);
                }
            }
            left += 4 * scale;
        }
    }

    /// A JPEG file; throws `osa::Exception`.
    /// @param quality  1 to 100.
    std::string ToJpeg(int quality) const {
        jpeg_error_mgr errors;
        jpeg_compress_struct compressor;
        compressor.err = ::jpeg_std_error(&errors);
        errors.error_exit = [](j_common_ptr state) {
            char reason[JMSG_LENGTH_MAX];
            state->err->format_message(state, reason);
            throw zarip::osa::Exception(std::string("JPEG: ") + reason);
        };
        ::jpeg_create_compress(&compressor);
        unsigned char* data = nullptr;
        unsigned long size = 0;
        std::string file;
        try {
            Compress(compressor, quality, data, size);
            file.assign(reinterpret_cast<const char*>(data), size);
        } catch (...) {
            ::jpeg_destroy_compress(&compressor);
            std::free(data);
            throw;
        }
        ::jpeg_destroy_compress(&compressor);
        std::free(data);
        return file;
    }

private:
    void Compress(jpeg_compress_struct& compressor, int quality, unsigned char*& data,
                  unsigned long& size) const {
        ::jpeg_mem_dest(&compressor, &data, &size);
        compressor.image_width = static_cast<JDIMENSION>(_width);
        compressor.image_height = static_cast<JDIMENSION>(_height);
        compressor.input_components = 3;
        compressor.in_color_space = JCS_RGB;
        ::jpeg_set_defaults(&compressor);
        ::jpeg_set_quality(&compressor, quality, TRUE);
        ::jpeg_start_compress(&compressor, TRUE);
        while (compressor.next_scanline < compressor.image_height) {
            const std::size_t at =
                std::size_t{compressor.next_scanline} * static_cast<std::size_t>(_width) * 3;
            auto* row = const_cast<JSAMPLE*>(_bytes.data() + at);  // which libjpeg only reads
            ::jpeg_write_scanlines(&compressor, &row, 1);
        }
        ::jpeg_finish_compress(&compressor);
    }

    static int Between(int first, int last, double way) {
        return static_cast<int>(std::lround(first + (last - first) * way));
    }

    void Blend(int x, int y, Color color, double opacity) {
        unsigned char* const pixel = &_bytes[static_cast<std::size_t>(y * _width + x) * 3];
        pixel[0] = static_cast<unsigned char>(Between(pixel[0], color.red, opacity));
        pixel[1] = static_cast<unsigned char>(Between(pixel[1], color.green, opacity));
        pixel[2] = static_cast<unsigned char>(Between(pixel[2], color.blue, opacity));
    }

    /// @param distance  of a point to the edge in pixels, negative within the shape.
    template <class Distance>
    void DrawShape(Point least, Point most, Color color, double opacity, Distance distance) {
        const int right = std::min(static_cast<int>(std::ceil(most.x)) + 1, _width);
        const int bottom = std::min(static_cast<int>(std::ceil(most.y)) + 1, _height);
        for (int y = std::max(static_cast<int>(least.y) - 1, 0); y < bottom; ++y) {
            for (int x = std::max(static_cast<int>(least.x) - 1, 0); x < right; ++x) {
                const double inside = std::clamp(0.5 - distance(x + 0.5, y + 0.5), 0.0, 1.0);
                if (inside > 0) {
                    Blend(x, y, color, inside * opacity);
                }
            }
        }
    }

    int _width;
    int _height;
    std::vector<unsigned char> _bytes;
};
