// The host's service manager.
//
// A thread passes that has begun a pass lately, or that waits in the kernel for a semaphore:
// another process holds that, and a restart of the daemon would not give it back.
#include "service_manager.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <string>

#include "log_printf.h"
#include "set_svc_hash_tbl.h"
#include "state_file.h"
#include "util.h"
#include "wait.h"

namespace kessard {
namespace {

using agt::shared_load;

constexpr long long STANDING_MS = 60000; // without a pass, or twice the rhythm if that is longer
constexpr long long STATUS_PAUSE_MS = 5000;

using notify_function = int (*)(int unset_environment, const char* state);

// Loaded on demand: most hosts' daemons never pay for the library and what it needs.
notify_function load_sd_notify() {
    void* library = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
    return library == nullptr ? nullptr
                              : reinterpret_cast<notify_function>(dlsym(library, "sd_notify"));
}

bool has_service_manager() {
    static const bool has = std::getenv("NOTIFY_SOCKET") != nullptr;
    return has;
}

// Negative when it was not told.
int send_state(const char* state) {
    static const notify_function sd_notify = load_sd_notify();
    return sd_notify == nullptr ? -1 : sd_notify(0, state);
}

bool stands(const STATE_THREAD& thread, long long now_ms) {
    return shared_load(thread.running) != 0 && shared_load(thread.waits_for) == 0 &&
           now_ms - shared_load(thread.last_pass_ms) >
               std::max<long long>(STANDING_MS, 2 * shared_load(thread.rhythm_ms));
}

const STATE_THREAD* standing_thread(long long now_ms) {
    const auto* found =
        std::find_if(std::begin(figures->threads), std::end(figures->threads),
                     [now_ms](const STATE_THREAD& thread) { return stands(thread, now_ms); });
    return found == std::end(figures->threads) ? nullptr : found;
}

std::string clock_text(std::int64_t at_ms) {
    const auto ago_sec = (agt::monotonic_ms() - at_ms) / 1000;
    const struct tm local = agt::local_time(std::time(nullptr) - ago_sec);
    char text[16] = "";
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

// What the status line is made of. It is sent when one of these has changed, so it names times of
// day and not ages.
struct condition {
    std::int64_t answered_ms = -1;
    std::int64_t failing = 0;
    bool link_wanted = false;
    bool link_up = false;
    unsigned int services = 0;
    const STATE_THREAD* standing = nullptr;

    bool operator==(const condition&) const = default;
};

condition condition_now(const STATE_THREAD* standing) {
    return {shared_load(figures->server_answered_ms), shared_load(figures->server_failing),
            shared_load(figures->link_wanted) != 0,   shared_load(figures->link_up) != 0,
            shared_load(svc_hash_tbl->alloc_cnt),     standing};
}

std::string server_text(const condition& now) {
    const bool answered = now.answered_ms != 0;
    if (now.failing == 0)
        return answered ? "server answered at " + clock_text(now.answered_ms)
                        : "server not asked yet";
    const std::int64_t since_ms = answered ? now.answered_ms : shared_load(figures->started_ms);
    return "no answer from the server since " + clock_text(since_ms) + ", " +
           std::to_string(now.failing) + (now.failing == 1 ? " try" : " tries");
}

std::string status_text(const condition& now) {
    return "STATUS=" + server_text(now) + "; notify link " +
           (!now.link_wanted ? "off"
            : now.link_up    ? "up"
                             : "down") +
           "; " + std::to_string(now.services) + (now.services == 1 ? " service" : " services") +
           (now.standing == nullptr
                ? ""
                : std::string("; thread ") + now.standing->name + " stands since " +
                      clock_text(now.standing->last_pass_ms));
}

void tell_status(const STATE_THREAD* standing, long long now_ms) {
    static condition told;
    static long long told_ms = 0;
    if (told_ms != 0 && now_ms - told_ms < STATUS_PAUSE_MS)
        return;
    const condition now = condition_now(standing);
    if (now == told)
        return;
    told = now;
    told_ms = now_ms;
    send_state(status_text(now).c_str());
}

void feed_watchdog(const STATE_THREAD* standing, long long now_ms) {
    static long long fed_ms = 0;
    if (standing != nullptr || now_ms - fed_ms < service_watchdog_ms())
        return;
    fed_ms = now_ms;
    send_state("WATCHDOG=1");
}

int read_watchdog_ms() {
    const char* limit_us = std::getenv("WATCHDOG_USEC");
    const char* process = std::getenv("WATCHDOG_PID");
    if (limit_us == nullptr || !has_service_manager() ||
        (process != nullptr && std::strtol(process, nullptr, 10) != getpid()))
        return INT_MAX;
    const long long quarter_ms = std::strtoll(limit_us, nullptr, 10) / 4000;
    return static_cast<int>(std::clamp<long long>(quarter_ms, 1, INT_MAX));
}

} // namespace

void notify_service_manager(const char* state) {
    const int result = has_service_manager() ? send_state(state) : 0;
    if (result < 0)
        agt::log_printf("<!> service manager not notified (%s), result : %d", state, result);
}

void keep_service_manager_posted() {
    if (!has_service_manager())
        return;
    const long long now_ms = agt::monotonic_ms();
    const STATE_THREAD* standing = standing_thread(now_ms);
    tell_status(standing, now_ms);
    if (service_watchdog_ms() != INT_MAX)
        feed_watchdog(standing, now_ms);
}

int service_watchdog_ms() {
    static const int limit_ms = read_watchdog_ms();
    return limit_ms;
}

} // namespace kessard
