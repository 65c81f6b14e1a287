// SPDX-License-Identifier: MIT

// Reading and writing a settings document of about 100 KiB, beside nlohmann::json and RapidJSON.

#include <sstream>
#include <string>

#include <cajun/json/reader.h>
#include <cajun/json/writer.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <nlohmann/json.hpp>

#include "Rounds.h"

namespace {

// Groups of settings of every type, as a camera has them.
std::string MakeSettings() {
    json::Object groups;
    for (int group = 0; group < 150; ++group) {
        json::UnknownElement& settings = groups["group" + std::to_string(group)];
        for (int i = 0; i < 20; ++i) {
            json::UnknownElement& value = settings["setting" + std::to_string(i)];
            switch (i % 5) {
                case 0:
                    value = json::Number(i * 1000 + group);
                    break;
                case 1:
                    value = json::String("the value of a setting, number " + std::to_string(i));
                    break;
                case 2:
                    value = json::Boolean(group % 2 == 0);
                    break;
                case 3:
                    value = json::Number(i * 0.37 + group);
                    break;
                default:
                    for (std::size_t item = 0; item < 4; ++item) {
                        value[item] = json::String("item" + std::to_string(item));
                    }
            }
        }
    }
    std::ostringstream text;
    json::Writer::Write(groups, text);
    return text.str();
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Options options = bench::ParseOptions(argc, argv);
    const std::string text = MakeSettings();
    const std::string size = std::to_string(text.size() / 1024) + " KiB";

    bench::Rounds reading("JSON, reading " + size, options);
    reading.Add("nlohmann::json", [&text] { bench::Keep(nlohmann::json::parse(text)); });
    reading.Add("json::Reader", [&text] {
        std::istringstream stream(text);
        json::Object object;
        json::Reader::Read(object, stream);
        bench::Keep(object);
    });
    reading.Add("RapidJSON DOM", [&text] {
        rapidjson::Document document;
        document.Parse(text.c_str(), text.size());
        bench::Keep(document);
    });
    reading.Run();

    json::Object ours;
    std::istringstream stream(text);
    json::Reader::Read(ours, stream);
    const nlohmann::json theirs = nlohmann::json::parse(text);
    rapidjson::Document document;
    document.Parse(text.c_str(), text.size());

    bench::Rounds writing("JSON, writing " + size, options);
    writing.Add("nlohmann::json", [&theirs] { bench::Keep(theirs.dump(-1, ' ', true)); });
    writing.Add("json::Writer", [&ours] {
        std::ostringstream written;
        json::Writer::Write(ours, written);
        bench::Keep(written.str());
    });
    writing.Add("json::Writer, pretty", [&ours] {
        std::ostringstream written;
        json::Writer::Write(ours, written, true);
        bench::Keep(written.str());
    });
    writing.Add("RapidJSON DOM", [&document] {
        rapidjson::StringBuffer written;
        rapidjson::Writer<rapidjson::StringBuffer> writer(written);
        document.Accept(writer);
        bench::Keep(written.GetString());
    });
    writing.Run();
}
