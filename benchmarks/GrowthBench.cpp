// SPDX-License-Identifier: MIT

// Time and memory for costly documents of 0.25, 1 and 4 MiB in XML and JSON.
//
// The documents are as costly as a stranger can make them. A column that grows by more than about 4 from one
// size to the next shows a cost that needs a limit.

#include <cajun/json/elements.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <zarip/core/JsonUtils.h>
#include <zarip/xml/XmlDocument.h>
#include <zarip/xml/XmlReader.h>

#include "Rounds.h"

namespace {

using zarip::xml::XmlDocument;
using zarip::xml::XmlReader;

struct Cost {
    double seconds = 0;
    long kibibytes = 0;
};

/// In a process of its own, whose memory starts afresh.
Cost Measure(const std::function<void()>& action) {
    int ends[2];
    if (::pipe(ends) != 0) {
        std::perror("pipe");
        std::exit(EXIT_FAILURE);
    }
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0) {
        rusage before{};
        rusage after{};
        ::getrusage(RUSAGE_SELF, &before);
        const double start = bench::Now();
        try {
            action();
        } catch (const std::exception&) {
            // Refused: that is a cost, too.
        }
        Cost cost;
        cost.seconds = bench::Now() - start;
        ::getrusage(RUSAGE_SELF, &after);
        cost.kibibytes = after.ru_maxrss - before.ru_maxrss;
        ::_exit(::write(ends[1], &cost, sizeof cost) == sizeof cost ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    ::close(ends[1]);
    Cost cost;
    const bool isRead = ::read(ends[0], &cost, sizeof cost) == sizeof cost;
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    if (!isRead) {
        std::fprintf(stderr, "a measurement has failed\n");
        std::exit(EXIT_FAILURE);
    }
    return cost;
}

std::string Repeat(const std::string& before, const std::string& piece, const std::string& after,
                   std::size_t size) {
    std::string text = before;
    while (text.size() + piece.size() + after.size() < size) {
        text += piece;
    }
    return text + after;
}

std::string Numbered(const std::string& before, const std::string& after, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += before + std::to_string(i) + after;
    }
    return text;
}

struct Kind {
    const char* name;
    std::function<std::string(std::size_t)> make;
};

void Run(const char* title, const std::vector<Kind>& kinds,
         const std::function<void(const std::string&)>& read) {
    std::printf("%s\n  %-32s %26s %29s\n", title, "", "ms for 0.25, 1, 4 MiB", "KiB of memory");
    for (const Kind& kind : kinds) {
        Cost costs[3];
        for (int i = 0; i < 3; ++i) {
            const std::string text = kind.make(std::size_t{262'144} << (2 * i));
            costs[i] = Measure([&] { read(text); });
        }
        std::printf("  %-32s %8.1f %8.1f %8.1f %9ld %9ld %9ld\n", kind.name, costs[0].seconds * 1e3,
                    costs[1].seconds * 1e3, costs[2].seconds * 1e3, costs[0].kibibytes, costs[1].kibibytes,
                    costs[2].kibibytes);
    }
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    bench::ParseOptions(argc, argv);
    const std::string attributes = "<a" + Numbered(" a", "=''", 2'048) + "/>";
    const std::string names = "<r>" + Numbered("<a", "/>", 20'000);
    const std::vector<Kind> xml = {
        {"records", [](std::size_t n) { return Repeat("<r>", "<a id='1'><b>text</b></a>\n", "</r>", n); }},
        {"'>' in an attribute", [](std::size_t n) { return Repeat("<r a='", ">", "'/>", n); }},
        {"comments", [](std::size_t n) { return Repeat("<r>", "<!--c-->", "</r>", n); }},
        {"a comment of hyphens", [](std::size_t n) { return Repeat("<r><!--", "-", "", n); }},
        {"2048 attributes each", [&](std::size_t n) { return Repeat("<r>", attributes, "</r>", n); }},
        {"256 namespaces around",
         [](std::size_t n) {
             return Repeat("<r" + Numbered(" xmlns:a", "='u'", 256) + ">", "<a0:b/>", "</r>", n);
         }},
        {"20,000 names", [&](std::size_t n) { return Repeat(names, "<a19999/>", "</r>", n); }},
        {"text", [](std::size_t n) { return Repeat("<r>", "&amp;", "</r>", n); }},
    };
    Run("XmlDocument::Parse", xml, [](const std::string& text) { XmlDocument::Parse(text); });
    Run("XmlReader", xml, [](const std::string& text) {
        XmlReader reader(text);
        while (reader.Read()) {
        }
    });
    const std::vector<Kind> json = {
        {"settings",
         [](std::size_t n) { return Repeat("[{}", ",{\"a\":1,\"b\":\"text\",\"c\":[true]}", "]", n); }},
        {"[],[]", [](std::size_t n) { return Repeat("[[]", ",[]", "]", n); }},
        {"[0],[0]", [](std::size_t n) { return Repeat("[[]", ",[0]", "]", n); }},
        {"{},{}", [](std::size_t n) { return Repeat("[{}", ",{}", "]", n); }},
        {"0,0", [](std::size_t n) { return Repeat("[0", ",0", "]", n); }},
        {"one string", [](std::size_t n) { return Repeat("\"", "x", "\"", n); }},
    };
    Run("JsonUtils::Parse", json, [](const std::string& text) { zarip::core::JsonUtils::Parse(text); });
}
