// Statistics, sweep period and update triggers.
//
// One pass a second; the countdowns count passes, so a long sweep or a daily trigger stretches
// them.
#include "st_log.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "check_ptrc_hash_tbl.h"
#include "client.h"
#include "daemon_thread.h"
#include "log_printf.h"
#include "process_globals.h"
#include "settings.h"
#include "shcmd_service_list.h"
#include "state_file.h"
#include "tls_policy.h"
#include "wait.h"

namespace kessard {

std::atomic<int> tot_logs{0};

namespace {

constexpr char STATISTICS_LINE[] =
    "----------------------------------------------------------------------------";
constexpr char NO_DAILY_UPDATE[] = "----";
constexpr int DAILY_PAUSE_MS = 5000;
constexpr int PASS_MS = 1000;
constexpr int RHYTHM_MS = PASS_MS + DAILY_PAUSE_MS;
constexpr long long COMPLAINT_MS = 60000; // between two lines about one trouble
constexpr std::size_t DATE_SIZE = 8;

daemon_thread th("st_log", st_log, "<!> pthread_create error", STATE_HOUSEKEEPING, RHYTHM_MS);

struct pass_state {
    int ptime = 0;           // passes to the next print
    int ctime = 0;           // passes to the next sweep
    int post_logs = 0;       // tot_logs one pass ago
    int curr_logs = 0;       // logs in this pass
    int curr_logs1 = 0;      // logs since the last print
    int ntime = 0;           // passes in a row without logs
    char cur_date[128] = ""; // now, as YYYYMMDDHHMMSS
    char tmp_date[128] = ""; // the date on which the daily time was last reached
};
pass_state state;

void print_statistics() {
    const agt::log_batch batch;
    const CMD_CLIENT_LIST clients = copy_cmd_client_list();
    agt::log_printf("%s", STATISTICS_LINE);
    agt::log_printf("clients %d/%d , total_logs %d, curr_logs %d", clients.client_num,
                    MAX_CMD_CLIENT, tot_logs.load(), state.curr_logs1);
    agt::log_printf("^^^ client send logs statistics ^^^");
    for (int i = 0; i < clients.client_num; ++i)
        agt::log_printf(" > %d : %d", i, clients.client[i].send_logs);
}

void count_down_print() {
    if (print_time < 1)
        return;
    state.curr_logs1 += state.curr_logs;
    if (--state.ptime != 0)
        return;
    print_statistics();
    state.ptime = print_time;
    state.curr_logs1 = 0;
}

void count_down_sweep() {
    if (trc_sts_check_period <= 0 || --state.ctime != 0)
        return;
    check_ptrc_hash_tbl();
    state.ctime = trc_sts_check_period;
}

// The test is for equality, so one silent stretch resets the counters once.
void reset_when_silent() {
    if (state.curr_logs != 0) {
        state.ntime = 0;
        return;
    }
    if (++state.ntime != clear_time)
        return;
    state.post_logs = 0;
    state.curr_logs = 0;
    tot_logs = 0;
}

// With DAILY_UPDATE_YN an update starts only once its trigger is gone: one that cannot be deleted
// is said once a minute and starts nothing, and one that comes while an update runs is left for
// afterwards. Whether the trigger is there to be acted upon.
bool take_trigger() {
    static long long complained_ms = 0;
    if (shcmd_service_list_running())
        return false;
    if (unlink(svc_update_chk_fn) == 0 || errno == ENOENT)
        return true;
    const long long now_ms = agt::monotonic_ms();
    if (complained_ms == 0 || now_ms - complained_ms >= COMPLAINT_MS) {
        agt::log_printf("<!> [%s] cannot be deleted, no update. errno : %d", svc_update_chk_fn,
                        errno);
        complained_ms = now_ms;
    }
    return false;
}

bool forced_update() {
    if (access(svc_update_chk_fn, F_OK) != 0)
        return false;
    if (daily_update_yn && !take_trigger())
        return false; // the daily update does not depend on it
    agt::log_printf(">> Check OK, [%s] ..", svc_update_chk_fn);
    agt::log_printf("(I) start forced update service");
    if (daily_update_yn)
        th_start_shcmd_service_list();
    else
        unlink(svc_update_chk_fn);
    return true;
}

bool daily_time_reached() {
    return update_service_hhmi[0] != '\0' &&
           std::strcmp(update_service_hhmi, NO_DAILY_UPDATE) != 0 &&
           std::memcmp(state.cur_date, state.tmp_date, DATE_SIZE) != 0 &&
           std::memcmp(state.cur_date + DATE_SIZE, update_service_hhmi, agt::HHMI_SIZE) >= 0;
}

void daily_update() {
    if (!daily_time_reached() || (daily_update_yn && shcmd_service_list_running()))
        return;
    agt::log_printf("(I) time over!! start update service hhmi(%s)", update_service_hhmi);
    if (daily_update_yn)
        th_start_shcmd_service_list();
    agt::sleep_ms(DAILY_PAUSE_MS);
    std::memcpy(state.tmp_date, state.cur_date, DATE_SIZE);
}

} // namespace

void th_start_st_log() {
    start_thread(th);
}

void th_cancel_st_log() {
    cancel_thread(th);
}

void th_join_st_log() {
    join_thread(th);
}

void start_st_log_passes() {
    state = {};
    state.ptime = print_time;
    state.ctime = trc_sts_check_period;
}

void st_log_pass() {
    const int total = tot_logs;
    state.curr_logs = total - state.post_logs;
    state.post_logs = total;
    count_down_print();
    count_down_sweep();
    reset_when_silent();
    warn_of_expiry(std::time(nullptr));
    const struct tm now = agt::local_time(std::time(nullptr));
    std::strftime(state.cur_date, sizeof state.cur_date, "%Y%m%d%H%M%S", &now);
    if (!forced_update())
        daily_update();
}

void* st_log(void*) {
    agt::log_printf("(i) statics log print start... running : %d", running.load());
    start_st_log_passes();
    while (keep_running()) {
        note_pass();
        st_log_pass();
        agt::sleep_ms(PASS_MS);
    }
    return nullptr;
}

} // namespace kessard
