// The keys of the configuration file.
#include "config/config_keys.h"

#include <climits>

namespace kessctl {
namespace {

using enum key_kind;
using enum key_need;

constexpr long HIGHEST_KEY = UINT_MAX;

constexpr config_key segment_key_of(const char* keyword, key_need need, const char* help) {
    return {"IPC_SHARED_MEMORY", keyword, 1, segment_key, 1, HIGHEST_KEY, "", need, "", help};
}

constexpr config_key semaphore_key_of(const char* keyword, key_need need, const char* help) {
    return {"IPC_SEMAPHORE", keyword, 1, semaphore_key, 1, HIGHEST_KEY, "", need, "", help};
}

// The widths of texts are those of the daemon's buffers; of LOG_HOME, what "/proc/kessard" leaves
// of one.
constexpr config_key KEYS[] = {
    {"COMMON", "LOG_HOME", 1, log_directory, 1, 114, "", start, "", "Base of the log directory"},
    {"TRAN_AGENT", "IP_ADDRESS", 1, own_address, 1, 15, "", start, "",
     "Address on which the daemon takes commands"},
    {"TRAN_AGENT", "CMD_PORT", 1, port, 1, 65535, "", start, "",
     "TCP port on which the daemon takes commands"},
    {"TRAN_AGENT", "ALLOWED_ADDRESSES", 1, addresses, 1, 254, "", never, "everybody",
     "Addresses from which commands are taken"},
    {"TRAN_AGENT", "REMOTE_COMMANDS_YN", 1, yes_no, 1, 1, "", never, "Y",
     "Whether remote commands and file transfers are served"},
    {"TRAN_SERVER", "IP_ADDRESS", 1, host, 1, 127, "", start, "", "Address of the central server"},
    {"TRAN_SERVER", "CMD_PORT", 1, port, 1, 65535, "", start, "",
     "Command port of the central server"},
    {"ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1, number, INT_MIN, INT_MAX, "ms", start, "",
     "Time after which a running service is reported as active; 0 or less switches that off"},
    segment_key_of("TRAN_LOGF_QUE_INFO_SHMKEY", start, "Key of the runtime settings"),
    segment_key_of("SVC_HASH_TBL_SHMKEY", start, "Key of the service table"),
    segment_key_of("NOTI_SEND_QUE_SHMKEY", start, "Key of the notification queue"),
    segment_key_of("PTRC_HASH_TBL_SHMKEY", start, "Key of the trace table"),
    segment_key_of("JCACHE_HASH_TBL_SHMKEY", start, "Key of the cache table"),
    segment_key_of("TRAN_AGT_SHMKEY", start, "Key of the agent segment"),
    segment_key_of("PARSE_LOG_QUE_SHMKEY", watchdog, "Key of the parse-log queues"),
    semaphore_key_of("SVC_HASH_TBL_SEMKEY", start, "Key of the semaphore of the service table"),
    semaphore_key_of("NOTI_SEND_QUE_SEMKEY", start,
                     "Key of the semaphore of the notification queue"),
    semaphore_key_of("PTRC_HASH_TBL_SEMKEY", start, "Key of the semaphore of the trace table"),
    semaphore_key_of("JCACHE_HASH_TBL_SEMKEY", start, "Key of the semaphore of the cache table"),
    semaphore_key_of("TRAN_AGT_SEMKEY", start, "Key of the semaphores of the agent segment"),
    semaphore_key_of("PARSE_LOG_QUE_SEMKEY", watchdog,
                     "Key of the semaphores of the parse-log queues"),
    {"SERVICE_HASH", "DAILY_UPDATE_HHMI", 1, time_of_day, 4, 4, "", never, "----",
     "Local time of the daily service update"},
    {"SERVICE_HASH", "DAILY_UPDATE_SCRIPT", 1, script, 1, 255, "", never, "none",
     "Program that prints this host's services"},
    {"SERVICE_HASH", "DAILY_UPDATE_YN", 1, yes_no, 1, 1, "", never, "N",
     "Whether the daily time and the trigger file run the script"},
    {"SERVICE_HASH", "DEFAULT_TIMEOUT_SEC", 1, number, 0, INT_MAX, "s", start, "",
     "Time limit of a service that comes without one"},
    {"TRAN_LOGF", "LOG_INTERFACE", 1, text, 2, 2, "", start, "",
     "Name of the log interface in reports and events"},
    {"TRAN_LOGF", "TR_SECTION", 1, text, 1, 1, "", start, "",
     "Name of the transaction-log section in events"},
    {"TRAN_LOGF", "QUE_CNT", 1, choice, 1, 16, "1 2 4 8 16", start, "",
     "Log queues of runtime settings that are created"},
    {"CHECK_FILES", "SVC_UPDATE_CHK_FILE", 1, file, 1, 255, "", start, "",
     "File whose existence triggers a service update"},
    {"PTRC_HASH", "TRC_STS_CHECK_PERIOD", 1, number, 0, INT_MAX, "s", start, "",
     "Time between two sweeps of the trace table; 0 is never"},
    {"CHECK_API_STAT", "ACT", 4, file, 1, 511, "", start, "",
     "API statistics file, the fourth word of the value"},
    {"KESSARD", "WORKER_CHECK_INTERVAL", 1, number, 0, INT_MAX / 1000, "s", watchdog, "",
     "Time between two passes of the worker watchdog; 0 switches it off"},
    {"KESSARD", "WORKER_REST_INTERVAL", 1, number, 60, INT_MAX, "s", watchdog, "",
     "Time without activity after which a worker is reported"},
    {"KESSARD", "WORKER_MODE", 1, choice, 1, 7, "PROCESS THREAD process thread", watchdog, "",
     "What is watched"},
    {"KESSARD", "SKIP_PROC", 1, names, 0, 20, "", watchdog, "", "Programs that are never reported"},
};

std::string number_text(const config_key& key) {
    std::string span = "a number";
    if (key.least > INT_MIN)
        span += " from " + std::to_string(key.least);
    span += (key.least > INT_MIN ? " to " : " up to ") + std::to_string(key.most);
    return *key.unit == '\0' ? span : span + " " + key.unit;
}

std::string text_length(const config_key& key) {
    const std::string most =
        std::to_string(key.most) + (key.most == 1 ? " character" : " characters");
    return key.least == key.most ? most : "up to " + most;
}

std::string choice_text(std::string words) {
    const std::size_t last = words.rfind(' ');
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i)
        text += words[i] != ' ' ? std::string(1, words[i]) : i == last ? " or " : ", ";
    return text;
}

std::string path_text(const char* what, const config_key& key) {
    return std::string(what) + ", with TRAN_AGT_HOME " + text_length(key);
}

} // namespace

