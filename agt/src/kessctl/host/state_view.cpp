// The state file of the daemon that runs.
#include "host/state_view.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <span>

#include "host/cfg_value.h"
#include "unique_fd.h"
#include "wait.h"

namespace kessctl {
namespace {

constexpr struct {
    const char* id;
    const char* name;
} THREADS[] = {{"main", "main"},
               {"watcher", "watcher"},
               {"housekeeping", "housekeeping"},
               {"health_check", "health check"},
               {"notifier", "notifier"},
               {"retrieval", "retrieval"},
               {"upload", "upload"},
               {"watchdog", "watchdog"}};
static_assert(std::size(THREADS) == STATE_THREADS);

std::string path_of(const std::string& word, const daemon_state& daemon) {
    if (word.empty() || word.starts_with('/'))
        return word;
    const std::string home = home_of(daemon.pid).string();
    const char* own = std::getenv("TRAN_AGT_HOME");
    if (home.empty() && own == nullptr)
        return word;
    return (home.empty() ? own : home) + "/" + word;
}

// Reads a whole file of that very size; what is wrong otherwise.
std::string read_whole(const std::string& path, KESSARD_STATE* out) {
    const agt::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat about {};
    if (!file.valid() || fstat(file.get(), &about) != 0)
        return errno == ENOENT ? "missing" : std::strerror(errno);
    if (!S_ISREG(about.st_mode))
        return "damaged: no regular file";
    const ssize_t got = pread(file.get(), out, sizeof *out, 0);
    if (got < 0)
        return std::strerror(errno);
    if (got != sizeof *out || about.st_size != sizeof *out)
        return "damaged: " + std::to_string(about.st_size) + " bytes instead of " +
               std::to_string(sizeof *out);
    return {};
}

bool has_end(const char* text, std::size_t size) {
    return std::memchr(text, '\0', size) != nullptr;
}

// Every text has its end, no number is below 0 and no time is still to come.
bool is_sound(const KESSARD_STATE& values, std::int64_t now_ms) {
    bool sound = has_end(values.release, sizeof values.release);
    const auto check = [&](const auto& numbers) {
        sound = sound && std::ranges::all_of(numbers, [](std::int64_t one) { return one >= 0; });
    };
    for (const STATE_THREAD& thread : values.threads) {
        sound = sound && has_end(thread.name, sizeof thread.name);
        check(std::initializer_list<std::int64_t>{thread.running, thread.rhythm_ms,
                                                  thread.last_pass_ms, thread.waits_for,
                                                  thread.waits_number, thread.waits_since_ms});
        sound = sound && std::max(thread.last_pass_ms, thread.waits_since_ms) <= now_ms;
    }
    constexpr auto first = offsetof(KESSARD_STATE, server_tried_ms);
    constexpr auto filter = offsetof(KESSARD_STATE, filter_switched_off); // may be below 0
    constexpr auto number = sizeof values.filter_switched_off;
    check(std::span(&values.server_tried_ms, (filter - first) / number));
    check(std::span(values.commands, (sizeof values - filter) / number - 1));
    for (const std::int64_t when :
         {values.started_ms, values.server_tried_ms, values.server_answered_ms,
          values.link_since_ms, values.retrieval.good_ms, values.upload.good_ms})
        sound = sound && when <= now_ms;
    return sound;
}

double now_sec() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
}

std::string boot_id() {
    std::string id;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
    return id;
}

std::string content_fault(const KESSARD_STATE& values, std::int64_t now_ms) {
    if (values.magic == 0)
        return "not finished yet";
    if (values.magic != STATE_FILE_MAGIC || values.size != sizeof values)
        return "damaged: no state file";
    if (values.version != STATE_FILE_VERSION)
        return "of layout " + std::to_string(values.version) + " instead of " +
               std::to_string(STATE_FILE_VERSION);
    if (!has_end(values.boot_id, sizeof values.boot_id) || values.boot_id != boot_id())
        return "of another boot";
    return is_sound(values, now_ms) ? "" : "damaged: its values cannot be";
}

bool is_of(const daemon_state& daemon, const KESSARD_STATE& values) {
    return daemon.running && values.ended == 0 &&
           (daemon.pid == 0 || values.pid == inner_pid(daemon.pid));
}

} // namespace

double state_view::epoch_sec(std::int64_t when_ms) const {
    constexpr double clock_was_set_sec = 2;
    const double by_now = read_sec - static_cast<double>(read_ms) / 1000;
    const double by_start =
        static_cast<double>(values.started_sec) - static_cast<double>(values.started_ms) / 1000;
    const bool was_set = std::abs(by_now - by_start) > clock_was_set_sec;
    return static_cast<double>(when_ms) / 1000 + (was_set ? by_now : by_start);
}

state_view read_state(const std::string& cfg_file, const daemon_state& daemon) {
    state_view view;
    view.path = path_of(cfg_value(cfg_file, agt::config_key_of("COMMON", "STATE_FILE")), daemon);
    if (view.path.empty())
        return view;
    if (!view.path.starts_with('/')) {
        view.unseen = true;
        view.fault = "its directory is not known without TRAN_AGT_HOME";
        return view;
    }
    view.fault = read_whole(view.path, &view.values);
    view.unseen = view.fault == std::strerror(EACCES);
    view.read_ms = agt::monotonic_ms();
    view.read_sec = now_sec();
    if (view.fault.empty())
        view.fault = content_fault(view.values, view.read_ms);
    if (view.fault.empty() && !is_of(daemon, view.values))
        view.fault = "of a daemon that ended";
    return view;
}

const char* thread_name(std::size_t place) {
    return THREADS[place].name;
}

const char* thread_id(std::size_t place) {
    return THREADS[place].id;
}

const agt::shared_object* waited_for(const STATE_THREAD& thread) {
    const auto row = static_cast<std::size_t>(thread.waits_for) - 1;
    const bool known =
        row < std::size(agt::SHARED_OBJECTS) &&
        agt::SHARED_OBJECTS[row]->kind == agt::object_kind::semaphores &&
        static_cast<std::size_t>(thread.waits_number) < agt::SHARED_OBJECTS[row]->size;
    return known ? agt::SHARED_OBJECTS[row] : nullptr;
}

std::string server_error_text(std::int64_t error) {
    switch (error) {
    case STATE_SERVER_NO_ANSWER:
        return "nothing within the time-out";
    case STATE_SERVER_CLOSED:
        return "it closed the connection";
    case STATE_SERVER_TLS:
        return "TLS failed";
    case STATE_SERVER_NAME:
        return "its name has no address";
    default:
        return std::strerror(static_cast<int>(std::min<std::int64_t>(error, INT_MAX)));
    }
}

} // namespace kessctl
