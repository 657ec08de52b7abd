#pragma once

#include <string>

#include "fakes/module-behaviour.h"

/// What the test plug-in is told, and where it tells what it was asked.
///
/// In a process with the recording platform both are there. Elsewhere, for tests of the real
/// daemon, the behaviour is read from /etc/quillon-test/NAME.conf at every call, and each call is
/// appended to /tmp/quillon-test-NAME.log. README.md has the format.
namespace quillon::test_module {

/// The name under which this copy of the plug-in is installed.
std::string ownName();

/// How this copy behaves right now.
fakes::ModuleBehaviour ownBehaviour();

/// From now on version 2.0 is running, unless the file says otherwise.
void becomeUpdated();

/// Tells of a call: `entry(arguments)`.
void tell(const std::string& call);

/// Forks a child, waits for its end, and tells that with its exit status: "child(127)".
/// @return true in the child
bool forkChild();

/// Hands a payload to the test.
void tellPayload(const unsigned char* data, int length);

}  // namespace quillon::test_module
