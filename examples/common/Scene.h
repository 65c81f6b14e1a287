// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Picture.h"

/// A simulated view of a front yard, in which a person walks along the tracks of the alerts. *Thread-safe*,
/// except that one thread takes the pictures.
class Scene {
public:
    using Clock = std::chrono::steady_clock;
    using Point = Picture::Point;

    static constexpr int kWidth = 640;
    static constexpr int kHeight = 360;
    static constexpr int kQuality = 80;
    static constexpr std::chrono::milliseconds kWalk{3'500};

    Scene() : _yard(kWidth, kHeight) { DrawYard(); }

    /// From now on the person walks along this track and then stays at its end.
    /// @param track  parts of width and height; ignored if it is empty.
    void Walk(std::vector<Point> track) {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (!track.empty()) {
            _track = std::move(track);
            _begin = Clock::now();
        }
    }

    /// The picture of now, as a JPEG file.
    std::string Take() {
        std::vector<Point> track;
        double way = 0;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            track = _track;
            way = std::chrono::duration<double>(Clock::now() - _begin) / kWalk;
        }
        Picture picture = _yard;
        const Point place = PlaceOn(track, std::min(way, 1.0));
        const double direction = track.back().x < track.front().x ? -1 : 1;
        DrawPerson(picture, {place.x * kWidth, place.y * kHeight}, direction, way < 1 ? way * 44 : 0);
        DrawTime(picture);
        return picture.ToJpeg(kQuality);
    }

private:
    /// The point after a part of the track's sections.
    static Point PlaceOn(const std::vector<Point>& track, double way) {
        const double at = way * static_cast<double>(track.size() - 1);
        const auto section = std::min(static_cast<std::size_t>(at), track.size() - 1);
        const Point from = track[section];
        const Point to = track[std::min(section + 1, track.size() - 1)];
        const double rest = at - static_cast<double>(section);
        return {from.x + (to.x - from.x) * rest, from.y + (to.y - from.y) * rest};
    }

    /// @param middle  of the body. @param step  the phase of the legs.
    static void DrawPerson(Picture& picture, Point middle, double direction, double step) {
        constexpr Picture::Color skin = {224, 172, 132};
        constexpr Picture::Color hair = {58, 40, 32};
        constexpr Picture::Color jacket = {201, 62, 50};
        constexpr Picture::Color sleeve = {176, 50, 42};
        constexpr Picture::Color trousers = {44, 56, 92};
        constexpr Picture::Color shoe = {30, 28, 30};
        const double swing = std::sin(step) * 13 * direction;
        const double x = middle.x;
        const double y = middle.y + std::abs(std::sin(step)) * 1.5;
        picture.DrawLine({x - 17, middle.y + 52}, {x + 20, middle.y + 52}, 4.5, {20, 40, 10}, 0.3);  // shadow
        for (const double side : {-1.0, 1.0}) {
            const Point knee = {x + swing * side * 0.6 + direction * 2, y + 29};
            const Point foot = {x + swing * side, y + 48};
            picture.DrawLine({x, y + 10}, knee, 5, trousers);
            picture.DrawLine(knee, foot, 4.2, trousers);
            picture.DrawLine(foot, {foot.x + direction * 7, foot.y + 2}, 3, shoe);
            if (side < 0) {
                picture.DrawLine({x, y - 16}, {x + swing, y + 8}, 3.8, sleeve);  // the far arm
            }
        }
        picture.DrawLine({x, y - 16}, {x, y + 8}, 9.5, jacket);
        picture.DrawLine({x, y - 16}, {x - swing, y + 7}, 3.8, sleeve);
        picture.DrawLine({x - swing, y + 9}, {x - swing, y + 10}, 3.2, skin);
        picture.DrawLine({x + direction, y - 36}, {x + direction, y - 37}, 8, skin);
        picture.DrawLine({x - direction * 2, y - 41}, {x + direction * 2, y - 43}, 6, hair);
    }

    static void DrawTime(Picture& picture) {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        ::localtime_r(&now, &local);
        char text[32];
        std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
        picture.DrawBox(8, 8, 8 + 19 * 8 + 10, 28, {0, 0, 0}, 0.45);
        picture.DrawDigits(14, 13, 2, text, {255, 255, 255});
    }

