// The threads of the daemon.
#include "threads.h"

#include <iterator>

#include "check_network.h"
#include "check_worker.h"
#include "get_service_list.h"
#include "health_check.h"
#include "notify_active_service_detail.h"
#include "shcmd_service_list.h"
#include "st_log.h"

namespace kessard {
namespace {

struct thread_row {
    void (*start)(); // at the daemon's start; null: on demand
    void (*join)();
    bool cancelled_first; // joined with a line in the log; the others end without a word, last
};

// In the order in which they are started, and in which those with a line are joined. The others are
// joined the other way round: the notifier holds what the watcher of its link waits for.
constexpr thread_row THREADS[] = {
    {th_check_worker, stop_check_worker, false},
    {network_check, stop_network_check, false},
    {th_start_st_log, th_join_st_log, true},
    {th_start_health_check, th_join_health_check, true},
    {th_start_notify_active_service_detail, stop_notify_active_service_detail, false},
    {nullptr, th_join_get_service_list, true},
    {nullptr, th_join_shcmd_service_list, true},
};

constexpr void (*CANCELS[])() = {th_cancel_get_service_list, th_cancel_health_check,
                                 th_cancel_shcmd_service_list, th_cancel_st_log};

} // namespace

void start_threads() {
    for (const thread_row& thread : THREADS) {
        if (thread.start != nullptr)
            thread.start();
    }
}

void end_threads() {
    for (const auto cancel : CANCELS)
        cancel();
    for (const thread_row& thread : THREADS) {
        if (thread.cancelled_first)
            thread.join();
    }
    for (auto thread = std::rbegin(THREADS); thread != std::rend(THREADS); ++thread) {
        if (!thread->cancelled_first)
            thread->join();
    }
}

} // namespace kessard
