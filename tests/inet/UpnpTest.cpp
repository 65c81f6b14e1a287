// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "zarip/inet/HttpFormatter.h"
#include "zarip/inet/HttpParser.h"
#include "zarip/inet/ParserException.h"
#include "zarip/inet/UpnpRequest.h"
#include "zarip/inet/UpnpResponse.h"

namespace zarip::inet {
namespace {

using std::string;

UpnpRequest Parse(const string& text) {
    UpnpRequest request;
    std::istringstream in(text);
    in >> request;
    return request;
}

template <class Message>
string Format(const Message& message) {
    std::ostringstream out;
    out << message;
    return out.str();
}

string ParseFailure(const string& text) {
    try {
        Parse(text);
    } catch (const ParserException& e) {
        return e.ToString();
    }
    return "";
}

TEST(UpnpTest, ASearchIsParsed) {
    const UpnpRequest request = Parse(
        "m-search * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nmx: 2\r\n"
        "ST: ssdp:all\r\n\r\n");
    EXPECT_EQ(request.GetMethod(), 0x5245534DU);
    EXPECT_EQ(request.GetMethodName(), "M-SEARCH");
    EXPECT_EQ(request.GetPath(), "*");
    ASSERT_TRUE(request.GetMX() && request.GetST() && request.GetHeader("MAN"));
    EXPECT_EQ(*request.GetMX(), "2");
    EXPECT_EQ(*request.GetST(), "ssdp:all");
    EXPECT_EQ(*request.GetHeader("MAN"), "\"ssdp:discover\"");
    EXPECT_EQ(request.GetNT(), nullptr);
    EXPECT_EQ(Parse("M-SEARCH * HTTP/1.1\r\n\r\n").GetMX(), nullptr);
}

TEST(UpnpTest, OtherMethodsAreRefused) {
    for (const char* method : {"GET", "M-SEARC", "NOTIFY2", "UNKNOWN"}) {
        EXPECT_EQ(ParseFailure(string(method) + " * HTTP/1.1\r\n\r\n"), "Invalid Method") << method;
    }
    UpnpRequest request;
    request.SetMethodName("Notify");
    EXPECT_THROW(request.SetMethodName("GET"), ParserException);
    EXPECT_EQ(request.GetMethod(), 0x46544F4EU);
    request.SetMethod(1);
    EXPECT_EQ(request.GetMethod(), 1U);
    EXPECT_EQ(request.GetMethodName(), "UNKNOWN");
}

TEST(UpnpTest, ANewRequestGoesToTheDiscoveryGroupAndFormatsAsItWasFilled) {
    UpnpRequest request;
    EXPECT_EQ(request.GetMethod(), 0x4F4B4E55U);
    EXPECT_EQ(request.GetMethodName(), "UNKNOWN");
    EXPECT_EQ(string(request.GetDest().ipv4), "239.255.255.250");
    EXPECT_EQ(request.GetDest().port, 1900);

    HttpRequest& base = request;  // the method is the derived class's
    base.SetMethod(UpnpRequest::NOTF);
    request.SetHost("239.255.255.250:1900");
    request.SetCatchControl("max-age=1800");
    request.SetLocation("http://192.0.2.1/device.xml");
    request.SetNT("upnp:rootdevice");
    request.SetNTS("ssdp:alive");
    request.SetServer("Linux UPnP/1.1 camera/1");
    request.SetUSN("uuid:1::upnp:rootdevice");
    request.SetST(nullptr);
    EXPECT_EQ(Format(request),
              "NOTIFY * HTTP/1.1\r\nCACHE-CONTROL: max-age=1800\r\nHOST: 239.255.255.250:1900\r\n"
              "LOCATION: http://192.0.2.1/device.xml\r\nNT: upnp:rootdevice\r\nNTS: ssdp:alive\r\n"
              "SERVER: Linux UPnP/1.1 camera/1\r\nST: \r\nUSN: uuid:1::upnp:rootdevice\r\n\r\n");

    UpnpRequest copy = Parse("M-SEARCH * HTTP/1.1\r\n\r\n");
    copy = request;
    EXPECT_EQ(Format(copy), Format(request));
    for (const string* value : {copy.GetHost(), copy.GetCatchControl(), copy.GetLocation(), copy.GetNT(),
                                copy.GetNTS(), copy.GetServer(), copy.GetUSN()}) {
        ASSERT_NE(value, nullptr);
        EXPECT_FALSE(value->empty());
    }
    EXPECT_THROW(request.SetST("a\r\nb"), ParserException);
    EXPECT_THROW(request.SetST(string(4097, 'x').c_str()), ParserException);
    ASSERT_NE(request.GetST(), nullptr);
    EXPECT_EQ(*request.GetST(), "");
}

TEST(UpnpTest, AResponseKeepsTheDefaultsOfHttp) {
    UpnpResponse response;
    EXPECT_EQ(response.GetCode(), 503);
    EXPECT_EQ(response.GetProtocol(), "HTTP/1.1");
    EXPECT_EQ(response.GetST(), nullptr);
    response.SetCode(200);
    response.SetCatchControl("max-age=1800");
    response.SetLocation("http://192.0.2.1/device.xml");
    response.SetServer(nullptr);
    response.SetST("ssdp:all");
    response.SetUSN("uuid:1");
    const string text = Format(response);
    EXPECT_EQ(text,
              "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=1800\r\nLOCATION: http://192.0.2.1/device.xml\r\n"
              "SERVER: \r\nST: ssdp:all\r\nUSN: uuid:1\r\n\r\n");
    UpnpResponse parsed;
    std::istringstream in(text);
    in >> parsed;
    EXPECT_EQ(parsed.GetCode(), 200);
    for (const string* value : {parsed.GetCatchControl(), parsed.GetLocation(), parsed.GetServer(),
                                parsed.GetST(), parsed.GetUSN()}) {
        EXPECT_NE(value, nullptr);
    }
}

}  // namespace
}  // namespace zarip::inet
