// SPDX-License-Identifier: MIT

#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <map>
#include <string>

/// Slows down attempts to guess passwords. After three failures in a row the next attempt has to wait for a
/// second, and each further failure doubles that, up to a minute. Names and addresses are counted separately,
/// so that neither many addresses with one name nor many names from one address get around it. *One thread at
/// a time*.
///
/// An address from which a name has logged in before does not wait for that name: guesses from elsewhere
/// cannot keep the user out. A name or address without a failure for a quarter of an hour is forgotten.
class LoginDelay {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr int kFreeFailures = 3;
    static constexpr std::chrono::seconds kLongestDelay{60};
    static constexpr std::chrono::minutes kMemory{15};
    static constexpr std::size_t kMostEntries = 1'000;

    /// Returns the seconds, rounded up, that an attempt still has to wait; 0 for none. An attempt that is
    /// refused for that is not counted.
    int GetSecondsLeft(const std::string& name, const std::string& address,
                       Clock::time_point now = Clock::now()) const {
        Clock::time_point end = EndOf(_entries, AddressKey(address));
        if (_known.count(KnownKey(name, address)) == 0) {
            end = std::max(end, EndOf(_entries, NameKey(name)));
        }
        using std::chrono::seconds;
        return end > now ? static_cast<int>(std::chrono::ceil<seconds>(end - now).count()) : 0;
    }

    /// Counts a wrong password. Returns the failures of the address.
    int AddFailure(const std::string& name, const std::string& address,
                   Clock::time_point now = Clock::now()) {
        Forget(_entries, now);
        Count(_entries[NameKey(name)], now);
        return Count(_entries[AddressKey(address)], now);
    }

    /// Keeps the failures of the address, which an attacker with a valid login could reset otherwise.
    void AddSuccess(const std::string& name, const std::string& address,
                    Clock::time_point now = Clock::now()) {
        _entries.erase(NameKey(name));
        Forget(_known, Clock::time_point::min());
        _known[KnownKey(name, address)].last = now;
    }

private:
    struct Entry {
        int failures = 0;
        Clock::time_point last;  // failure, or success of a known address
        Clock::time_point end;   // of the delay
    };
    using Entries = std::map<std::string, Entry>;

    /// A client with an IPv6 address can use its whole network of 64 bits.
    static std::string AddressKey(const std::string& address) {
        in6_addr bytes{};
        const bool isIpv6 = ::inet_pton(AF_INET6, address.c_str(), &bytes) == 1;
        return "a" + (isIpv6 ? std::string(reinterpret_cast<const char*>(&bytes), 8) : address);
    }

    static std::string NameKey(const std::string& name) { return "n" + name.substr(0, 64); }

    static std::string KnownKey(const std::string& name, const std::string& address) {
        return AddressKey(address) + NameKey(name);
    }

    static Clock::time_point EndOf(const Entries& entries, const std::string& key) {
        const auto found = entries.find(key);
        return found != entries.end() ? found->second.end : Clock::time_point::min();
    }

    static int Count(Entry& entry, Clock::time_point now) {
        ++entry.failures;
        entry.last = now;
        if (entry.failures >= kFreeFailures) {
            const std::chrono::seconds delay(1 << std::min(entry.failures - kFreeFailures, 6));
            entry.end = now + std::min(delay, kLongestDelay);
        }
        return entry.failures;
    }

    /// Makes room for two entries; those that are the oldest go first.
    static void Forget(Entries& entries, Clock::time_point now) {
        for (auto entry = entries.begin(); entry != entries.end();) {
            const bool isOld = now > entry->second.last && now - entry->second.last > kMemory;
            entry = isOld ? entries.erase(entry) : std::next(entry);
        }
        while (entries.size() + 2 > kMostEntries) {
            entries.erase(std::min_element(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
                return a.second.last < b.second.last;
            }));
        }
    }

    Entries _entries;  // of names and addresses
    Entries _known;    // addresses from which a name has logged in
};
