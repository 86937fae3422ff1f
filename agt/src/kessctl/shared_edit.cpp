// Changing the agent's shared memory.
#include "shared_edit.h"

#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent_options.h"
#include "shmem.h"

namespace kessctl {
namespace {

// "KEYWORD key: what is wrong".
std::string about(const char* keyword, const std::string& key) {
    return std::string(keyword) + " " + key + ": " + std::strerror(errno);
}

key_t key_of(const std::string& text) {
    return static_cast<key_t>(std::strtol(text.c_str(), nullptr, 10));
}

} // namespace

shared_edit::~shared_edit() {
    if (address_ != nullptr)
        agt::detach_shm(address_);
}

std::string shared_edit::open(const std::string& cfg_file, const agt::shared_object& segment,
                              const agt::shared_object& semaphores) {
    const std::string shm_key = cfg_value(cfg_file, segment.key());
    const std::string sem_key = cfg_value(cfg_file, semaphores.key());
    if (shm_key.empty() || sem_key.empty())
        return std::string("no key ") + (shm_key.empty() ? segment : semaphores).keyword +
               " in the configuration file '" + cfg_file + "'";
    semid_ = semget(key_of(sem_key), 1, 0);
    if (semid_ < 0)
        return about(semaphores.keyword, sem_key);
    const int id = shmget(key_of(shm_key), segment.size, 0);
    address_ = id < 0 ? nullptr : agt::attach_shm(id);
    return address_ != nullptr ? "" : about(segment.keyword, shm_key);
}

} // namespace kessctl
