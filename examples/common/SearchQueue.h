// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

/// A search that waits for its answer.
struct Search {
    std::string address;
    unsigned short port = 0;
    std::string type;
    std::size_t length = 0;  // of the datagram

    friend bool operator==(const Search& a, const Search& b) {
        return std::tie(a.address, a.port, a.type) == std::tie(b.address, b.port, b.type);
    }
};

/// Searches that wait for an answer, and the order in which they get it. At most 20 searches a second are
/// answered, so that the camera cannot be used to flood others; those 20 are shared so that a flood cannot
/// silence it:
///
/// - One half is for addresses that were answered before, the other for new ones; what one half leaves the
///   other gets. So an attacker that invents addresses does not displace the known ones.
/// - Of the known addresses the one whose last answer is the oldest comes first. So in a network of 250
///   addresses each is answered within 13 seconds, even if all the others search without a pause.
/// - When a half is full, a search of the address with the most waiting searches makes room.
///
/// Everything is bounded: 64 searches wait, 8 of one address, and 1,024 addresses are known. *One thread at a
/// time*.
class SearchQueue {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMaxWaiting = 32;  // of the new and of the known each
    static constexpr std::size_t kMaxWaitingOfOne = 8;
    static constexpr std::size_t kMaxInSecond = 20;
    static constexpr std::size_t kMaxKnown = 1'024;
    static constexpr std::chrono::seconds kPatience{1};  // of a searcher, after its own limit

    /// Takes a search unless the same one waits already, or there is no room for its address.
    /// @param due  when it may be answered. @param limit  until when its sender waits.
    void Add(Search search, Clock::time_point due, Clock::time_point limit) {
        const bool isThere = std::any_of(_waiting.begin(), _waiting.end(),
                                         [&](const Entry& entry) { return entry.search == search; });
        const std::size_t ofThis = CountOf(search.address);
        if (isThere || ofThis >= kMaxWaitingOfOne ||
            (CountWhereKnown(IsKnown(search.address)) >= kMaxWaiting && !MakeRoom(search.address, ofThis))) {
            return;
        }
        _waiting.push_back({std::move(search), due, limit + kPatience});
    }

    /// Removes and returns the search that must be answered now, if any is due.
    std::optional<Search> Take(Clock::time_point now) {
        _waiting.erase(std::remove_if(_waiting.begin(), _waiting.end(),
                                      [&](const Entry& entry) { return entry.limit < now; }),
                       _waiting.end());
        while (!_answers.empty() && now - _answers.front() >= std::chrono::seconds(1)) {
            _answers.pop_front();
        }
        if (_answers.size() >= kMaxInSecond) {
            return std::nullopt;
        }
        std::size_t next = FindNext(now, _isTurnOfKnown);
        if (next == _waiting.size()) {
            next = FindNext(now, !_isTurnOfKnown);
        }
        if (next == _waiting.size()) {
            return std::nullopt;
        }
        Search search = std::move(_waiting[next].search);
        _waiting.erase(_waiting.begin() + static_cast<std::ptrdiff_t>(next));
        _isTurnOfKnown = !IsKnown(search.address);
        _answers.push_back(now);
        Remember(search.address);
        return search;
    }

    bool IsEmpty() const { return _waiting.empty(); }

private:
    struct Entry {
        Search search;
        Clock::time_point due;
        Clock::time_point limit;
    };

    /// The number of the last answer to an address; 0 for a new one.
    std::uint64_t LastAnswer(const std::string& address) const {
        const auto found = _known.find(address);
        return found != _known.end() ? found->second : 0;
    }
    bool IsKnown(const std::string& address) const { return _known.count(address) > 0; }

    std::size_t CountOf(const std::string& address) const {
        return static_cast<std::size_t>(
            std::count_if(_waiting.begin(), _waiting.end(),
                          [&](const Entry& entry) { return entry.search.address == address; }));
    }
    std::size_t CountWhereKnown(bool isKnown) const {
        return static_cast<std::size_t>(
            std::count_if(_waiting.begin(), _waiting.end(),
                          [&](const Entry& entry) { return IsKnown(entry.search.address) == isKnown; }));
    }

    /// Returns the due search of the address whose last answer is the oldest; the number of all if none is
    /// due.
    std::size_t FindNext(Clock::time_point now, bool isKnown) const {
        std::size_t best = _waiting.size();
        const auto rank = [this](const Entry& entry) {
            return std::make_pair(LastAnswer(entry.search.address), entry.due);
        };
        for (std::size_t i = 0; i < _waiting.size(); ++i) {
            const Entry& entry = _waiting[i];
            if (entry.due <= now && IsKnown(entry.search.address) == isKnown &&
                (best == _waiting.size() || rank(entry) < rank(_waiting[best]))) {
                best = i;
            }
        }
        return best;
    }

    /// Removes a search of the same half for one more of this address, of which `ofThis` wait. The address
    /// with the most searches loses one; of several that was answered last, or by chance if all are new.
    /// Returns false if the new search loses.
    bool MakeRoom(const std::string& address, std::size_t ofThis) {
        const auto rank = [this](const std::string& of, std::size_t count) {
            return std::make_tuple(count, LastAnswer(of), _random());
        };
        const bool isKnown = IsKnown(address);
        std::map<std::string_view, std::size_t> counts;
        for (const Entry& entry : _waiting) {
            ++counts[entry.search.address];
        }
        auto worst = rank(address, ofThis + 1);
        std::size_t loser = _waiting.size();
        for (std::size_t i = 0; i < _waiting.size(); ++i) {
            const std::string& other = _waiting[i].search.address;
            const auto ranked = rank(other, counts[other]);
            if (IsKnown(other) == isKnown && other != address && ranked > worst) {
                worst = ranked;
                loser = i;
            }
        }
        if (loser == _waiting.size()) {
            return false;
        }
        _waiting.erase(_waiting.begin() + static_cast<std::ptrdiff_t>(loser));
        return true;
    }

    void Remember(const std::string& address) {
        _known[address] = ++_answered;
        if (_known.size() > kMaxKnown) {
            _known.erase(std::min_element(_known.begin(), _known.end(),
                                          [](const auto& a, const auto& b) { return a.second < b.second; }));
        }
    }

    std::vector<Entry> _waiting;
    std::deque<Clock::time_point> _answers;       // of the last second
    std::map<std::string, std::uint64_t> _known;  // the number of the last answer, by address
    std::uint64_t _answered = 0;
    bool _isTurnOfKnown = false;
    std::minstd_rand _random{std::random_device{}()};
};
