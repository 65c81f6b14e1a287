// SPDX-License-Identifier: MIT

#pragma once

#include <string>
#include <vector>

#include "support/PrivateBus.h"
#include "support/TempDir.h"
#include "zarip/osa/Process.h"

namespace zarip::test {

/// A program that runs in the background on the private bus, with its output and its errors in files. It is
/// killed with the object.
class Program {
public:
    /// @param output  the file for the output; if empty, a file of the object's own.
    explicit Program(const std::string& path, const std::vector<std::string>& arguments = {},
                     const std::string& output = "")
        : _process(path, arguments,
                   ToFiles(output.empty() ? _folder.File("output") : output, _folder.File("errors"))) {}

    /// Waits for the end. Returns the exit status, or the negative number of the signal that has ended the
    /// program.
    int Wait() {
        _process.Wait();
        return _process.GetSignal() != 0 ? -_process.GetSignal() : _process.GetExitStatus();
    }
    bool HasEnded() { return _process.Wait(0); }
    std::string GetOutput() const { return _folder.Read("output"); }
    std::string GetErrors() const { return _folder.Read("errors"); }
    osa::Process& GetProcess() { return _process; }

private:
    static osa::Process::Options ToFiles(const std::string& output, const std::string& errors) {
        osa::Process::Options options;
        options.environment["DBUS_SYSTEM_BUS_ADDRESS"] = PrivateBus::Get().GetAddress();
        options.output = osa::Process::Redirect::File(output);
        options.error = osa::Process::Redirect::File(errors);
        return options;
    }

    TempDir _folder;
    osa::Process _process;
};

}  // namespace zarip::test
