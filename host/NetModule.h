// The host's Net module: plain TCP sockets for scripts, handed out as NUMBERs
// (the descriptor) so they can be given to TLS sessions and waited on.
//   Net.Connect(host, port)          -> socket (blocking TCP, IPv4 or IPv6)
//   Net.SetBlocking(socket, boolean)
//   Net.Wait(socket, "r"|"w"|"rw", milliseconds) -> BOOLEAN ready
//   Net.Close(socket)
#pragma once

#include <vector>

#include "Engine.h"

namespace Ombrix::Host {

std::vector<HostRoutine> NetModuleRoutines();

}  // namespace Ombrix::Host
