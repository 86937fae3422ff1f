// Every wait of a thread goes through here, so that it can be ended early.
//
// A thread is never cancelled from outside: it names one descriptor, its cancel descriptor, and
// each of its waits also ends when that descriptor becomes readable. An event descriptor serves for
// the daemon's threads, a signal descriptor for the main thread (it is readable while a terminating
// signal is pending). Nothing here reads the descriptor, so one event ends every later wait too.
#pragma once

#include <ctime>

namespace agt {

enum class wait_result {
    ready,     // the awaited event is there
    timed_out, // the limit ran out first
    cancelled, // the thread's cancel descriptor became readable first; errno is ECANCELED
    failed     // the system refused the wait; errno says why
};

// Names the cancel descriptor of the calling thread; -1 takes it away. The descriptor stays the
// caller's.
void set_cancel_fd(int fd);

// The cancel descriptor of the calling thread, -1 without one.
int get_cancel_fd();

// Whether the calling thread's cancel descriptor is readable now.
[[nodiscard]] bool cancelled();

// Whether it was readable at the calling thread's last wait: asks the system nothing.
[[nodiscard]] bool saw_cancel();

// Waits until `fd` reports one of the poll events `events` or an error, for at most `limit_ms`
// milliseconds (-1: no limit). `fd` -1 waits for the limit alone.
wait_result wait_fd(int fd, short events, int limit_ms);

// Sleeps for `ms` milliseconds; false when cancelled meanwhile.
bool sleep_ms(int ms);

// Milliseconds of the monotonic clock.
long long monotonic_ms();

} // namespace agt