    void DrawYard() {
        _yard.FillRows(0, 150, {118, 178, 226}, {222, 236, 244});
        for (const Point& cloud : {Point{120, 52}, Point{390, 38}, Point{560, 74}}) {
            for (const Point& puff : {Point{-26, 4}, Point{0, -5}, Point{24, 3}}) {
                _yard.DrawLine({cloud.x + puff.x - 9, cloud.y + puff.y},
                               {cloud.x + puff.x + 9, cloud.y + puff.y}, 14, {255, 255, 255}, 0.75);
            }
        }
        for (int hill = 0; hill < 5; ++hill) {
            _yard.DrawLine({hill * 170.0 - 20, 268}, {hill * 170.0 + 40, 268}, 132 - hill % 2 * 22,
                           hill % 2 == 0 ? Picture::Color{138, 178, 142} : Picture::Color{120, 164, 130});
        }
        _yard.FillRows(150, kHeight, {126, 172, 92}, {82, 134, 58});
        DrawHouse();
        DrawTree({560, 168});
        // The street of the person, and the path to the gate.
        _yard.DrawBox(0, 206, kWidth, 250, {168, 160, 150});
        _yard.DrawBox(0, 206, kWidth, 209, {140, 134, 126});
        _yard.DrawBox(0, 247, kWidth, 250, {140, 134, 126});
        _yard.DrawConvex({{268, 250}, {372, 250}, {430, 360}, {210, 360}}, {190, 180, 164});
        DrawFence();
    }

    void DrawHouse() {
        _yard.DrawBox(34, 92, 196, 184, {236, 224, 204});
        _yard.DrawConvex({{18, 96}, {62, 46}, {168, 46}, {212, 96}}, {152, 74, 60});
        _yard.DrawBox(150, 34, 168, 70, {126, 66, 56});
        for (const double left : {52.0, 146.0}) {
            _yard.DrawBox(left - 3, 111, left + 37, 147, {255, 255, 255});
            _yard.DrawBox(left, 114, left + 34, 144, {104, 146, 176});
            _yard.DrawBox(left + 15.5, 114, left + 18.5, 144, {255, 255, 255});
        }
        _yard.DrawBox(100, 124, 132, 184, {92, 62, 48});
        _yard.DrawLine({126, 156}, {126, 156}, 2, {226, 190, 96});
    }

    void DrawTree(Point foot) {
        _yard.DrawLine({foot.x, foot.y - 64}, {foot.x, foot.y + 18}, 8, {104, 76, 54});
        constexpr Picture::Color leaves[] = {{66, 122, 62}, {78, 138, 70}, {92, 152, 78}};
        for (int i = 0; i < 3; ++i) {
            const double shift = i * 7.0;
            for (const Point& part : {Point{-28, -70}, Point{26, -76}, Point{0, -104}, Point{2, -64}}) {
                const Point middle = {foot.x + part.x - shift, foot.y + part.y - shift};
                _yard.DrawLine(middle, middle, 30 - shift, leaves[i]);
            }
        }
    }

    /// In front of the street, open where the path begins.
    void DrawFence() {
        for (const auto& [begin, end] : {std::make_pair(0, 244), std::make_pair(396, kWidth)}) {
            for (const double rail : {284.0, 312.0}) {
                _yard.DrawBox(begin, rail, end, rail + 6, {214, 206, 192});
            }
            for (double left = begin + 4; left + 12 < end + 4; left += 22) {
                _yard.DrawBox(left, 272, left + 12, 330, {248, 244, 236});
                _yard.DrawConvex({{left, 272}, {left + 6, 264}, {left + 12, 272}}, {248, 244, 236});
                _yard.DrawBox(left + 10, 272, left + 12, 330, {206, 198, 184});
            }
        }
    }

    Picture _yard;
    std::mutex _mutex;  // guards what follows
    std::vector<Point> _track = {{0, 0.5}};
    Clock::time_point _begin = Clock::now() - kWalk;
};
