// The place of each virtual function is part of the library's binary interface: programs that were built with
// an older version call by it. New functions go behind the last one.

#include <zarip/core/ILogAppender.h>
#include <zarip/inet/HttpFormatter.h>
#include <zarip/inet/HttpParser.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/IHttpHandler.h>
#include <zarip/inet/InetBase.h>
#include <zarip/interfaces/IAudioLineOutProvider.h>
#include <zarip/interfaces/IBrelkServicesProvider.h>
#include <zarip/interfaces/INetworkingV2Provider.h>
#include <zarip/interfaces/IPtzSerialProvider.h>
#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/interfaces/ISmRegistrationProvider.h>
#include <zarip/interfaces/IStreamInfoProvider.h>
#include <zarip/msgbus/IMessageHandler.h>
#include <zarip/msgbus/IMsgBus.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/IOException.h>
#include <zarip/osa/ITimeSource.h>
#include <zarip/osa/ITimerCallback.h>
#include <zarip/osa/IUdpBufferAccept.h>
#include <zarip/osa/LockException.h>
#include <zarip/osa/Runnable.h>
#include <zarip/osa/Signal.h>
#include <zarip/osa/SocketException.h>
#include <zarip/osa/UdpServer.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace zarip {
namespace {

#if defined(__x86_64__)

/// A pointer to a virtual function holds 1 + 8 * slot here, and 0 or an address otherwise.
template <class Member>
std::size_t SlotOf(Member member) {
    std::uintptr_t word = 0;
    std::memcpy(&word, &member, sizeof word);
    return word % 8 == 1 ? word / 8 : static_cast<std::size_t>(-1);
}

struct Interface {
    const char* name;
    std::size_t first;  ///< 2 where the destructor comes first: it takes two slots.
    std::vector<std::size_t> slots;
};

template <class... Member>
Interface Table(const char* name, std::size_t first, Member... member) {
    return {name, first, {SlotOf(member)...}};
}

template <std::size_t count>
void CheckPlaces(const Interface (&interfaces)[count]) {
    for (const Interface& interface : interfaces) {
        for (std::size_t i = 0; i < interface.slots.size(); ++i) {
            EXPECT_EQ(interface.slots[i], interface.first + i) << interface.name << ", function " << i;
        }
    }
}

TEST(SlotTest, VirtualFunctionsKeepTheirPlaces) {
    using Appender = core::ILogAppender;
    using Bus = msgbus::IMsgBus;
    using Security = interfaces::ISecurityProvider;
    using Udp = osa::UdpServer;
    const Interface interfaces[] = {
        Table("Exception", 2, &osa::Exception::what),
        Table("IOException", 2, &osa::IOException::what),
        Table("LockException", 2, &osa::LockException::what),
        Table("SocketException", 2, &osa::SocketException::what),
        Table("Signal", 2, &osa::Signal::what),
        Table("ITimeSource", 2, &osa::ITimeSource::GetTime, &osa::ITimeSource::SetTime),
        Table("ITimerCallback", 2, &osa::ITimerCallback::OnTimer),
        Table("IUdpBufferAccept", 2, &osa::IUdpBufferAccept::AcceptBuffer),
        Table("Runnable", 2, &osa::Runnable::Run, &osa::Runnable::Stop),
        Table("UdpServer", 2, &Udp::Run, &Udp::Stop,
              static_cast<void (Udp::*)(osa::IUdpBufferAccept*, unsigned int, signed char)>(&Udp::Start),
              static_cast<void (Udp::*)(osa::IUdpBufferAccept*)>(&Udp::Start)),
        Table("ILogAppender", 0, &Appender::AppendV),
        Table("IMsgBus", 2, &Bus::SendMsg, &Bus::SendMsgWaitForReply, &Bus::SendReply,
              static_cast<void (Bus::*)()>(&Bus::StartServer),
              static_cast<void (Bus::*)(unsigned int, signed char)>(&Bus::StartServer),
              static_cast<void (Bus::*)()>(&Bus::StopServer),
              static_cast<void (Bus::*)(bool)>(&Bus::StopServer), &Bus::RegisterDestinationName,
              &Bus::UnregisterDestinationName, &Bus::IsRunning, &Bus::RegisterMessageHandler,
              &Bus::UnregisterMessageHandler),
        Table("IMessageHandler", 2, &msgbus::IMessageHandler::HandleMessage,
              &msgbus::IMessageHandler::GetKind),
        Table("ISecurityProvider", 2, &Security::Authenticate, &Security::AuthenticateHttp,
              &Security::AuthenticateWsse, &Security::TestLdap, &Security::Invalidate,
              &Security::IsAuthenticated, &Security::IsProtected, &Security::GetAllowedPaths,
              &Security::GetAllowedPermissions, &Security::GetCredentials, &Security::GetExpiration,
              &Security::Authorize, &Security::Logout, &Security::AllowHttpDigest, &Security::GetNonce,
              &Security::GetUsers, &Security::AddUsers, &Security::ModifyUsers, &Security::DeleteUsers,
              &Security::ValidatePassword, &Security::AddPassphrase, &Security::GetPassphrases,
              &Security::GetPassphrase, &Security::DeletePassphrase),
    };
    CheckPlaces(interfaces);
}

TEST(SlotTest, MembersOfServicesKeepTheirPlaces) {
    using Networking = interfaces::INetworkingV2Provider;
    using Stream = interfaces::IStreamInfoProvider;
    using Ptz = interfaces::IPtzSerialProvider;
    using Audio = interfaces::IAudioLineOutProvider;
    using Registration = interfaces::ISmRegistrationProvider;
    using Directory = interfaces::IBrelkServicesProvider;
    const Interface interfaces[] = {
        Table("INetworkingV2Provider", 2, &Networking::Get, &Networking::Set),
        Table("IStreamInfoProvider", 2, &Stream::GetCurrentVideoConnections,
              &Stream::GetGuaranteedVideoConnections),
        Table("IPtzSerialProvider", 2, &Ptz::SetPtzSerialSettingsAndInitialize,
              &Ptz::GetPtzSerialSettingsAndInitialize, &Ptz::SetPtzPollingState, &Ptz::GetPtzPollingState),
        Table("IAudioLineOutProvider", 2, &Audio::Connect, &Audio::Disconnect, &Audio::KeepAlive,
              &Audio::Query),
        Table("ISmRegistrationProvider", 2, &Registration::IsRegistered, &Registration::IsSynced,
              &Registration::ResetSecurity, &Registration::ResetSynced, &Registration::ForceRegister),
        Table("IBrelkServicesProvider", 2, &Directory::GetAllServices, &Directory::GetServicesByDeviceType,
              &Directory::GetCameraDeviceNames),
    };
    CheckPlaces(interfaces);
    static_assert(sizeof(Audio) == sizeof(void*), "the time-out is the proxy's");
}

TEST(SlotTest, FunctionsOfHttpMessagesKeepTheirPlaces) {
    using Base = inet::InetBase;
    using Http = inet::HttpBase;
    using Request = inet::HttpRequestBase;
    using Response = inet::HttpResponseBase;
    struct Parser : inet::HttpParser {
        using HttpParser::ParseHeader;
        using HttpParser::ParseRequestLine;
        using HttpParser::ParseResponseLine;
    };
    using Text = const std::string&;
    const Interface interfaces[] = {
        Table("InetBase", 0, &Base::GetTimeStamp, &Base::SetTimeStamp, &Base::GetDest, &Base::SetDest,
              &Base::GetSource, &Base::SetSource),
        Table("HttpBase", 2, &Http::GetProtocol, &Http::SetProtocol, &Http::SetHeader, &Http::GetHeaders,
              &Http::GetBody, &Http::GetBodyLength, static_cast<void (Http::*)(const char*)>(&Http::SetBody),
              static_cast<void (Http::*)(const char*, unsigned int)>(&Http::SetBody),
              static_cast<void (Http::*)(Text)>(&Http::SetBody)),
        // Behind the eight of InetBase, whose destructor comes last.
        Table("HttpRequestBase", 8, static_cast<Request& (Request::*)(const Request&)>(&Request::operator=),
              &Request::GetMethodName, &Request::SetMethodName, &Request::GetPath, &Request::SetPath,
              &Request::GetQueryString, &Request::SetQueryString, &Request::SetHeader,
              &Request::GetQueryParameter, &Request::SetQueryParameter, &Request::RemoveQueryParameter,
              &Request::GetFormParameter, &Request::SetFormParameter, &Request::RemoveFormParameter,
              &Request::GetFormOrQueryParameter),
        Table("HttpRequest", 23,
              static_cast<inet::HttpRequest& (inet::HttpRequest::*)(const inet::HttpRequest&)>(
                  &inet::HttpRequest::operator=),
              &inet::HttpRequest::GetMethod, &inet::HttpRequest::SetMethod),
        Table("HttpResponseBase", 8, &Response::SetCode, &Response::GetCode, &Response::GetCodeText,
              static_cast<void (Response::*)(const char*)>(&Response::SetBody),
              static_cast<void (Response::*)(const char*, unsigned int)>(&Response::SetBody),
              static_cast<void (Response::*)(Text)>(&Response::SetBody),
              static_cast<Response& (Response::*)(const Response&)>(&Response::operator=)),
        Table("HttpParser", 2, &Parser::ParseRequestLine, &Parser::ParseResponseLine, &Parser::ParseHeader),
        Table("IHttpHandler", 2, &inet::IHttpHandler::HandleRequest),
    };
    CheckPlaces(interfaces);
    static_assert(std::has_virtual_destructor_v<inet::HttpFormatter>);
}

TEST(SlotTest, AnAppenderIsDestroyedThroughTheSlotsBehindItsFunction) {
    // The one interface whose destructor comes last: slots 1 and 2 of the table.
    struct Appender : core::ILogAppender {
        void AppendV(core::Logger::LogLevel, const char*, const char*, const char*, va_list) const override {}
        virtual void Next() {}
    };
    EXPECT_EQ(SlotOf(&Appender::Next), 3U);
}

#else

TEST(SlotTest, VirtualFunctionsKeepTheirPlaces) {
    GTEST_SKIP() << "how a pointer to a virtual function looks is known for x86-64 only";
}

#endif

}  // namespace
}  // namespace zarip
