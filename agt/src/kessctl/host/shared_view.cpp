// Looking at the agent's shared memory.
#include "host/shared_view.h"

#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/cfg_value.h"
#include "sem.h"

namespace kessctl {
namespace {

void look_at_segment(object_state& state, key_t key) {
    shmid_ds now{};
    state.id = shmget(key, 0, 0);
    if (state.id < 0 || shmctl(state.id, IPC_STAT, &now) < 0) {
        state.fault = std::strerror(errno);
        return;
    }
    state.size = now.shm_segsz;
    state.attaches = now.shm_nattch;
}

void look_at_semaphores(object_state& state, key_t key) {
    semid_ds now{};
    agt::semun argument{};
    argument.buf = &now;
    state.id = semget(key, 0, 0);
    if (state.id < 0 || semctl(state.id, 0, IPC_STAT, argument) < 0)
        state.fault = std::strerror(errno);
    else
        state.size = now.sem_nsems;
}

} // namespace

key_t object_key(const std::string& text) {
    return static_cast<key_t>(std::strtol(text.c_str(), nullptr, 10));
}

object_state find_object(const std::string& cfg_file, const agt::shared_object& object) {
    object_state state;
    state.object = &object;
    state.key = cfg_value(cfg_file, object.key());
    const key_t key = object_key(state.key);
    if (cfg_file.empty())
        state.fault = "no configuration: give --config, or set TRAN_AGT_CFG_FILE";
    else if (state.key.empty())
        state.fault = "the configuration file '" + cfg_file + "' has no such key";
    else if (key == IPC_PRIVATE)
        state.fault = "not a key that processes can share";
    else if (object.kind == agt::object_kind::segment)
        look_at_segment(state, key);
    else
        look_at_semaphores(state, key);
    if (state.usable() && state.size < object.size)
        state.fault = "too small: " + std::to_string(state.size) + " of " +
                      std::to_string(object.size) + " " + object.unit();
    return state;
}

std::string describe_fault(const object_state& state) {
    const bool is_missing = state.fault == std::strerror(ENOENT);
    return state.object->keyword + (state.key.empty() ? "" : " " + state.key) + ": " + state.fault +
           (is_missing ? "; the daemon makes it when it starts" : "");
}

segment_view::segment_view(const std::string& cfg_file, const agt::shared_object& object)
    : state_(find_object(cfg_file, object)) {
    if (!state_.usable())
        return;
    const void* attached = shmat(state_.id, nullptr, SHM_RDONLY);
    if (attached == reinterpret_cast<const void*>(-1))
        state_.fault = std::strerror(errno);
    else
        address_ = static_cast<const char*>(attached);
}

segment_view::~segment_view() {
    if (address_ != nullptr)
        shmdt(address_);
}

bool segment_view::copy(std::size_t at, void* out, std::size_t size) const {
    if (address_ == nullptr || at > state_.size || size > state_.size - at)
        return false;
    std::memcpy(out, address_ + at, size);
    return true;
}

std::string read_shared(const std::string& cfg_file, const agt::shared_object& object,
                        std::size_t at, void* out, std::size_t size) {
    const segment_view view(cfg_file, object);
    return view.copy(at, out, size) ? "" : describe_fault(view.state());
}

std::string read_settings(const std::string& cfg_file, TRAN_LOGF_QUE_INFO* out) {
    return read_shared(cfg_file, agt::SETTINGS_SEGMENT, 0, out, sizeof *out);
}

} // namespace kessctl
