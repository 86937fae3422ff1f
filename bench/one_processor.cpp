// Keeps a measurement on one processor.
#include "one_processor.h"

#include <unistd.h>

#include <filesystem>
#include <string>

namespace bench {
namespace {

void place(pid_t process, const cpu_set_t& processors) {
    std::error_code error;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task", error))
        sched_setaffinity(std::stoi(thread.path().filename()), sizeof processors, &processors);
}

cpu_set_t first_of(const cpu_set_t& processors) {
    cpu_set_t first;
    CPU_ZERO(&first);
    int processor = 0;
    while (processor < CPU_SETSIZE - 1 && !CPU_ISSET(processor, &processors))
        ++processor;
    CPU_SET(processor, &first);
    return first;
}

} // namespace

one_processor::one_processor(pid_t other) : processes_{getpid(), other} {
    CPU_ZERO(&usual_);
    sched_getaffinity(0, sizeof usual_, &usual_);
    for (const pid_t process : processes_)
        place(process, first_of(usual_));
}

one_processor::~one_processor() {
    for (const pid_t process : processes_)
        place(process, usual_);
}

} // namespace bench
