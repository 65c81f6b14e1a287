// SPDX-License-Identifier: MIT

// The place of each virtual function is part of the library's binary interface: programs that were built with
// an older version call by it. New functions are added after the last one.

#include <zarip/core/AsyncCall.h>
#include <zarip/core/Delegate.h>
#include <zarip/core/IAllocator.h>
#include <zarip/core/ILogAppender.h>
#include <zarip/core/ITaskQueue.h>
#include <zarip/core/Logger.h>
#include <zarip/core/MemoryAppender.h>
#include <zarip/core/Statistics.h>
#include <zarip/core/Stopwatch.h>
#include <zarip/core/TaskManager.h>
#include <zarip/crypto/Digests.h>
#include <zarip/inet/HttpFormatter.h>
#include <zarip/inet/HttpParser.h>
#include <zarip/inet/HttpRequest.h>
#include <zarip/inet/HttpResponse.h>
#include <zarip/inet/IHttpConnection.h>
#include <zarip/inet/IHttpHandler.h>
#include <zarip/inet/IHttpStreamHandler.h>
#include <zarip/inet/InetBase.h>
#include <zarip/inet/ParserException.h>
#include <zarip/inet/Request.h>
#include <zarip/inet/Response.h>
#include <zarip/inet/UpnpRequest.h>
#include <zarip/inet/UpnpResponse.h>
#include <zarip/interfaces/IAudioLineOutProvider.h>
#include <zarip/interfaces/IBrelkServicesProvider.h>
#include <zarip/interfaces/INetworkingV2Provider.h>
#include <zarip/interfaces/IPtzSerialProvider.h>
#include <zarip/interfaces/ISecurityProvider.h>
#include <zarip/interfaces/ISmRegistrationProvider.h>
#include <zarip/interfaces/IStreamInfoProvider.h>
#include <zarip/interfaces/InterfaceServer.h>
#include <zarip/interfaces/ServerBase.h>
#include <zarip/msgbus/FakeBus.h>
#include <zarip/msgbus/IMessageHandler.h>
#include <zarip/msgbus/IMsgBus.h>
#include <zarip/msgbus/MsgBusMsgArgumentDumper.h>
#include <zarip/msgbus/MsgBusRemoteMethod.h>
#include <zarip/msgbus/MsgBusSignal.h>
#include <zarip/osa/Exception.h>
#include <zarip/osa/IOException.h>
#include <zarip/osa/ITcpSocketAccept.h>
#include <zarip/osa/ITimeSource.h>
#include <zarip/osa/ITimerCallback.h>
#include <zarip/osa/IUdpBufferAccept.h>
#include <zarip/osa/LockException.h>
#include <zarip/osa/MulticastServer.h>
#include <zarip/osa/Mutex.h>
#include <zarip/osa/ReadWriteLock.h>
#include <zarip/osa/Runnable.h>
#include <zarip/osa/Semaphore.h>
#include <zarip/osa/Signal.h>
#include <zarip/osa/SocketException.h>
#include <zarip/osa/TcpServer.h>
#include <zarip/osa/TcpSocket.h>
#include <zarip/osa/TcpSocketStreamBuf.h>
#include <zarip/osa/Thread.h>
#include <zarip/osa/Timer.h>
#include <zarip/osa/UdpServer.h>
#include <zarip/osa/UdpSocket.h>

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

