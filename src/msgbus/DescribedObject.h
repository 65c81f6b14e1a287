#pragma once

#include <string>
#include <string_view>

namespace zarip::msgbus {

class IMsgBus;
class MsgBusMsg;

/// While it exists the connection says on Introspect that the object at the path has the interface, and
/// the object's parents say what is below them. *One thread at a time*, but the connections look at any time.
class DescribedObject {
public:
    /// @param bus  not used, only compared. @param interface  an element of the introspection format, or
    ///     nothing; it must outlive the object.
    DescribedObject(const IMsgBus* bus, const char* path, std::string_view interface);
    DescribedObject(const DescribedObject&) = delete;
    DescribedObject& operator=(const DescribedObject&) = delete;
    ~DescribedObject();

private:
    friend bool AnswerIntrospect(const MsgBusMsg& call, IMsgBus& bus);

    const IMsgBus* _bus;
    std::string _path;
    std::string_view _interface;
};

/// Answers the call if it is Introspect and the connection has described objects: with the description of the
/// object at the call's path, or an error where there is none. False when it is left to others.
bool AnswerIntrospect(const MsgBusMsg& call, IMsgBus& bus);

}  // namespace zarip::msgbus
