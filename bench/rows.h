// The rows of the benchmark. Each measures on a running daemon and returns its figures.
#pragma once

#include <vector>

#include "measure.h"
#include "running_agent.h"

namespace bench {

using figures = std::vector<figure>;

figures command_row(running_agent& agent); // a settings request against an echo
figures
clients_row(running_agent& agent); // five such requests at once against an echo of five connections
figures exec_row(running_agent& agent);       // a remote command against fork and exec
figures exec_apart_row(running_agent& agent); // the same, with all processors
figures services_row(running_agent& agent);   // a load of 10,000 services against the bare exchange
figures notify_row(running_agent& agent);     // the notifier against a ping-pong
figures transfer_row(
    running_agent& agent); // files up and down against a bare copy, memory of the serving child
figures
idle_row(running_agent& agent); // processor time and wake-ups without work, against bare waits
figures startup_row(
    running_agent& agent); // starts of other daemons, on new and on existing objects, against shmat
figures tls_row(running_agent& agent); // requests and files over TLS against bare OpenSSL
figures
log_row(running_agent& agent); // log lines against writes; this and what follows in one process
figures request_row(running_agent& agent);  // a settings request without another process
figures table_row(running_agent& agent);    // the parts of a load of services
figures sweep_row(running_agent& agent);    // the liveness sweep over tables of three sizes
figures watchdog_row(running_agent& agent); // a watchdog pass over tables of three sizes

} // namespace bench
