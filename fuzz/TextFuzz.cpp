// SPDX-License-Identifier: MIT

// Small readers of text: dates, numbers, XPath, log formats, delimited streams, parts of lines, commands.

#include <stdarg.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "Targets.h"
#include "core/LogRotate.h"
#include "osa/CaptureControl.h"
#include "support/TempDir.h"
#include "zarip/core/LogFormat.h"
#include "zarip/core/Logger.h"
#include "zarip/core/MemoryAppender.h"
#include "zarip/core/StringUtil.h"
#include "zarip/inet/HttpParser.h"
#include "zarip/inet/HttpRequest.h"
#include "zarip/inet/HttpResponse.h"
#include "zarip/inet/ParserException.h"
#include "zarip/osa/DateTime.h"
#include "zarip/osa/Exception.h"
#include "zarip/osa/FileUtils.h"
#include "zarip/stl/DelimitedStreamBuf.h"
#include "zarip/xml/XmlDocument.h"
#include "zarip/xml/XmlElement.h"
#include "zarip/xml/XmlException.h"
#include "zarip/xml/XmlXPathExpression.h"

namespace fuzz {

namespace {

/// The input up to the first line feed, and the rest.
std::pair<std::string, std::string> SplitLine(const std::string& input) {
    const std::size_t end = std::min(input.find('\n'), input.size());
    return {input.substr(0, end), input.substr(std::min(end + 1, input.size()))};
}

template <class T>
void CheckNumber(const std::string& text) {
    T value = 77;
    if (!zarip::core::StringUtil::TryParse(text, value)) {
        Check(value == T{77}, "a text that is no number changes nothing");
    }
}

/// Opens what a parser keeps for those that derive from it.
class LineParser final : public zarip::inet::HttpParser {
public:
    void Parse(std::string line) const {
        zarip::inet::HttpRequest request;
        zarip::inet::HttpResponse response;
        Try([&] { ParseRequestLine(std::string(line).data(), request); });
        Try([&] { ParseResponseLine(std::string(line).data(), response); });
        Try([&] {
            char* name = nullptr;
            char* value = nullptr;
            ParseHeader(line.data(), name, value);
            Check(
                name != nullptr && value != nullptr && std::strlen(name) + std::strlen(value) <= line.size(),
                "a header has a name and a value");
        });
    }

private:
    template <class Action>
    static void Try(Action action) {
        try {
            action();
        } catch (const zarip::inet::ParserException&) {
        } catch (const char*) {
        }
    }
};

void Append(const zarip::core::MemoryAppender& appender, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    appender.AppendV(zarip::core::Logger::kError, "thread", "logger", format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
}

/// A width of many digits takes the C library long.
bool HasLongNumber(const std::string& text) {
    int digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 4) {
            return true;
        }
    }
    return false;
}

template <class... Arguments>
void CheckFormat(const char* format, Arguments... arguments) {
    if (zarip::core::internal::FormatMatches<Arguments...>(format)) {
        const zarip::core::MemoryAppender appender;
        Append(appender, format, arguments...);
        Check(appender.GetMessageCount() == 1, "a format that matches is logged");
    }
}

}  // namespace

FUZZ_TARGET(date) {
    using zarip::osa::DateTime;
    try {
        const DateTime date = DateTime::Parse(input);
        Check(DateTime::Parse(date.ToString()) == date, "a date that was printed is the same");
        Check(DateTime::Parse(date.ToLocalString()) == date, "a local date that was printed is the same");
        const auto fields = date.GetFields();
        Check(DateTime(fields.year, fields.month, fields.day, fields.hour, fields.minute, fields.second,
                       fields.microsecond) == date,
              "a date is made of its fields");
    } catch (const zarip::osa::Exception&) {
    }
}

FUZZ_TARGET(text) {
    using zarip::core::StringUtil;
    CheckNumber<int>(input);
    CheckNumber<unsigned int>(input);
    CheckNumber<signed char>(input);
    CheckNumber<unsigned char>(input);
    CheckNumber<double>(input);
    const auto [delimiters, rest] = SplitLine(input);
    const std::vector<std::string> parts = StringUtil::Split(input, '\n');
    Check(StringUtil::Join(parts, '\n') == input, "what was split and joined is the same");
    StringUtil::Split(rest, delimiters);
    StringUtil::Strip(input);
    std::string text = input;
    StringUtil::UrlDecode(text);
    text = input;
    StringUtil::EscapeForXml(text);
    Check(text.find_first_of("<>\"'") == std::string::npos, "nothing of markup is left");
}

