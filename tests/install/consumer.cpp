#include <cstdio>

#include <zarip/core/IniFile.h>
#include <zarip/interfaces/ISecurityProvider>

struct Security final : zarip::interfaces::ISecurityProvider {
    std::string GetUsers() const override { return "alice"; }
};
int main() {
    zarip::core::IniFile settings;
    settings.LoadFromString("[web]\nport = 8080\n");
    const Security security;
    std::printf("%s on %d\n", security.GetUsers().c_str(), settings.GetInt("web", "port"));
}
