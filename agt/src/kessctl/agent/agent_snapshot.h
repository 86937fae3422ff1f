// One look at an agent: a copy of what its shared objects, its daemon and the system say, in plain
// values.
//
// Nothing is locked or written, so what is copied may be changing or corrupt. Every count and index
// has been checked here and every text has an end; what could not be trusted stands in a `fault`
// instead of in the values.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/daemon_process.h"
#include "host/shared_view.h"
#include "host/state_view.h"
#include "host/tls_files.h"

namespace kessctl {

struct semaphore_state {
    int value = 0;
    pid_t pid = 0; // of the last operation: the holder's while the value is 0
    int waiting = 0;
    std::string process; // name of that process; empty when it has ended
    bool alive = false;

    bool held() const { return value == 0; }
};

struct semaphore_set {
    object_state object;
    std::vector<semaphore_state> semaphores; // empty when it cannot be read
};

struct process_row {
    int row = 0;
    std::string program;
    std::string command;
    pid_t pid = 0;
    int state = 0; // codes of the agent's own; 0 is inactive
    int wanted = 0;
    int restarts = 0;
    int restarts_allowed = 0;
    int restart_period_sec = 0;
    time_t started = 0;
    bool alive = false;

    bool dead() const { return state != PROCESS_DEACT && pid > 0 && !alive; }
    bool as_wanted() const { return state == wanted && !dead(); }
};

// How full a table or a queue is. `known` is false while the object cannot be read.
struct fill_level {
    std::string name; // for people
    std::string id;   // for programs
    bool known = false;
    unsigned long used = 0;
    unsigned long slots = 0;
    std::string fault; // a count or an index out of range: the contents are not looked at

    double percent() const {
        return slots == 0 ? 0 : 100.0 * static_cast<double>(used) / static_cast<double>(slots);
    }
};

struct service_row {
    unsigned slot = 0;
    std::string service_id;
    std::string host_name;
    std::string server_id;
    int limit_sec = 0;
    int call_trc_depth = 0;
    long call_trc_limit = 0;
    long dbio_trc_limit = 0;
    long sql_trc_limit = 0;
    std::string flags; // letters
    int tflag = 0;
};

// The entries of one traced process.
struct traced_process {
    std::string name;
    std::string pid; // as the tracer wrote it
    int threads = 0; // entries of threads
    int dead = 0;    // entries marked so by the sweep
    time_t last_access = 0;
    std::map<std::string, int> states; // entries by state letter
};

struct queue_traffic {
    unsigned in = 0;
    unsigned in_discarded = 0;
    unsigned out = 0;
    unsigned out_discarded = 0;
    unsigned now = 0;
    double hash_table_percent = 0; // 0 when it is no number
};

struct agent_snapshot {
    time_t taken = 0;
    std::string cfg_file;
    std::string cfg_fault; // the configuration cannot be read: everything else is empty
    daemon_state daemon;
    state_view state;                             // the daemon's own figures
    std::string server;                           // "address:port" of the configuration
    std::optional<certificate_state> certificate; // where connections are TLS
    bool watchdog_on = false;                     // by the configuration
    std::vector<object_state> segments;
    std::vector<semaphore_set> semaphores;
    std::optional<TRAN_LOGF_QUE_INFO> settings;
    std::string host;
    std::string registry_fault;
    std::vector<process_row> processes;
    std::vector<queue_traffic> que_stat; // per log queue
    fill_level service_fill;
    fill_level trace_fill;
    fill_level cache_fill;
    std::vector<fill_level> queues; // the notification queue and each parse-log queue
    std::vector<service_row> services;
    std::vector<traced_process> traced;

    std::vector<fill_level> tables() const { return {service_fill, trace_fill, cache_fill}; }
    // Objects of either kind that exist.
    int object_count() const;
    // Of the daemon; 0 when it is not known.
    long long uptime_sec() const {
        return daemon.pid > 0 && taken > daemon.started ? taken - daemon.started : 0;
    }
};

// Looks at the agent of a configuration. A configuration that cannot be read, or names none of the
// shared objects, is a `cfg_fault` of the snapshot.
agent_snapshot take_snapshot(const std::string& cfg_file);

// One semaphore as it is; its value is -1 with errno when it is gone or not ours to read.
semaphore_state read_semaphore(int semid, int number);

// Parts of a snapshot whose `cfg_file` is set, each attaching what it reads: the service table with
// its services, all tables with services and traces, and the queues.
void read_services(agent_snapshot& now);
void read_tables(agent_snapshot& now);
void read_queues(agent_snapshot& now);

} // namespace kessctl
