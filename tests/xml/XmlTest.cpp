// SPDX-License-Identifier: MIT

#include <zarip/xml/XmlDocument.h>
#include <zarip/xml/XmlException.h>
#include <zarip/xml/XmlReader.h>
#include <zarip/xml/XmlWriter.h>
#include <zarip/xml/XmlXPathExpression.h>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "support/ErrorOf.h"
#include "support/TempDir.h"

namespace zarip::xml {
namespace {

using std::string;
using test::ErrorOf;
using Attributes = std::vector<std::pair<string, string>>;

constexpr char kCamera[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE camera>
<camera xmlns="urn:camera" xmlns:n="urn:network" name="front">
  <!-- how it is reached -->
  <n:address n:family="4" kind="fixed">10.0.0.7</n:address>
  <n:address kind="local">fe80::1</n:address>
  <title>Door &amp; <b>yard</b><![CDATA[ <1>]]></title>
</camera>
)";

TEST(XmlDocumentTest, ElementsAttributesTextsAndNamespacesAreRead) {
    const XmlDocument document = XmlDocument::Parse(kCamera);
    const XmlElement camera = document.GetRoot();
    EXPECT_EQ(camera.GetName(), "camera");
    EXPECT_EQ(camera.GetNamespaceUri(), "urn:camera");
    EXPECT_EQ(camera.GetAttributes(), (Attributes{{"name", "front"}}));
    EXPECT_EQ(camera.GetLine(), 3U);
    EXPECT_FALSE(camera.GetParent());

    const XmlElement address = camera.GetChild("address");
    EXPECT_EQ(address.GetPrefix(), "n");
    EXPECT_EQ(address.GetNamespaceUri(), "urn:network");
    EXPECT_EQ(address.GetText(), "10.0.0.7");
    string value = "kept";
    EXPECT_FALSE(address.GetAttribute("family", value));
    EXPECT_EQ(value, "kept");
    EXPECT_TRUE(address.GetAttribute("family", value, "urn:network"));
    EXPECT_EQ(value, "4");
    EXPECT_EQ(address.GetAttributeOr("kind", "-"), "fixed");
    EXPECT_EQ(address.GetAttributeOr("none", "-"), "-");
    EXPECT_EQ(address.GetNextSibling().GetText(), "fe80::1");
    EXPECT_EQ(address.GetParent(), camera);
    EXPECT_EQ(camera.GetChildren().size(), 3U);
    EXPECT_EQ(camera.GetChildren("address").size(), 2U);
    EXPECT_EQ(camera.GetChild("title").GetText(), "Door & yard <1>");
    EXPECT_FALSE(camera.GetChild("address", "urn:camera"));
    EXPECT_FALSE(camera.GetChild("title").GetNextSibling());
    EXPECT_EQ(ErrorOf([] { XmlElement().GetName(); }), "no element");
}

TEST(XmlDocumentTest, DocumentsAreChangedAndSaved) {
    XmlDocument document("settings", "urn:settings");
    XmlElement root = document.GetRoot();
    root.DeclareNamespace("v", "urn:video");
    root.SetAttribute("version", "1");
    root.SetAttribute("codec", "h264", "urn:video");
    root.AddChild("title").SetText("a < b & \"c\" \xC3\xA9\n");
    root.AddChild("stream", "urn:video").AddChild("rate").SetText("25");
    root.AddChild("plain", "").AddChild("inside");
    root.AddChild("other", "urn:other");
    const string expected =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<settings xmlns=\"urn:settings\" xmlns:v=\"urn:video\" version=\"1\" v:codec=\"h264\">"
        "<title>a &lt; b &amp; \"c\" \xC3\xA9\n</title>"
        "<v:stream><v:rate>25</v:rate></v:stream>"
        "<plain xmlns=\"\"><inside/></plain><other xmlns=\"urn:other\"/></settings>\n";
    EXPECT_EQ(document.ToString(), expected);
    const XmlDocument again = XmlDocument::Parse(expected);
    EXPECT_EQ(again.ToString(), expected);
    EXPECT_EQ(again.GetRoot().GetChild("plain").GetChild("inside").GetNamespaceUri(), "");

    EXPECT_TRUE(root.RemoveAttribute("codec", "urn:video"));
    EXPECT_FALSE(root.RemoveAttribute("codec", "urn:video"));
    root.SetAttribute("version", "2");
    XmlElement stream = root.GetChild("stream");
    EXPECT_EQ(ErrorOf([&] { root.RemoveChild(stream.GetChild("rate")); }), "not a child");
    root.RemoveChild(stream);
    root.RemoveChild(root.GetChild("plain"));
    root.RemoveChild(root.GetChild("other"));
    root.GetChild("title").SetText("");

    const test::TempDir folder;
    document.SaveFile(folder.File("settings.xml"));
    EXPECT_EQ(
        folder.Read("settings.xml"),
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<settings xmlns=\"urn:settings\" xmlns:v=\"urn:video\" version=\"2\">\n  <title/>\n</settings>\n");
    EXPECT_EQ(XmlDocument::ParseFile(folder.File("settings.xml")).GetRoot().GetAttributeOr("version", ""),
              "2");
    EXPECT_NE(ErrorOf([&] { XmlDocument::ParseFile(folder.File("none")); }).find("errno(2)"), string::npos);
}

TEST(XmlDocumentTest, WhatCannotStandInADocumentIsRefused) {
    XmlDocument document("a");
    XmlElement root = document.GetRoot();
    for (const string& name :
         {string(), string("1a"), string("a b"), string("a:b"), string("<"), string("a\0b", 3)}) {
        EXPECT_EQ(ErrorOf([&] { root.AddChild(name); }).substr(0, 12), "invalid name") << name;
        EXPECT_EQ(ErrorOf([&] { root.SetAttribute(name, "1"); }).substr(0, 12), "invalid name") << name;
    }
    for (const string& text : {string("\x01"), string("a\0b", 3), string("\xFF"), string("\xEF\xBF\xBE"),
                               string("\xED\xA0\x80"), string("\xC0\x80"), string("\xE0\x80\x80"),
                               string("\xF0\x80\x80\x80"), string("\xF4\x90\x80\x80"), string("\xE2\x82")}) {
        EXPECT_EQ(ErrorOf([&] { root.SetText(text); }), "invalid text");
        EXPECT_EQ(ErrorOf([&] { root.SetAttribute("b", text); }), "invalid text");
    }
    EXPECT_EQ(ErrorOf([&] { root.SetAttribute("b", "1", "urn:x"); }), "undeclared namespace 'urn:x'");
    EXPECT_EQ(ErrorOf([&] { root.SetAttribute("xmlns", "urn:x"); }), "invalid name 'xmlns'");
    EXPECT_EQ(ErrorOf([&] { root.DeclareNamespace("xml", "urn:x"); }), "invalid namespace 'xml' 'urn:x'");
    EXPECT_EQ(ErrorOf([&] { root.DeclareNamespace("e", ""); }), "invalid namespace 'e' ''");
    EXPECT_EQ(ErrorOf([&] { root.DeclareNamespace("", "urn:x"); }), "prefix '' is in use");
    root.DeclareNamespace("p", "urn:p");
    EXPECT_EQ(ErrorOf([&] { root.DeclareNamespace("p", "urn:q"); }), "prefix 'p' is declared already");
    EXPECT_EQ(document.ToString(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<a xmlns:p=\"urn:p\"/>\n");
}

TEST(XmlDocumentTest, SettersAndParserAgreeOnNames) {
    XmlDocument document("a");
    for (const string name :
         {"\xC3\xA9", "\xCE\x87", "\xE2\x81\xB0", "\xF0\x90\x80\x80", "a\xC2\xB7", "\xC2\xB7", "\xC3\x97",
          "\xE3\x80\x80", "-a", "a-", "a.", ".", "\xEF\xBF\xBE"}) {
        EXPECT_EQ(ErrorOf([&] { document.GetRoot().SetAttribute(name, "1"); }) == "no exception",
                  ErrorOf([&] { XmlDocument::Parse("<" + name + "/>"); }) == "no exception")
            << name;
    }
}

TEST(XmlDocumentTest, AFileIsReplacedOnlyByOneThatCanBeRead) {
    const test::TempDir folder;
    const string path = folder.Write("good.xml", "<good/>");
    XmlDocument document = XmlDocument::Parse("<r><a xml:id='x'/><a/></r>");
    const char* const kXml = "http://www.w3.org/XML/1998/namespace";
    document.GetRoot().GetChildren()[1].SetAttribute("id", "x", kXml);
    EXPECT_NE(ErrorOf([&] { document.SaveFile(path); }).find("ID x already defined"), string::npos);
    EXPECT_EQ(folder.Read("good.xml"), "<good/>");
    document.GetRoot().GetChildren()[1].SetAttribute("id", "y", kXml);
    document.SaveFile(path);
    EXPECT_EQ(ErrorOf([&] { XmlDocument("r", "a b"); }), "invalid namespace '' 'a b'");
    EXPECT_EQ(ErrorOf([&] { document.GetRoot().SetText(string(10'000'001, 'x')); }),
              "text of more than 10000000 bytes");
    EXPECT_EQ(ErrorOf([&] {
                  XmlElement element = document.GetRoot();
                  for (int i = 0; i < 255; ++i) {
                      element = element.AddChild("a");
                  }
                  document.SaveFile(path);
                  element.AddChild("a");
              }),
              "elements are nested too deep");
}

TEST(XmlDocumentTest, ADeclarationMovesNoElementToAnotherNamespace) {
    const XmlDocument document =
        XmlDocument::Parse("<r xmlns='urn:r' xmlns:p='urn:p'><a><b p:c='1'/></a><n xmlns=''><m/></n></r>");
    XmlElement root = document.GetRoot();
    XmlElement a = root.GetChild("a");
    EXPECT_EQ(ErrorOf([&] { a.DeclareNamespace("", "urn:x"); }), "prefix '' is in use");
    EXPECT_EQ(ErrorOf([&] { a.DeclareNamespace("p", "urn:x"); }), "prefix 'p' is in use");
    EXPECT_EQ(ErrorOf([&] { root.GetChild("n").GetChild("m").DeclareNamespace("", "urn:x"); }),
              "prefix '' is in use");
    EXPECT_EQ(ErrorOf([&] { root.DeclareNamespace("", "urn:x"); }), "prefix '' is declared already");
    root.GetChild("n").DeclareNamespace("p", "urn:x");
    a.SetAttribute("lang", "en", "http://www.w3.org/XML/1998/namespace");
    EXPECT_EQ(document.ToString(),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r xmlns=\"urn:r\" xmlns:p=\"urn:p\"><a "
              "xml:lang=\"en\"><b p:c=\"1\"/></a>"
              "<n xmlns=\"\" xmlns:p=\"urn:x\"><m/></n></r>\n");
}

void Drain(XmlReader& reader) {
    string value;
    while (reader.Read()) {
        reader.GetAttribute("a", value);
        value = reader.GetValue();
    }
}

string Repeat(const string& text, int times) {
    string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

string Numbered(const string& before, const string& after, int count) {
    string all;
    for (int i = 0; i < count; ++i) {
        all += before + std::to_string(i) + after;
    }
    return all;
}

/// Converts ASCII to UTF-16.
string Wide(const string& text, bool isBig = false) {
    string wide = isBig ? "\xFE\xFF" : "\xFF\xFE";
    for (const char c : text) {
        wide += isBig ? string{'\0', c} : string{c, '\0'};
    }
    return wide;
}

/// Returns the errors of reading a document in memory, and piece by piece from a text and from a stream.
std::vector<string> Verdicts(const string& text) {
    return {ErrorOf([&] { XmlDocument::Parse(text); }), ErrorOf([&] {
                XmlReader reader(text);
                Drain(reader);
            }),
            ErrorOf([&] {
                std::istringstream stream(text);
                XmlReader reader(stream);
                Drain(reader);
            })};
}

long PeakKiB() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

string MakeLaughs() {
    string laughs = "<!DOCTYPE r [<!ENTITY l0 \"lol\">";
    for (int i = 1; i < 10; ++i) {
        laughs +=
            "<!ENTITY l" + std::to_string(i) + " \"" + Repeat("&l" + std::to_string(i - 1) + ";", 10) + "\">";
    }
    return laughs;
}

const string kLaughs = MakeLaughs();
const string kNoEntities = "entity declarations are not allowed (line 1, column ";

/// Documents and the beginnings of their errors.
const std::pair<string, string> kBroken[] = {
    {kLaughs + "]><r>&l9;</r>", kNoEntities},
    {kLaughs + "]><r a=\"&l9;\"/>", kNoEntities},
    {kLaughs + "<!ATTLIST r a CDATA \"&l9;\">]><r/>", kNoEntities},
    {"<!DOCTYPE r [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><r>&x;</r>", kNoEntities},
    {"<!DOCTYPE r [<!ENTITY x SYSTEM \"http://127.0.0.1:1/\">]><r>&x;</r>", kNoEntities},
    {"<!DOCTYPE r [<!ENTITY % x SYSTEM \"file:///etc/passwd\"> %x;]><r/>", kNoEntities},
    {"<!DOCTYPE r [<!ENTITY q \"" + string(100'000, 'q') + "\">]><r>" + Repeat("&q;", 50'000) + "</r>",
     kNoEntities},
    {"<!DOCTYPE r [<!NOTATION n SYSTEM 'n'><!ENTITY x SYSTEM 'x' NDATA n>]><r/>", kNoEntities},
    {"<!DOCTYPE r [<!ATTLIST r a CDATA 'x'>]><r/>", "attribute declarations are not allowed (line 1, "},
    {"<!DOCTYPE r [" + Numbered("<!ATTLIST r a", " CDATA 'x'>", 4'000) + "]><r>" + Repeat("<r/>", 50'000),
     "attribute declarations are not allowed (line 1, "},
    {"<r" + Numbered(" a", "=''", 120'000) + "/>", "too many attributes (line 1, column "},
    {"<r><b" + Numbered(" xmlns:a", "='u'", 60'000) + "/></r>", "too many attributes (line 1, column "},
    {"<?xml version='1.0' encoding='UTF-7'?>\n<r><b" + Numbered(" a", "+AD0-''", 60'000) + "/></r>",
     "encoding 'UTF-7' is not supported (line 1, column 31)"},
    {"<?xml version='1.0'\n encoding = \"ISO-2022-JP\" ?><r><b" + Numbered(" a", "=\x1B(B''", 60'000),
     "encoding 'ISO-2022-JP' is not supported (line 2, column 14)"},
    {"<?xml version='1.0' encoding='UTF-7'+AD8-+AD4-<r>+AD0-</r>",  // its end is in UTF-7, too
     "encoding 'UTF-7' is not supported (line 1, column 31)"},
    {"<?xml version='1.0' encoding=''?><r/>", "Invalid XML encoding name (line 1, column 31)"},
    {"<?xml version='1.0' encoding='UTF-7?><r/>", ""},
    {"<?xml version='1.0'" + string(1'024, ' ') + "encoding='UTF-7'?><r/>",
     "the XML declaration is too long (line 1, column 1)"},
    {"<r><u:b/></r>", "Namespace prefix u on b is not defined (line 1, column "},
    {Repeat("<d>", 100'000), "Excessive depth in document: 256"},
    {"", ""},
    {"<r>", ""},
    {"<r>\n\n<a></b></r>", "Opening and ending tag mismatch: a line 3 and b (line 3, column 8)"},
    {"<r a='1' a='2'/>", "Attribute a redefined (line 1, column "},
    {"<r>&none;</r>", "Entity 'none' not defined (line 1, column "},
    {"<r>\xFF</r>", ""},
    {"<r><![CDATA[\xFF]]></r>", ""},
    {"<r><![CDATA[" + string(1'000, 'x') + "\xC1\x9C" + string(1'000, 'x') + "]]></r>", ""},
    {"<r><![CDATA[\x01]]></r>", ""},
    {"<r/><r/>", "Extra content at the end of the document (line 1, column 5)"},
    {string("<r>\0</r>", 8), "zero bytes are not allowed (line 1, column "},
    {string("<r/>\0", 5), "zero bytes are not allowed (line 1, column "},
    {"<r/>" + string(5'000, ' ') + string("\0<x>", 4), "zero bytes are not allowed (line 1, column "},
    {string("<r a='\0'/>", 10), "zero bytes are not allowed (line 1, column "},
    {"<r><!--" + string(1 << 20, '-'), "Double hyphen within comment (line 1, column 8)"},
    {Repeat("<r" + Numbered(" xmlns:a", "='u'", 100) + ">", 3), "too many namespaces (line 1, column "},
    {"<r>" + Numbered("<a", "/>", 70'000), "too many different names (line 1, column "},
    {"<r>" + string(10'000'001, 'x') + "</r>", ""},
    {"<r a='" + string(9'900'000, 'x') + "'/>", "a tag or comment of more than 9900000 bytes (line 1, "},
    {"<r><a xml:id='x'/><a xml:id='x'/></r>", ""},
    {"<r xml:id='1'/>", ""},
};

TEST(XmlAttackTest, AttacksAndBrokenDocumentsEndInAnErrorWithALine) {
    std::vector<std::pair<string, string>> texts(std::begin(kBroken), std::end(kBroken));
    for (const auto& [text, error] : kBroken) {
        if (text.find_first_of("\xFF\xC1") == string::npos) {
            texts.emplace_back(Wide(text), error);
        }
    }
    // Documents that are not in the declared encoding.
    for (const auto& [text, name] :
         {std::pair<string, string>{"\xEF\xBB\xBF<?xml version='1.0' encoding='", "ISO-8859-1"},
          {"<?xml version='1.0' encoding='", "UTF-16LE"},
          {Wide("<?xml version='1.0' encoding='"), "UTF-16BE"},
          {Wide("<?xml version='1.0' encoding='", true), "utf-16le"}}) {
        const string end = name + "'?><r/>";
        texts.emplace_back(
            text + (text[1] == '\xFE' || text[1] == '\xFF' ? Wide(end, text[0] == '\xFE').substr(2) : end),
            "encoding '" + name + "' is not that of the document (line 1, column 31)");
    }
    // The first half of a surrogate pair without the second.
    for (const char* const before : {"<r>", "<r/>", "<r/><!--", "", "<r><![CDATA["}) {
        texts.emplace_back(Wide(before) + "\xDB\xDB\xDB\xDB" + string(600, '\xDB'), "");
    }
    // EBCDIC, which is detected by its form of "<?xm", and four bytes per character.
    texts.emplace_back("\x4C\x6F\xA7\x94\x93", "encoding 'EBCDIC' is not supported (line 1, column 1)");
    for (const string& wide : {string("\0\0\0<", 4), string("<\0\0\0", 4), string("\xFF\xFE\0\0", 4)}) {
        texts.emplace_back(wide + "r", "encoding 'UCS-4' is not supported (line 1, column 1)");
    }
    const long before = PeakKiB();
    ::testing::internal::CaptureStderr();
    for (const auto& [text, error] : texts) {
        for (const string& found : Verdicts(text)) {
            EXPECT_NE(found, "no exception") << text.substr(0, 60);
            EXPECT_EQ(found.substr(0, error.size()), error) << text.substr(0, 60);
        }
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_LT(PeakKiB() - before, 384 * 1024) << "expanded entities would take GiB";
}

TEST(XmlAttackTest, SafeEncodingsAreAccepted) {
    for (const string& text :
         {string("<?xml version='1.0' encoding='iso-8859-1'?><r>\xE9</r>"),
          string("\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\" standalone='yes'?><r>\xC3\xA9</r>"),
          string("<?xml-stylesheet encoding='UTF-7'?><r>\xC3\xA9</r>"), Wide("<r>&#233;</r>"),
          Wide("<?xml version='1.0' encoding='UTF-16'?><r>&#xE9;</r>", true),
          Wide("<?xml version='1.0' encoding='UTF-16LE'?><r>&#xE9;</r>"),
          Wide("<?xml version='1.0' encoding='UTF-8'?><r>&#xE9;</r>"),
          Wide("<?xml version='1.0' encoding='UTF-16'?><r>&#xE9;</r>").substr(2)}) {
        EXPECT_EQ(XmlDocument::Parse(text).GetRoot().GetText(), "\xC3\xA9") << text;
        std::istringstream stream(text);
        XmlReader reader(stream);
        while (reader.Read() && reader.GetNodeType() != XmlReader::kElement) {
        }
        EXPECT_EQ(reader.ReadText(), "\xC3\xA9") << text;
    }
}

TEST(XmlAttackTest, TextThatLooksLikeManyAttributesIsRead) {
    const string signs(300'000, '=');
    const string harmless =
        "<r><!--" + signs.substr(0, 4'000) + "-->" + signs + "<![CDATA[" + signs + "]]></r>";
    EXPECT_EQ(XmlDocument::Parse(harmless).GetRoot().GetText(), signs + signs);
    XmlReader reader(harmless);
    ASSERT_TRUE(reader.Read());
    EXPECT_EQ(reader.ReadText(), signs + signs);
}

TEST(XmlAttackTest, ErrorsHaveAPositionAndNothingIsFetched) {
    try {
        XmlDocument::Parse("<r>\n  <a></b></r>");
        FAIL();
    } catch (const XmlException& e) {
        EXPECT_EQ(e.GetDocumentLine(), 2U);
        EXPECT_EQ(e.GetDocumentColumn(), 10U);
    }
    EXPECT_EQ(
        XmlDocument::Parse("<!DOCTYPE r SYSTEM \"/nowhere/r.dtd\"><r>&lt;&#233;</r>").GetRoot().GetText(),
        "<\xC3\xA9");
}

// If the time grew with the square of the length, these would not end before the test is stopped.
TEST(XmlAttackTest, LongDocumentsWithinTheLimitsAreRead) {
    constexpr int kSize = 4 << 20;
    const string attributes = "<a" + Numbered(" a", "='>'", 2'048) + "/>";
    const string namespaces = "<r" + Numbered(" xmlns:a", "='u'", 256) + ">" + Repeat("<a0:b/>", 100'000);
    for (const string& text :
         {"<r a='" + string(kSize, '>') + "'/>", "<r a='" + Repeat("&amp;", kSize / 5) + "'/>",
          "<r>" + Numbered("<a", "/>", 60'000) + Repeat("<a59999/>", kSize / 9) + "</r>",
          "<r>" + Repeat("<!--x-->", kSize / 8) + "</r>", "<r>" + Repeat("<?x y?>", kSize / 7) + "</r>",
          "<r>" + Repeat("<![CDATA[]]]>", kSize / 13) + "</r>", "<r><!--" + string(kSize, 'x') + "--></r>",
          "<r>" + string(kSize, '>') + "</r>", "<r>" + string(10'000'000, 'x') + "</r>",
          Repeat("<!--x-->", kSize / 8) + "<r/>",
          "<!DOCTYPE r [<!-- ' -->" + Repeat("<?p '>?>", 50'000) + "]><r/>",
          Wide("<r a='" + string(kSize / 2, '>') + "'>" + string(kSize / 2, 'x') + "</r>"),
          "<r>" + Repeat(attributes, 20) + "</r>", namespaces + "</r>",
          Repeat("<a>", 256) + Repeat("</a>", 256), "<" + string(50'000, 'a') + "/>"}) {
        EXPECT_EQ(Verdicts(text), std::vector<string>(3, "no exception")) << text.substr(0, 60);
    }
}

/// A stream of pieces. Each piece arrives when the previous one has been read, the last one several times.
/// Then the stream fails.
class Pieces : public std::streambuf {
public:
    explicit Pieces(std::vector<string> pieces, int repeated = 1)
        : _pieces(std::move(pieces)), _left(static_cast<int>(_pieces.size()) + repeated - 1) {}

    int_type underflow() override {
        if (_left-- == 0) {
            throw std::runtime_error("connection lost");
        }
        string& piece = _pieces[std::min(_at++, _pieces.size() - 1)];
        setg(piece.data(), piece.data(), piece.data() + piece.size());
        return traits_type::to_int_type(piece[0]);
    }

private:
    std::vector<string> _pieces;
    int _left;
    std::size_t _at = 0;
};

TEST(XmlReaderTest, AStreamIsReadAsItArrives) {
    Pieces pieces({"<", "r><a b='>", "'>1", "</a", "><c/>t"});
    std::istream stream(&pieces);
    XmlReader reader(stream);
    string seen;
    EXPECT_EQ(ErrorOf([&] {
                  while (reader.Read()) {
                      seen += string(reader.GetName()) + "=" + string(reader.GetValue()) + " ";
                  }
              }),
              "XmlReader: reading failed");
    EXPECT_EQ(seen, "r= a= #text=1 a= c= ");
    EXPECT_EQ(ErrorOf([&] { reader.Read(); }), "XmlReader: reading failed");
    std::ifstream missing("/nowhere/document.xml");
    XmlReader fromMissing(missing);
    EXPECT_EQ(ErrorOf([&] { fromMissing.Read(); }), "XmlReader: reading failed");
}

TEST(XmlReaderTest, ALongStreamTakesTheMemoryOfAPiece) {
    const string piece = "<!--" + string(200, 'c') + "--><?x y?>";
    Pieces pieces({"<r>", Repeat(piece, 200), piece + "text<a b='c'/><![CDATA[d]]>"}, 100'000);
    std::istream stream(&pieces);
    XmlReader reader(stream);
    const long before = PeakKiB();
    int nodes = 0;
    EXPECT_EQ(ErrorOf([&] {
                  for (; reader.Read(); ++nodes) {
                  }
              }),
              "XmlReader: reading failed");
    EXPECT_EQ(nodes, 1 + 400 + 5 * 100'000 - 1) << "more of the last section might have come";
    EXPECT_LT(PeakKiB() - before, 2 * 1024);
}

TEST(XmlReaderTest, NodesComeOneByOne) {
    std::istringstream stream(kCamera);
    XmlReader fromText(kCamera);
    XmlReader fromStream(stream);
    for (XmlReader* reader : {&fromText, &fromStream}) {
        string seen;
        EXPECT_EQ(reader->GetNodeType(), XmlReader::kNone);
        while (reader->Read()) {
            switch (reader->GetNodeType()) {
                case XmlReader::kElement:
                    seen += "<" + std::to_string(reader->GetDepth()) + string(reader->GetName()) + " ";
                    break;
                case XmlReader::kEndElement:
                    seen += ">";
                    break;
                case XmlReader::kText:
                case XmlReader::kCData:
                    seen += "'" + string(reader->GetValue()) + "'";
                    break;
                case XmlReader::kComment:
                    seen += "#";
                    break;
                default:
                    break;
            }
            string family;
            if (reader->GetLocalName() == "address" &&
                reader->GetAttribute("family", "urn:network", family)) {
                EXPECT_EQ(reader->GetNamespaceUri(), "urn:network");
                EXPECT_EQ(family, "4");
                EXPECT_EQ(reader->GetLine(), 5U);
                EXPECT_FALSE(reader->GetAttribute("none", family));
            }
        }
        EXPECT_EQ(seen,
                  "<0camera #<1n:address '10.0.0.7'><1n:address 'fe80::1'>"
                  "<1title 'Door & '<2b 'yard'>' <1>'>>");
        EXPECT_FALSE(reader->Read());
    }
}

TEST(XmlReaderTest, ElementsAreSkippedAndTextsTaken) {
    XmlReader reader("<r><skip><r/></skip><a> 1 <!-- x --><![CDATA[2]]></a><e/><b>3<c/></b></r>");
    ASSERT_TRUE(reader.Read());
    ASSERT_TRUE(reader.Read());
    ASSERT_TRUE(reader.Skip());
    EXPECT_EQ(reader.GetName(), "a");
    EXPECT_EQ(reader.ReadText(), " 1 2");
    ASSERT_TRUE(reader.Read());
    EXPECT_TRUE(reader.IsEmptyElement());
    EXPECT_EQ(reader.ReadText(), "");
    ASSERT_TRUE(reader.Read());
    EXPECT_EQ(ErrorOf([&] { reader.ReadText(); }), "element 'b' holds more than text (line 1)");

    XmlReader lines("<r>a\r\nb\r<![CDATA[c\r\nd\r]]></r>");
    ASSERT_TRUE(lines.Read());
    EXPECT_EQ(lines.ReadText(), "a\nb\nc\nd\n");

    XmlReader attributes("<r xmlns='urn:r' xmlns:p='urn:p' p:a='1&amp;2' a='3'/>");
    ASSERT_TRUE(attributes.Read());
    for (const auto& [name, expected] : Attributes{{"a", "3"},
                                                   {"p:a", "1&2"},
                                                   {"xmlns", "urn:r"},
                                                   {"xmlns:p", "urn:p"},
                                                   {"p", "-"},
                                                   {"b:a", "-"}}) {
        string value = "-";
        attributes.GetAttribute(name.c_str(), value);
        EXPECT_EQ(value, expected) << name;
    }
    string value;
    EXPECT_TRUE(attributes.GetAttribute("a", "urn:p", value));
    EXPECT_EQ(value, "1&2");
    EXPECT_TRUE(attributes.GetAttribute("a", "", value));
    EXPECT_EQ(value, "3");
    EXPECT_FALSE(attributes.GetAttribute("a", "urn:r", value));
}

TEST(XmlWriterTest, WhatIsWrittenReadsBack) {
    std::ostringstream stream;
    XmlWriter writer(stream, true);
    writer.StartDocument();
    writer.Comment(" a camera ");
    writer.StartElement("root");
    writer.Namespace("", "urn:r");
    writer.Namespace("v", "urn:v");
    writer.Attribute("v:a", "<\"&'\n>");
    writer.Element("v:text", "a < b & c > d");
    writer.Element("empty", "");
    writer.StartElement("mixed");
    writer.Text("x");
    writer.CData("]]>\r\ny]]\r>]]>");
    writer.EndElement();
    writer.EndDocument();
    const string text = stream.str();
    EXPECT_EQ(text.substr(0, 78),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!-- a camera -->\n<root xmlns=\"urn:r\" x");
    EXPECT_NE(text.find("\n  <v:text>a &lt; b &amp; c &gt; d</v:text>\n  <empty/>\n"), string::npos) << text;
    const XmlDocument document = XmlDocument::Parse(text);
    string value;
    EXPECT_TRUE(document.GetRoot().GetAttribute("a", value, "urn:v"));
    EXPECT_EQ(value, "<\"&'\n>");
    EXPECT_EQ(document.GetRoot().GetChild("mixed").GetText(), "x]]>\r\ny]]\r>]]>");
}

TEST(XmlWriterTest, MisuseAndAFullStreamAreTold) {
    std::ostringstream stream;
    XmlWriter writer(stream);
    EXPECT_EQ(ErrorOf([&] { writer.EndElement(); }), "no element is open");
    EXPECT_EQ(ErrorOf([&] { writer.Text("a"); }), "no element is open");
    EXPECT_EQ(ErrorOf([&] { writer.EndDocument(); }), "no element is open");
    EXPECT_EQ(ErrorOf([&] { writer.StartElement("a b"); }), "invalid name 'a b'");
    writer.StartElement("r");
    EXPECT_EQ(ErrorOf([&] { writer.StartDocument(); }), "the document has begun");
    EXPECT_EQ(ErrorOf([&] { writer.Namespace("p", ""); }), "invalid namespace 'p' ''");
    EXPECT_EQ(ErrorOf([&] { writer.Namespace("xmlns", "urn:x"); }), "invalid namespace 'xmlns' 'urn:x'");
    EXPECT_EQ(ErrorOf([&] { writer.Attribute("xmlns:p", ""); }), "invalid namespace 'p' ''");
    EXPECT_EQ(ErrorOf([&] { writer.Attribute("a=", ""); }), "invalid name 'a='");
    EXPECT_EQ(ErrorOf([&] { writer.Attribute("a", "\xFF"); }), "invalid text");
    writer.Attribute("a", "1");
    EXPECT_EQ(ErrorOf([&] { writer.Attribute("a", "2"); }), "attribute 'a' twice");
    EXPECT_EQ(ErrorOf([&] { writer.Comment("a--b"); }), "invalid comment");
    EXPECT_EQ(ErrorOf([&] { writer.Comment("a-"); }), "invalid comment");
    for (const string& text : {string("a\0", 2), string("\x1B"), string("\xC3"), string("\xEF\xBF\xBF")}) {
        EXPECT_EQ(ErrorOf([&] { writer.Text(text); }), "invalid text");
        EXPECT_EQ(ErrorOf([&] { writer.CData(text); }), "invalid text");
        EXPECT_EQ(ErrorOf([&] { writer.Comment(text); }), "invalid text");
        EXPECT_EQ(ErrorOf([&] { writer.Element("b", text); }), "invalid text");
        EXPECT_EQ(ErrorOf([&] { writer.StartElement("b" + text); }).substr(0, 12), "invalid name");
    }
    writer.Text("t");
    EXPECT_EQ(ErrorOf([&] { writer.Attribute("b", "1"); }),
              "attributes must precede the content of an element");
    writer.EndDocument();
    EXPECT_EQ(ErrorOf([&] { writer.StartElement("s"); }), "the document is complete");
    EXPECT_EQ(stream.str(), "<r a=\"1\">t</r>\n");

    std::ofstream full("/dev/full");
    for (const std::size_t size : {1U, 1'000'000U}) {
        XmlWriter toFull(full);
        full.clear();
        EXPECT_EQ(ErrorOf([&] {
                      toFull.Element("r", string(size, 'x'));
                      toFull.EndDocument();
                  }),
                  "XmlWriter: writing failed");
    }
}

/// Errors and the calls that cause them.
using Write = void (*)(XmlWriter&);
const std::pair<string, Write> kUnreadable[] = {
    {"undeclared prefix 'p'", [](XmlWriter& w) { w.StartElement("p:a"), w.Text("t"); }},
    {"undeclared prefix 'xmlns'", [](XmlWriter& w) { w.Element("xmlns:a", ""); }},
    {"undeclared prefix 'p'", [](XmlWriter& w) { w.Attribute("p:a", "1"), w.EndDocument(); }},
    {"undeclared prefix 'p'",
     [](XmlWriter& w) { w.StartElement("a"), w.Namespace("p", "u"), w.EndElement(), w.Element("p:a", ""); }},
    {"attribute 'a' twice",
     [](XmlWriter& w) {
         w.Namespace("p", "u"), w.Namespace("q", "u"), w.Attribute("p:a", "1"), w.Attribute("q:a", "2");
         w.Comment("c");
     }},
    {"invalid namespace '' 'a b'", [](XmlWriter& w) { w.Namespace("", "a b"); }},
    {"xml:id is not a name", [](XmlWriter& w) { w.Attribute("xml:id", "1"); }},
    {"xml:id is not the only one of its value",
     [](XmlWriter& w) { w.Attribute("xml:id", "a"), w.StartElement("b"), w.Attribute("xml:id", "a"); }},
    {"text of more than 10000000 bytes", [](XmlWriter& w) { w.Text(string(10'000'001, 'x')); }},
    {"text of more than 10000000 bytes",
     [](XmlWriter& w) { w.CData(string(9'800'000, 'x')), w.Text(""), w.Text(string(200'001, 'x')); }},
    {"a tag or comment of more than 9900000 bytes",
     [](XmlWriter& w) { w.Attribute("a", string(2'000'000, '<')), w.EndElement(); }},
    {"a tag or comment of more than 9900000 bytes", [](XmlWriter& w) { w.Comment(string(9'900'000, 'x')); }},
    {"invalid name", [](XmlWriter& w) { w.StartElement(string(50'001, 'x')); }},
    {"elements are nested too deep",
     [](XmlWriter& w) {
         for (int i = 0; i < 256; ++i) {
             w.StartElement("a");
         }
     }},
    {"too many attributes",
     [](XmlWriter& w) {
         for (int i = 0; i < 2'049; ++i) {
             w.Attribute("a" + std::to_string(i), "");
         }
     }},
    {"too many different names",
     [](XmlWriter& w) {
         for (int i = 0; i < 70'000; ++i) {
             w.Element("a" + std::to_string(i), "");
         }
     }},
    {"too many namespaces",
     [](XmlWriter& w) {
         for (int i = 0; i < 150; ++i) {
             w.Namespace("p" + std::to_string(i), "u");
             w.StartElement("a");
             w.Namespace("q" + std::to_string(i), "u");
         }
     }},
};

TEST(XmlWriterTest, WhatCouldNotBeReadAgainIsRefusedBeforeItIsWritten) {
    for (const auto& row : kUnreadable) {
        const string& error = row.first;
        std::ostringstream stream;
        XmlWriter writer(stream);
        writer.StartElement("r");
        EXPECT_EQ(ErrorOf([&] { row.second(writer); }).substr(0, error.size()), error);
        const string refused = ErrorOf([&] { writer.EndDocument(); });
        const string text = stream.str();
        EXPECT_EQ(refused == "no exception" ? ErrorOf([&] { XmlDocument::Parse(text); }) : refused,
                  refused == "no exception" ? refused : error);
    }

    // A declaration may follow the attributes, and can still be made after the refusal.
    std::ostringstream stream;
    XmlWriter writer(stream);
    writer.StartElement("p:r");
    writer.Attribute("p:a", "1");
    EXPECT_EQ(ErrorOf([&] { writer.Text("t"); }), "undeclared prefix 'p'");
    writer.Namespace("p", "u");
    writer.Text("t");
    writer.EndDocument();
    EXPECT_EQ(stream.str(), "<p:r p:a=\"1\" xmlns:p=\"u\">t</p:r>\n");
}

TEST(XmlWriterTest, IndentingLeavesMixedTextAsItIs) {
    std::ostringstream stream;
    XmlWriter writer(stream, true);
    writer.StartElement("r");
    writer.StartElement("p");
    writer.Text("one ");
    writer.Element("b", "two");
    writer.CData(" three");
    writer.StartElement("q");
    writer.Element("z", "");
    writer.Comment("c");
    writer.EndElement();
    writer.EndElement();
    writer.Element("e", "");
    writer.Comment("last");
    writer.EndDocument();
    EXPECT_EQ(
        stream.str(),
        "<r>\n  <p>one <b>two</b><![CDATA[ three]]><q><z/><!--c--></q></p>\n  <e/>\n  <!--last-->\n</r>\n");
}

TEST(XmlXPathTest, ExpressionsAreCompiledOnceAndGiveEveryKind) {
    const XmlDocument document = XmlDocument::Parse(kCamera);
    const XmlElement root = document.GetRoot();
    const std::map<string, string> namespaces = {{"c", "urn:camera"}, {"n", "urn:network"}};
    const XmlXPathExpression addresses("/c:camera/n:address", namespaces);
    for (int i = 0; i < 3; ++i) {
        const auto found = addresses.EvaluateNodes(root.GetChild("title"));
        ASSERT_EQ(found.size(), 2U);
        EXPECT_EQ(found[1].GetText(), "fe80::1");
        EXPECT_EQ(addresses.EvaluateTexts(root), (std::vector<string>{"10.0.0.7", "fe80::1"}));
        EXPECT_EQ(addresses.EvaluateText(root), "10.0.0.7");
        EXPECT_TRUE(addresses.EvaluateBoolean(root));
    }
    EXPECT_EQ(XmlXPathExpression("@kind").EvaluateTexts(root.GetChild("address")),
              std::vector<string>{"fixed"});
    EXPECT_EQ(XmlXPathExpression("count(n:address)", namespaces).EvaluateNumber(root), 2);
    EXPECT_TRUE(std::isnan(XmlXPathExpression("@name").EvaluateNumber(root)));
    EXPECT_FALSE(XmlXPathExpression("//none").EvaluateBoolean(root));
    EXPECT_TRUE(XmlXPathExpression("//none").EvaluateNodes(root).empty());

    EXPECT_EQ(ErrorOf([] { XmlXPathExpression("//["); }), "XPath: Invalid expression '//['");
    EXPECT_EQ(ErrorOf([] { XmlXPathExpression(string("a\0[", 3)); }), "XPath: Invalid expression");
    EXPECT_EQ(ErrorOf([&] { XmlXPathExpression("//x:a").EvaluateNodes(root); }).substr(0, 33),
              "XPath: Undefined namespace prefix");
    EXPECT_EQ(ErrorOf([&] { XmlXPathExpression("1 + 1").EvaluateNodes(root); }),
              "XPath: the result is no set of nodes");
    EXPECT_EQ(ErrorOf([] { XmlXPathExpression("a").EvaluateText(XmlElement()); }), "no element");

    const XmlDocument large = XmlDocument::Parse("<r>" + Repeat("<a><b/></a>", 20'000) + "</r>");
    const XmlXPathExpression costly("//a[count(//b) > 1]");
    const XmlXPathExpression cheap("count(//a[b])");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ErrorOf([&] { costly.EvaluateNodes(large.GetRoot()); }), "XPath: Operation limit exceeded");
        EXPECT_TRUE(costly.EvaluateNodes(root).empty());
        EXPECT_EQ(cheap.EvaluateNumber(large.GetRoot()), 20'000);
    }
    EXPECT_EQ(ErrorOf([] { XmlXPathExpression(Repeat("(", 10'000)); }).substr(0, 31),
              "XPath: Recursion limit exceeded");
}

}  // namespace
}  // namespace zarip::xml
