// SPDX-License-Identifier: MIT

#include <string>

#include <zarip/core/IniFile.h>

#include "Targets.h"

namespace fuzz {

FUZZ_TARGET(ini) {
    using zarip::core::IniFile;
    IniFile ini;
    ini.LoadFromString(input);
    const std::string text = ini.SaveToString();
    IniFile again;
    again.LoadFromString(text);
    Check(again.SaveToString() == text, "what was saved loads as the same");
    Check(again.ContainsSettings(ini) && ini.ContainsSettings(again), "no setting is lost or added");
}

}  // namespace fuzz