std::span<const config_key> config_keys() {
    return KEYS;
}

std::string key_name(const config_key& key) {
    return std::string(key.section) + "/" + key.keyword;
}

std::string allowed_text(const config_key& key) {
    switch (key.kind) {
    case number:
    case port:
        return number_text(key);
    case segment_key:
        return number_text(key) + " that no other segment has";
    case semaphore_key:
        return number_text(key) + " that no other semaphore set has";
    case text:
        return text_length(key);
    case choice:
        return choice_text(key.unit);
    case time_of_day:
        return "HHMM from 0000 to 2359, or ----";
    case yes_no:
        return "Y or N";
    case own_address:
        return "a dotted IPv4 address of this host, or 0.0.0.0";
    case host:
        return "a host name or dotted IPv4 address, " + text_length(key);
    case addresses:
        return "IPv4 addresses or blocks such as 10.0.0.0/8, separated by commas";
    case names:
        return "up to " + std::to_string(key.most) + " names of up to " +
               std::to_string(SKIPPED_NAME_MAX) + " characters, separated by commas";
    case log_directory:
        return path_text("a directory with a writable proc/kessard", key);
    case script:
        return path_text("an executable file", key);
    case file:
        return path_text("a file in an existing directory", key);
    }
    return {};
}

} // namespace kessctl