TEST(SlotTest, VirtualFunctionsOfOsaAndCoreKeepTheirPlaces) {
    using Appender = core::ILogAppender;
    using Udp = osa::UdpServer;
    const Interface interfaces[] = {
        Table("Exception", 2, &osa::Exception::what),
        Table("IOException", 2, &osa::IOException::what),
        Table("LockException", 2, &osa::LockException::what),
        Table("SocketException", 2, &osa::SocketException::what),
        Table("Signal", 2, &osa::Signal::what),
        Table("ITimeSource", 2, &osa::ITimeSource::GetTime, &osa::ITimeSource::SetTime),
        Table("ITcpSocketAccept", 2, &osa::ITcpSocketAccept::AcceptSocket),
        Table("ITimerCallback", 2, &osa::ITimerCallback::OnTimer),
        Table("IUdpBufferAccept", 2, &osa::IUdpBufferAccept::AcceptBuffer),
        Table("Runnable", 2, &osa::Runnable::Run, &osa::Runnable::Stop),
        Table("TcpServer", 2, &osa::TcpServer::Run, &osa::TcpServer::Stop),
        Table("UdpServer", 2, &Udp::Run, &Udp::Stop,
              static_cast<void (Udp::*)(osa::IUdpBufferAccept*, unsigned int, signed char)>(&Udp::Start),
              static_cast<void (Udp::*)(osa::IUdpBufferAccept*)>(&Udp::Start)),
        Table("MulticastServer", 2, &osa::MulticastServer::Run, &osa::MulticastServer::Stop,
              static_cast<void (osa::MulticastServer::*)(osa::IUdpBufferAccept*, unsigned int, signed char)>(
                  &osa::MulticastServer::Start)),
        Table("ILogAppender", 0, &Appender::AppendV),
        Table("ITaskQueue", 2, &core::ITaskQueue::DoQueueTask, &core::ITaskQueue::DoDequeueTasksByTarget),
        Table("IDelegate0", 2, &core::IDelegate0<int>::Call, &core::IDelegate0<int>::Matches),
        Table("IDelegate1", 2, &core::IDelegate1<int, int>::Call, &core::IDelegate1<int, int>::Matches),
        Table("IVoidDelegate0", 2, &core::IVoidDelegate0::Call, &core::IVoidDelegate0::Matches),
        Table("IVoidDelegate1", 2, &core::IVoidDelegate1<int>::Call, &core::IVoidDelegate1<int>::Matches),
        Table("IAllocator", 2, &core::IAllocator::Allocate, &core::IAllocator::Free,
              &core::IAllocator::GetStatistics),
    };
    CheckPlaces(interfaces);
}

TEST(SlotTest, VirtualFunctionsOfDigestsAndTheBusKeepTheirPlaces) {
    using Bus = msgbus::IMsgBus;
    using crypto::Digest;
    using Security = interfaces::ISecurityProvider;
    const Interface interfaces[] = {
        Table("Digest", 2, &Digest::GetAlgorithmName, &Digest::GetDigestSize, &Digest::Reset,
              static_cast<void (Digest::*)(unsigned char)>(&Digest::Update),
              static_cast<void (Digest::*)(const unsigned char*, unsigned int)>(&Digest::Update),
              &Digest::DoFinal),
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
        // These follow the eight functions of InetBase, whose destructor comes last.
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
        Table("IHttpStreamHandler", 3, &inet::IHttpStreamHandler::HandleHead),
        Table("IHttpConnection", 2, &inet::IHttpConnection::Take, &inet::IHttpConnection::GetContentLength),
    };
    CheckPlaces(interfaces);
}

template <class Class>
struct Derived : Class {
    virtual void Next() {}
};

/// The place after all functions of the class.
template <class Class>
std::size_t End() {
    static_assert(std::has_virtual_destructor_v<Class>);
    return SlotOf(&Derived<Class>::Next);
}

