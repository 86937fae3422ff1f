// Who listens on a TCP port of the host.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kessctl {

// Whether an IPv4 socket listens on the port, at the address or at all addresses; at any address
// when `address` is not a dotted one.
bool port_listens(const std::string& address, int port);

// The processes that listen on the port at any address, as far as their descriptors can be seen;
// the calling one is not among them.
std::vector<pid_t> listeners_of(int port);

} // namespace kessctl
