// The keys of the configuration file: what each may hold, how wide the daemon keeps it, what reads
// it and what becomes of a missing one. The daemon walks the table and adds what taking a key does;
// the console checks files with it.
#pragma once

#include <climits>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "kessard/ptrc_hash_tbl.h"
#include "read_cfg.h"

namespace agt {

// Settings that are texts, as the daemon keeps them.
using log_home_text = char[512];
using log_directory_text = char[128]; // LOG_HOME with LOG_SUBDIRECTORY
using agt_ipaddr_text = char[20];
using srv_ipaddr_text = char[128];
using update_script_text = char[256];
using log_interface_text = char[3];
using tr_section_text = char[2];
using update_trigger_text = char[256];
using api_stat_out_text = char[512];
using skipped_name_text = char[sizeof(PTRC_HASH_ARR::proc_nm)];
using tls_file_text = char[512];
using state_file_text = char[512];

inline constexpr char LOG_SUBDIRECTORY[] = "/proc/kessard"; // of LOG_HOME
inline constexpr int HHMI_SIZE = 4;                         // characters of a time of day
inline constexpr int LOWEST_REST_SEC = 60;                  // of WORKER_REST_INTERVAL
inline constexpr int SKIPPED_NAMES = 20;                    // that SKIP_PROC may hold

// Characters that one of these texts holds.
template <class Text> inline constexpr long LENGTH_OF = sizeof(Text) - 1;

enum class key_kind {
    number,        // least..most, in `unit`
    port,          // least..most
    segment_key,   // System V key of a segment, no two alike
    semaphore_key, // System V key of a semaphore set, no two alike
    text,          // least..most characters
    choice,        // one of the words of `unit`
    time_of_day,   // HHMM, or ---- for never
    yes_no,        // Y or N
    own_address,   // dotted address of this host
    host,          // name or dotted address, up to `most` characters
    addresses,     // dotted addresses and blocks, separated by commas
    names,         // up to `most` names, separated by commas
    log_directory, // with TRAN_AGT_HOME up to `most` characters, as are the next three
    script,
    file,
    existing_file,
    peer_names, // names of certificates, separated by commas
};

enum class key_reader {
    start,        // every start
    new_settings, // a start that makes the settings segment
    watchdog,     // the worker watchdog
    tls,          // a start whose file has the section [TLS]
};

enum class key_absence {
    ends_reader,         // no start, or no watchdog
    passes_daily_update, // the reader goes on with a log line that says so
    is_silent,           // the reader goes on, with no word on standard error either
};

inline constexpr int ALL_WORDS = 0;

struct config_key {
    const char* section;
    const char* keyword;
    key_kind kind;
    long least;
    long most;
    const char* unit;
    const char* help;
    key_reader reader = key_reader::start;
    key_absence absence = key_absence::ends_reader;
    const char* otherwise = ""; // what holds without a key that may be absent
    int word = 1;               // of the value, or ALL_WORDS
    bool protects = false;      // what cannot be understood of it ends the start

