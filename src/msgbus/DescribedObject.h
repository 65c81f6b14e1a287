#pragma once

#include <string>
#include <string_view>

namespace zarip::msgbus {

class IMsgBus;

/// While it exists the connection says on Introspect that the object at the path has the interface, and
/// the object's parents say what is below them; and calls of the interface at another path are refused.
/// *One thread at a time*, but the connections look at any time.
class DescribedObject {
public:
    /// @param bus  not used, only compared. @param interface  its name. @param description  an element of the
    ///     introspection format, or nothing; it must outlive the object.
    DescribedObject(const IMsgBus* bus, const char* path, const char* interface,
                    std::string_view description);
    DescribedObject(const DescribedObject&) = delete;
    DescribedObject& operator=(const DescribedObject&) = delete;
    ~DescribedObject();

    /// Where a call of an interface may go.
    enum class Place {
        kAnywhere,  ///< no object of the connection describes the interface
        kServed,    ///< an object at this path does
        kElsewhere  ///< only objects at other paths do
    };
    static Place Find(const IMsgBus& bus, std::string_view path, std::string_view interface);

    /// Whether the connection has described objects, but none at the path or below it.
    static bool IsUnknown(const IMsgBus& bus, std::string_view path);

    /// What Introspect answers at the path; empty if the path is unknown.
    static std::string Describe(const IMsgBus& bus, const std::string& path);

private:
    const IMsgBus* _bus;
    std::string _path;
    std::string _name;
    std::string_view _description;
};

}  // namespace zarip::msgbus
