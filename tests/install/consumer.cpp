// SPDX-License-Identifier: MIT

#include <cstdio>
#include <cstring>
#include <sstream>

#include <cajun/json/reader.h>
#include <zarip/Version.h>
#include <zarip/core/IniFile.h>
#include <zarip/interfaces/ISecurityProvider>

struct Security final : zarip::interfaces::ISecurityProvider {
    std::string GetUsers() const override { return "alice"; }
};
int main() {
    zarip::core::IniFile settings;
    settings.LoadFromString("[web]\nport = 8080\n");
    json::Number port;
    std::istringstream text("8080");
    json::Reader::Read(port, text);
    const Security security;
    const bool isRight = std::strcmp(zarip::GetVersion(), ZARIP_VERSION_STRING) == 0 &&
                         port.Value() == settings.GetInt("web", "port");
    std::printf("%s on %d\n", security.GetUsers().c_str(), isRight ? settings.GetInt("web", "port") : -1);
}