    constexpr bool may_be_absent() const { return absence != key_absence::ends_reader; }
};

namespace config_table {

using enum key_kind;
using enum key_reader;
using enum key_absence;

constexpr config_key segment_key_of(const char* keyword, const char* help,
                                    key_reader reader = start) {
    return {"IPC_SHARED_MEMORY", keyword, segment_key, 1, UINT_MAX, "", help, reader};
}

constexpr config_key semaphore_key_of(const char* keyword, const char* help,
                                      key_reader reader = start) {
    return {"IPC_SEMAPHORE", keyword, semaphore_key, 1, UINT_MAX, "", help, reader};
}

constexpr config_key tls_file_of(const char* keyword, const char* help) {
    return {"TLS",    keyword, existing_file, 1, LENGTH_OF<tls_file_text>, "", help, tls, is_silent,
            "no TLS", 1,       true};
}

// In the order in which they are read, those of every start first.
inline constexpr config_key KEYS[] = {
    {"COMMON", "LOG_HOME", log_directory, 1,
     LENGTH_OF<log_directory_text> - LENGTH_OF<decltype(LOG_SUBDIRECTORY)>, "",
     "Base of the log directory"},
    {"TRAN_AGENT", "IP_ADDRESS", own_address, 1, LENGTH_OF<agt_ipaddr_text>, "",
     "Address on which the daemon takes commands"},
    {"TRAN_AGENT", "CMD_PORT", port, 1, 65535, "", "TCP port on which the daemon takes commands"},
    {"COMMON", "STATE_FILE", file, 1, LENGTH_OF<state_file_text>, "",
     "File in which the daemon keeps its own figures", start, is_silent, "none"},
    {"TRAN_SERVER", "IP_ADDRESS", host, 1, LENGTH_OF<srv_ipaddr_text>, "",
     "Address of the central server"},
    {"TRAN_SERVER", "CMD_PORT", port, 1, 65535, "", "Command port of the central server"},
    {"ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", number, INT_MIN, INT_MAX, "ms",
     "Time after which a running service is reported as active; 0 or less switches that off"},
    segment_key_of("TRAN_LOGF_QUE_INFO_SHMKEY", "Key of the runtime settings"),
    segment_key_of("SVC_HASH_TBL_SHMKEY", "Key of the service table"),
    segment_key_of("NOTI_SEND_QUE_SHMKEY", "Key of the notification queue"),
    semaphore_key_of("SVC_HASH_TBL_SEMKEY", "Key of the semaphore of the service table"),
    semaphore_key_of("NOTI_SEND_QUE_SEMKEY", "Key of the semaphore of the notification queue"),
    {"SERVICE_HASH", "DAILY_UPDATE_HHMI", time_of_day, HHMI_SIZE, HHMI_SIZE, "",
     "Local time of the daily service update", start, passes_daily_update, "----"},
    {"SERVICE_HASH", "DAILY_UPDATE_SCRIPT", script, 1, LENGTH_OF<update_script_text>, "",
     "Program that prints this host's services", start, passes_daily_update, "none"},
    {"SERVICE_HASH", "DAILY_UPDATE_YN", yes_no, 1, 1, "",
     "Whether the daily time and the trigger file run the script", start, is_silent, "N"},
    {"TRAN_LOGF", "LOG_INTERFACE", text, LENGTH_OF<log_interface_text>,
     LENGTH_OF<log_interface_text>, "", "Name of the log interface in reports and events"},
    {"TRAN_LOGF", "TR_SECTION", text, LENGTH_OF<tr_section_text>, LENGTH_OF<tr_section_text>, "",
     "Name of the transaction-log section in events"},
    {"CHECK_FILES", "SVC_UPDATE_CHK_FILE", file, 1, LENGTH_OF<update_trigger_text>, "",
     "File whose existence triggers a service update"},
    {"PTRC_HASH", "TRC_STS_CHECK_PERIOD", number, 0, INT_MAX, "s",
     "Time between two sweeps of the trace table; 0 is never"},
    segment_key_of("PTRC_HASH_TBL_SHMKEY", "Key of the trace table"),
    semaphore_key_of("PTRC_HASH_TBL_SEMKEY", "Key of the semaphore of the trace table"),
    segment_key_of("JCACHE_HASH_TBL_SHMKEY", "Key of the cache table"),
    semaphore_key_of("JCACHE_HASH_TBL_SEMKEY", "Key of the semaphore of the cache table"),
    {"SERVICE_HASH", "DEFAULT_TIMEOUT_SEC", number, 0, INT_MAX, "s",
     "Time limit of a service that comes without one"},
    segment_key_of("TRAN_AGT_SHMKEY", "Key of the agent segment"),
    semaphore_key_of("TRAN_AGT_SEMKEY", "Key of the semaphores of the agent segment"),
    {"CHECK_API_STAT", "ACT", file, 1, LENGTH_OF<api_stat_out_text>, "",
     "API statistics file, the fourth word of the value", start, ends_reader, "", 4},
    {"TRAN_AGENT", "ALLOWED_ADDRESSES", addresses, 1, CFG_LINE_SIZE - 1, "",
     "Addresses from which commands are taken", start, is_silent, "everybody", ALL_WORDS, true},
    {"TRAN_AGENT", "REMOTE_COMMANDS_YN", yes_no, 1, 1, "",
     "Whether remote commands and file transfers are served", start, is_silent, "Y", 1, true},
    {"TRAN_AGENT", "AUDIT_YN", yes_no, 1, 1, "",
     "Whether command connections and commands are told to the system log", start, is_silent, "N",
     1, true},

    {"TRAN_LOGF", "QUE_CNT", choice, 0, 0, "1 2 4 8 16",
     "Log queues of runtime settings that are created", new_settings},

    {"KESSARD", "WORKER_CHECK_INTERVAL", number, 0, INT_MAX / 1000, "s",
     "Time between two passes of the worker watchdog; 0 switches it off", watchdog},
    {"KESSARD", "WORKER_REST_INTERVAL", number, LOWEST_REST_SEC, INT_MAX, "s",
     "Time without activity after which a worker is reported", watchdog},
    {"KESSARD", "WORKER_MODE", choice, 0, 0, "PROCESS THREAD process thread", "What is watched",
     watchdog},
    {"KESSARD", "SKIP_PROC", names, 0, SKIPPED_NAMES, "", "Programs that are never reported",
     watchdog},
    semaphore_key_of("PARSE_LOG_QUE_SEMKEY", "Key of the semaphores of the parse-log queues",
                     watchdog),
    segment_key_of("PARSE_LOG_QUE_SHMKEY", "Key of the parse-log queues", watchdog),

    tls_file_of("CERT_FILE", "The agent's certificate and those between it and CA_FILE, PEM"),
    tls_file_of("KEY_FILE", "Key of that certificate, PEM, unreadable beyond owner and group"),
    tls_file_of("CA_FILE", "Certificates that sign those of the peers, PEM"),
    {"TLS", "PEER_NAMES", peer_names, 1, CFG_LINE_SIZE - 1, "",
     "Names of which a certificate of the command port's peers must carry one", tls, is_silent,
     "everybody whom CA_FILE signed", ALL_WORDS, true},
    {"TLS", "SERVER_NAME", host, 1, LENGTH_OF<srv_ipaddr_text>, "",
     "Name that the server's certificate must carry", tls, is_silent, "TRAN_SERVER's IP_ADDRESS", 1,
     true},
};

} // namespace config_table

inline constexpr std::span<const config_key> CONFIG_KEYS = config_table::KEYS;

// The place of a key in the table; the number of keys when the table does not have it.
constexpr std::size_t config_key_index(std::string_view section, std::string_view keyword) {
    std::size_t index = 0;
    while (index < CONFIG_KEYS.size() &&
           (section != CONFIG_KEYS[index].section || keyword != CONFIG_KEYS[index].keyword))
        ++index;
    return index;
}

const config_key& no_such_configuration_key(); // no code: a call is refused by the compiler

// A key by name; one that the table does not have does not compile.
consteval const config_key& config_key_of(std::string_view section, std::string_view keyword) {
    const std::size_t index = config_key_index(section, keyword);
    return index == CONFIG_KEYS.size() ? no_such_configuration_key() : CONFIG_KEYS[index];
}

// "SECTION/KEYWORD", as findings name a key.
std::string key_name(const config_key& key);

// What the key may hold, for people.
std::string allowed_text(const config_key& key);

} // namespace agt
