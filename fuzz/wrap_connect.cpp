// Connections to the server become what the target has prepared.
#include <cerrno>
#include <utility>

#include "harness.h"

// agt::create_tcp_client_session
extern "C" int __wrap__ZN3agt25create_tcp_client_sessionEPKcii(const char* host, int port,
                                                               int nonblocking);

int __wrap__ZN3agt25create_tcp_client_sessionEPKcii(const char*, int, int) {
    errno = ECONNREFUSED;
    return std::exchange(fuzz::next_connection, -1);
}