/// An expression, and a document in the lines after it.
FUZZ_TARGET(xpath) {
    using namespace zarip::xml;
    const auto [expression, text] = SplitLine(input);
    try {
        const XmlDocument document =
            XmlDocument::Parse(text.empty() ? "<a b='1'><c>2</c><c x='y'>text</c><!-- d --></a>" : text);
        const XmlXPathExpression xpath(expression, {{"p", "urn:p"}});
        const auto evaluate = [&](auto member) {
            try {
                (xpath.*member)(document.GetRoot());
            } catch (const XmlException&) {
            }
        };
        evaluate(&XmlXPathExpression::EvaluateNodes);
        evaluate(&XmlXPathExpression::EvaluateTexts);
        evaluate(&XmlXPathExpression::EvaluateText);
        evaluate(&XmlXPathExpression::EvaluateNumber);
        evaluate(&XmlXPathExpression::EvaluateBoolean);
    } catch (const XmlException&) {
    }
}

/// A format, checked against several lists of arguments as the compiler does it for a literal.
FUZZ_TARGET(format) {
    if (HasLongNumber(input)) {
        return;
    }
    const char* const format = input.c_str();
    const char* const text = "text";
    CheckFormat(format);
    CheckFormat(format, 1);
    CheckFormat(format, text);
    CheckFormat(format, 1.5);
    CheckFormat(format, 3, text);
    CheckFormat(format, 3, 4, 1.5);
    CheckFormat(format, 5L, 6LL, static_cast<const void*>(text));
}

/// A delimiter, and a stream in the lines after it.
FUZZ_TARGET(delimited) {
    const auto [delimiter, text] = SplitLine(input);
    std::istringstream source(text);
    zarip::stl::DelimitedStreamBuf buffer(&source, delimiter.c_str());
    std::istream stream(&buffer);
    std::string read;
    std::string line;
    while (std::getline(stream, line)) {
        read += line;
        read += stream.eof() ? "" : "\n";
        Check(read.size() <= text.size() + 1, "no more is read than there is");
    }
}

FUZZ_TARGET(parts) {
    LineParser().Parse(input);
}

FUZZ_TARGET(capture) {
    using zarip::osa::CaptureControl;
    const CaptureControl::Command command = CaptureControl::Find(input);
    Check(command != CaptureControl::Command::kMaybe || input.size() < CaptureControl::kMaxLength,
          "whether it is a command is known after its greatest length");
    Check((command == CaptureControl::Command::kStart) == (input.compare(0, 11, "dump start\n") == 0),
          "only the command starts");
}

/// The owner of an entry, and the configuration in the lines after it.
FUZZ_TARGET(rotate) {
    using zarip::osa::FileUtils;
    static const zarip::test::TempDir s_folder;
    static const std::string s_configuration = s_folder.File("conf");
    const auto [owner, text] = SplitLine(input);
    FileUtils::Write(s_configuration, text);
    zarip::core::EditLogRotateConf("/var/log/x", owner, s_configuration, s_folder.File("temporary"));
    const std::string edited = FileUtils::Read(s_configuration);
    Check(edited.find("/var/log/x { }\n") != std::string::npos, "the entry is there");
    Check(!FileUtils::Exists(s_folder.File("temporary")), "no temporary file is left");
}

}  // namespace fuzz

/// The editor of the configuration uses two commands of the shell, which take longer than all else.
extern "C" int system(const char* command) {
    const std::string text(command);
    if (text.compare(0, 7, "rm -rf ") == 0) {
        return std::remove(text.c_str() + 7);
    }
    const std::size_t space = text.find(' ', 3);
    return std::rename(text.substr(3, space - 3).c_str(), text.c_str() + space + 1);
}

extern "C" int fsync(int) {
    return 0;
}
