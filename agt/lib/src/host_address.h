// Hosts and addresses as text, IPv4 alone.
#pragma once

#include <netinet/in.h>

namespace agt {

// IPv4 addresses that agree with `address` in the bits of `mask`; both in host byte order.
struct address_block {
    in_addr_t address;
    in_addr_t mask;
};

// Takes "192.0.2.7" or "192.0.2.0/24"; false, and `out` is untouched, when it is neither.
[[nodiscard]] bool parse_address_block(const char* text, address_block* out);

// The first address of `host`, a name or a dotted address. False and errno, 0 for a name that is
// not known, when it cannot be resolved or the calling thread is cancelled meanwhile.
[[nodiscard]] bool resolve_host(const char* host, in_addr* out);

// Writes the first address of `host` in dotted form into `out` (20 bytes). 0; -1 for an empty name;
// -2 when it cannot be resolved. Shows the addresses on standard output and standard error.
// Nothing in the programs calls it.
int url_to_ipaddr(const char* host, char* out);

} // namespace agt
