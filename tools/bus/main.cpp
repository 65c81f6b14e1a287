// SPDX-License-Identifier: MIT

// Lists, describes and calls the services on the bus; see kUsage.

#include <dbus/dbus.h>

#include <charconv>
#include <cstdio>
#include <limits>
#include <memory>

#include <zarip/osa/Exception.h>

#include "Commands.h"
#include "Failure.h"
#include "Names.h"
#include "Output.h"

namespace bus {
namespace {

using zarip::msgbus::MsgBus;

constexpr char kUsage[] = R"(usage: zarip-bus [OPTION]... COMMAND [ARGUMENT]...

  list                        the services on the bus; with --all those of the system, too
  describe SERVICE            its members and signals, with their arguments
  call SERVICE MEMBER ARG...  calls any member and prints what it returns, a line for each value
  monitor [SERVICE]           every message, or those from and to a service, as one line of JSON each
  wait SERVICE                waits until the service is on the bus

SERVICE is a name on the bus, or the end of exactly one name: "security" means
"com.brelk.system.security". An ARG is a string, a number, true or false, or for a list a JSON array such as
'["one", "two"]'.

  -a, --all             list: also the names that begin with "org.freedesktop."
  -j, --json            list, describe, call: prints one line of JSON
  -t, --timeout SECONDS the time limit; the default is 5 for call and describe, 60 for wait
  -h, --help            shows this help; options must precede the ARGs of a call
      --version         shows the version

A call of a member "without reply" (see describe) is only sent, so errors of the service are not reported.

Control characters are printed as "\n", "\u001b" and the like, so the output of call is exact only with --json.

The bus is the system bus, or the one in DBUS_SYSTEM_BUS_ADDRESS. To see all messages, monitor must run as
root or as the user of the bus; other users see only signals.

Exit status: 0 done, 1 refused or failed, 2 wrong usage or arguments, 3 no such service or no bus, 4 timed out.

  zarip-bus call security GetUsers
  zarip-bus call networkingV2 Get '{"settings":["[IPv4/Actual]Address"]}'
  zarip-bus wait security && zarip-bus monitor analytics
)";

const struct Command {
    const char* name;
    std::size_t minWords;
    std::size_t maxWords;
    const char* synopsis;
    int (*run)(MsgBus& bus, const Options& options);
} kCommands[] = {
    {"list", 1, 1, "list", List},
    {"describe", 2, 2, "describe SERVICE", Describe},
    {"call", 3, std::numeric_limits<std::size_t>::max(), "call SERVICE MEMBER ARG...", Call},
    {"monitor", 1, 2, "monitor [SERVICE]", Monitor},
    {"wait", 2, 2, "wait SERVICE", Wait},
};

double ParseTimeout(const std::string& text) {
    double seconds = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, seconds);
    if (parsed.ec != std::errc() || parsed.ptr != end || !(seconds >= 0 && seconds <= 1e6)) {
        throw Failure(kUsageError, "'" + text + "' is not a number of seconds");
    }
    return seconds;
}

constexpr char kTimeoutIs[] = "--timeout=";

/// Sets a switch. Returns false if the option is not a switch.
bool ParseSwitch(const std::string& word, Options& options) {
    const struct {
        const char* letter;
        const char* name;
        bool& value;
    } switches[] = {
        {"-h", "--help", options.help},
        {"", "--version", options.version},
        {"-a", "--all", options.all},
        {"-j", "--json", options.json},
    };
    for (const auto& option : switches) {
        if (word == option.letter || word == option.name) {
            return option.value = true;
        }
    }
    return false;
}

/// Options end at "--" and at the member of a call, so that its arguments may begin with a dash.
Options ParseOptions(const Strings& given) {
    Options options;
    bool isOver = false;
    for (std::size_t i = 0; i < given.size(); ++i) {
        const std::string& word = given[i];
        isOver = isOver || (options.words.size() == 3 && options.words[0] == "call");
        if (isOver || word.size() < 2 || word[0] != '-') {
            options.words.push_back(word);
        } else if (word == "--") {
            isOver = true;
        } else if (word == "-t" || word == "--timeout") {
            if (i + 1 == given.size()) {
                throw Failure(kUsageError, word + " needs a number of seconds");
            }
            options.timeout = ParseTimeout(given[++i]);
        } else if (word.rfind(kTimeoutIs, 0) == 0) {
            options.timeout = ParseTimeout(word.substr(sizeof kTimeoutIs - 1));
        } else if (!ParseSwitch(word, options)) {
            throw Failure(kUsageError, "unknown option " + word);
        }
    }
    return options;
}

const Command& FindCommand(const Strings& words) {
    for (const Command& command : kCommands) {
        if (words[0] == command.name) {
            if (words.size() < command.minWords || words.size() > command.maxWords) {
                throw Failure(kUsageError, std::string("use it as: zarip-bus ") + command.synopsis);
            }
            return command;
        }
    }
    throw Failure(kUsageError, "unknown command " + words[0] + "; see zarip-bus --help");
}

/// Returns the exit status, which distinguishes a refusing service from a lost bus.
int RunOn(MsgBus& bus, const Command& command, const Options& options) {
    try {
        return command.run(bus, options);
    } catch (const std::exception& e) {
        const auto* const failure = dynamic_cast<const Failure*>(&e);
        if (failure != nullptr && failure->exitStatus != kFailed) {
            throw;
        }
        try {
            AskBus<std::string>(bus, "GetId");
        } catch (const std::exception&) {
            throw Failure(kNotThere, e.what());
        }
        throw;
    }
}

int Run(const Strings& given) {
    const Options options = ParseOptions(given);
    if (options.help) {
        std::fputs(kUsage, stdout);
        return kDone;
    }
    if (options.version) {
        Print("zarip-bus " ZARIP_VERSION);
        return kDone;
    }
    if (options.words.empty()) {
        std::fputs(kUsage, stderr);
        return kUsageError;
    }
    const Command& command = FindCommand(options.words);
    std::unique_ptr<MsgBus> bus;
    try {
        bus = std::make_unique<MsgBus>();
    } catch (const zarip::osa::Exception& e) {
        throw Failure(kNotThere, e.what());
    }
    return RunOn(*bus, command, options);
}

}  // namespace
}  // namespace bus

int main(int argc, char** argv) {
    // libdbus would ignore SIGPIPE. This program should end when the reader of its output closes the pipe.
    dbus_connection_set_change_sigpipe(FALSE);
    try {
        const int status = bus::Run(bus::Strings(argv + 1, argv + argc));
        bus::Flush();
        return status;
    } catch (const bus::Failure& failure) {
        bus::Complain(failure.what());
        return failure.exitStatus;
    } catch (const std::exception& e) {
        bus::Complain(e.what());
        return bus::kFailed;
    }
}
