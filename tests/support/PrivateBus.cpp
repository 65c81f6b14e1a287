// SPDX-License-Identifier: MIT

#include "support/PrivateBus.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace zarip::test {

namespace {

std::string s_policy =
    "  <policy context=\"default\">\n"
    "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
    "    <allow receive_sender=\"*\"/>\n"
    "    <allow own=\"*\"/>\n"
    "  </policy>\n";

void WriteConfiguration(const std::string& path, const std::string& address) {
    std::ofstream file(path);
    file << "<busconfig>\n"
            "  <type>session</type>\n"
            "  <listen>"
         << address << "</listen>\n"
         << s_policy << "</busconfig>\n";
}

}  // namespace

std::string PrivateBus::SetPolicy(const std::string& policy) {
    return std::exchange(s_policy, policy);
}

PrivateBus& PrivateBus::Get() {
    static PrivateBus bus;
    bus.Start();
    return bus;
}

PrivateBus::PrivateBus() {
    char folder[] = "/tmp/zarip-bus-XXXXXX";
    if (::mkdtemp(folder) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    _folder = folder;
    _address = "unix:path=" + _folder + "/socket";
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", _address.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    Kill();
    ::unlink((_folder + "/socket").c_str());
    ::unlink((_folder + "/bus.conf").c_str());
    ::rmdir(_folder.c_str());
}

void PrivateBus::Start() {
    if (_pid > 0) {
        return;
    }
    ::unlink((_folder + "/socket").c_str());
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2 failed");
    }
    WriteConfiguration(_folder + "/bus.conf", _address);
    const std::string configuration = "--config-file=" + _folder + "/bus.conf";
    _pid = ::fork();
    if (_pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(ends[1], STDOUT_FILENO);
        ::execlp("dbus-daemon", "dbus-daemon", "--nofork", "--print-address", configuration.c_str(), nullptr);
        ::_exit(127);
    }
    ::close(ends[1]);
    // The address is printed once the daemon listens.
    char line[256];
    const ssize_t length = ::read(ends[0], line, sizeof(line));
    ::close(ends[0]);
    if (_pid < 0 || length <= 0) {
        throw std::runtime_error("dbus-daemon did not start");
    }
}

void PrivateBus::Kill() {
    if (_pid > 0) {
        ::kill(_pid, SIGKILL);
        ::waitpid(_pid, nullptr, 0);
        _pid = -1;
    }
}

void PrivateBus::Freeze() {
    ::kill(_pid, SIGSTOP);
    ::waitpid(_pid, nullptr, WUNTRACED);  // otherwise it would run on for a moment
}

void PrivateBus::Thaw() {
    ::kill(_pid, SIGCONT);
}

}  // namespace zarip::test
