// Changing the agent's shared memory.
#include "agent/shared_edit.h"

#include <cerrno>
#include <cstring>

#include "shmem.h"

namespace kessctl {
shared_edit::~shared_edit() {
    if (address_ != nullptr)
        agt::detach_shm(address_);
}

std::string shared_edit::open(const std::string& cfg_file, const agt::shared_object& segment,
                              const agt::shared_object& semaphores) {
    const object_state set = find_object(cfg_file, semaphores);
    const object_state memory = find_object(cfg_file, segment);
    for (const object_state* one : {&set, &memory})
        if (!one->usable())
            return describe_fault(*one);
    semid_ = set.id;
    address_ = agt::attach_shm(memory.id);
    return address_ != nullptr
               ? ""
               : std::string(segment.keyword) + " " + memory.key + ": " + std::strerror(errno);
}

} // namespace kessctl
