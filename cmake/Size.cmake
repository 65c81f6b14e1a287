# SPDX-License-Identifier: MIT

# The sources that are compiled for size rather than for speed: they wait for a bus, a socket or a disk anyway, run once in a
# process, or are called by tests only. Without this, the library is a sixth larger on the device.
file(GLOB ZARIP_SMALL_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/interfaces/*.cpp
  ${PROJECT_SOURCE_DIR}/src/osa/File*.cpp ${PROJECT_SOURCE_DIR}/src/osa/Process*.cpp)
foreach(name
    core/AsyncCall core/CompositeAppender core/JsonCheck core/JsonUtils core/LogRotate core/Logger core/Profiler
    core/Statistics crypto/AuthenticatedCipher crypto/CryptoUtils crypto/Der crypto/Hmac crypto/KeyFactory
    crypto/KeyFile crypto/Pem crypto/Pkcs8 crypto/RsaKeys inet/HttpDispatcher inet/HttpLoop inet/HttpServer
    inet/HttpThreads inet/UpnpRequest inet/UpnpResponse inet/Url msgbus/BusDaemon msgbus/DescribedObjects
    msgbus/FakeBus msgbus/MsgBusMsgArgumentDumper osa/CaptureControl osa/DateTime osa/HeldConnections osa/Listener
    osa/MulticastServer osa/NetworkUtils osa/PacketCapture osa/PathUtils osa/SocketAddress osa/TcpServer osa/TcpSocket
    osa/Thread osa/Timer osa/UdpServer osa/UdpSocket stl/DelimitedStreamBuf xml/XmlDocument xml/XmlElement
    xml/XmlEncoding xml/XmlText xml/XmlWriter xml/XmlXPathExpression)
  list(APPEND ZARIP_SMALL_SOURCES ${PROJECT_SOURCE_DIR}/src/${name}.cpp)
endforeach()
set_source_files_properties(${ZARIP_SMALL_SOURCES} PROPERTIES COMPILE_OPTIONS -Os)
