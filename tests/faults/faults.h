// The faults of a program under test: a table in a file that the test and the program both map.
#pragma once

#include <atomic>
#include <cstddef>
#include <iterator>
#include <string_view>

namespace faults {

inline constexpr std::string_view CALLS[] = {
    "recv",        "sendmsg", "read",         "write",          "poll",
    "pselect",     "accept4", "connect",      "socket",         "open",
    "pipe2",       "eventfd", "shmget",       "shmat",          "semget",
    "semtimedop",  "fork",    "vfork",        "pthread_create", "malloc",
    "calloc",      "time",    "gettimeofday", "clock_gettime",  "gethostbyname_r",
    "getpeername", "sendto",  "send",         "pread",           "mmap"};

constexpr std::size_t number_of(std::string_view call) {
    std::size_t number = 0;
    while (CALLS[number] != call)
        ++number;
    return number;
}

inline constexpr int SHORT_COUNT = -1; // in place of an error: the call moves 1 to `every` bytes

struct fault {
    std::atomic<int> error;      // what the call fails with, 0: it does not
    std::atomic<unsigned> first; // the first call to fail, from 1
    std::atomic<unsigned> every; // and every how many behind it, 0: no other
    std::atomic<unsigned> calls; // so far
    std::atomic<unsigned> hits;  // of them failed
};

struct table {
    fault of[std::size(CALLS)];
    std::atomic<std::size_t> smallest_bytes; // smaller blocks are always to be had
    std::atomic<long> clock_sec;             // added to the time of day
    std::atomic<long> monotonic_sec;         // and to the clock that never steps; only grows
    std::atomic<int> longest_sleep_ms;       // sleeps are cut to it, time-outs are not; 0: neither
    char system_log[108];                    // where it is instead of /dev/log, when not empty
};

} // namespace faults