const struct {
    const char* name;
    std::size_t end;
    std::size_t expected;
} kClasses[] = {
    // Only the destructor.
    {"Mutex", End<osa::Mutex>(), 2},
    {"Semaphore", End<osa::Semaphore>(), 2},
    {"ReadWriteLock", End<osa::ReadWriteLock>(), 2},
    {"Thread", End<osa::Thread>(), 2},
    {"Timer", End<osa::Timer>(), 2},
    {"TcpSocket", End<osa::TcpSocket>(), 2},
    {"UdpSocket", End<osa::UdpSocket>(), 2},
    {"Logger", End<core::Logger>(), 2},
    {"Statistics", End<core::Statistics>(), 2},
    {"Stopwatch", End<core::Stopwatch>(), 2},
    {"ResultMarshaller", End<core::ResultMarshaller>(), 2},
    {"MsgBusMsg", End<msgbus::MsgBusMsg>(), 2},
    {"MsgBusRemoteMethod", End<msgbus::MsgBusRemoteMethod>(), 2},
    {"MsgBusSignal", End<msgbus::MsgBusSignal>(), 2},
    {"MsgBusMsgArgumentDumper", End<msgbus::MsgBusMsgArgumentDumper>(), 2},
    {"InterfaceServer", End<interfaces::InterfaceServer>(), 2},
    {"ServerBase", End<interfaces::internal::ServerBase>(), 2},
    {"HttpFormatter", End<inet::HttpFormatter>(), 2},
    // The destructor and the functions in the tables above.
    {"Exception", End<osa::Exception>(), 3},
    {"IOException", End<osa::IOException>(), 3},
    {"LockException", End<osa::LockException>(), 3},
    {"SocketException", End<osa::SocketException>(), 3},
    {"Signal", End<osa::Signal>(), 3},
    {"ParserException", End<inet::ParserException>(), 3},
    {"ITimeSource", End<osa::ITimeSource>(), 4},
    {"SystemTimeSource", End<osa::SystemTimeSource>(), 4},
    {"MonotonicTimeSource", End<osa::MonotonicTimeSource>(), 4},
    {"ITcpSocketAccept", End<osa::ITcpSocketAccept>(), 3},
    {"ITimerCallback", End<osa::ITimerCallback>(), 3},
    {"IUdpBufferAccept", End<osa::IUdpBufferAccept>(), 3},
    {"Runnable", End<osa::Runnable>(), 4},
    {"TcpServer", End<osa::TcpServer>(), 4},
    {"TcpSocketStreamBuf", End<osa::TcpSocketStreamBuf>(), 14},  // as its base
    {"UdpServer", End<osa::UdpServer>(), 6},
    {"MulticastServer", End<osa::MulticastServer>(), 6},
    {"ILogAppender", End<core::ILogAppender>(), 3},  // the destructor comes last
    {"MemoryAppender", End<core::MemoryAppender>(), 3},
    {"ITaskQueue", End<core::ITaskQueue>(), 4},
    {"TaskManager", End<core::TaskManager>(), 4},
    {"IDelegate0", End<core::IDelegate0<int>>(), 4},
    {"IDelegate1", End<core::IDelegate1<int, int>>(), 4},
    {"IVoidDelegate0", End<core::IVoidDelegate0>(), 4},
    {"IVoidDelegate1", End<core::IVoidDelegate1<int>>(), 4},
    {"IAllocator", End<core::IAllocator>(), 5},
    {"IMsgBus", End<msgbus::IMsgBus>(), 14},
    {"FakeBus", End<msgbus::FakeBus>(), 14},
    {"IMessageHandler", End<msgbus::IMessageHandler>(), 4},
    {"ISecurityProvider", End<interfaces::ISecurityProvider>(), 26},
    {"INetworkingV2Provider", End<interfaces::INetworkingV2Provider>(), 4},
    {"IStreamInfoProvider", End<interfaces::IStreamInfoProvider>(), 4},
    {"IPtzSerialProvider", End<interfaces::IPtzSerialProvider>(), 6},
    {"IAudioLineOutProvider", End<interfaces::IAudioLineOutProvider>(), 6},
    {"ISmRegistrationProvider", End<interfaces::ISmRegistrationProvider>(), 7},
    {"IBrelkServicesProvider", End<interfaces::IBrelkServicesProvider>(), 5},
    {"Digest", End<crypto::Digest>(), 8},
    {"GCryptDigest", End<crypto::GCryptDigest>(), 8},
    {"CRC32", End<crypto::CRC32>(), 8},
    {"InetBase", End<inet::InetBase>(), 8},
    {"Request", End<inet::Request>(), 8},
    {"Response", End<inet::Response>(), 8},
    {"HttpBase", End<inet::HttpBase>(), 11},
    {"HttpRequestBase", End<inet::HttpRequestBase>(), 23},
    {"HttpRequest", End<inet::HttpRequest>(), 26},
    {"UpnpRequest", End<inet::UpnpRequest>(), 26},
    {"HttpResponseBase", End<inet::HttpResponseBase>(), 15},
    {"HttpResponse", End<inet::HttpResponse>(), 15},
    {"UpnpResponse", End<inet::UpnpResponse>(), 15},
    {"HttpParser", End<inet::HttpParser>(), 5},
    {"IHttpHandler", End<inet::IHttpHandler>(), 3},
    {"IHttpStreamHandler", End<inet::IHttpStreamHandler>(), 4},
    {"IHttpConnection", End<inet::IHttpConnection>(), 4},
};

TEST(SlotTest, ClassesHaveNoOtherVirtualFunctions) {
    for (const auto& polymorphic : kClasses) {
        EXPECT_EQ(polymorphic.end, polymorphic.expected) << polymorphic.name;
    }
}

#else

TEST(SlotTest, VirtualFunctionsKeepTheirPlaces) {
    GTEST_SKIP() << "how a pointer to a virtual function looks is known for x86-64 only";
}

#endif

}  // namespace
}  // namespace zarip
