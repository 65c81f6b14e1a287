// SPDX-License-Identifier: MIT

#pragma once

#include <string>

namespace zarip::test {

/// Takes the calling thread to a network of its own with nothing but a loopback interface, which is down;
/// what it starts is there, too. Without the right to do so only a process with one thread gets one. False,
/// and why, where that is not permitted.
bool EnterOwnNetwork(std::string& refusal);

/// Switches the loopback interface of the thread's network on, with the route of all groups. False on
/// failure.
bool OpenLoopback();

/// Gives the loopback interface another address.
bool AddAddress(const char* address);

}  // namespace zarip::test
