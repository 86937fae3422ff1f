// Looking at the agent's shared memory.
#include "shared_view.h"

#include <sys/shm.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent_options.h"

namespace kessctl {

std::string read_shared(const std::string& cfg_file, const shared_object& object, std::size_t at, void* out,
                        std::size_t size) {
    const std::string key = cfg_value(cfg_file, "IPC_SHARED_MEMORY", object.keyword);
    if (key.empty())
        return std::string("no key ") + object.keyword + " in the configuration file '" + cfg_file + "'";
    const std::string name = std::string(object.keyword) + " " + key + ": ";
    const int id = shmget(static_cast<key_t>(std::strtol(key.c_str(), nullptr, 10)), object.size, 0);
    if (id < 0)
        return name + std::strerror(errno);
    const void* attached = shmat(id, nullptr, SHM_RDONLY);
    if (attached == reinterpret_cast<const void*>(-1))
        return name + std::strerror(errno);
    std::memcpy(out, static_cast<const char*>(attached) + at, size);
    shmdt(attached);
    return {};
}

std::string read_settings(const std::string& cfg_file, TRAN_LOGF_QUE_INFO* out) {
    return read_shared(cfg_file, {"TRAN_LOGF_QUE_INFO_SHMKEY", sizeof *out}, 0, out, sizeof *out);
}

std::string flag_letters(unsigned char flags) {
    constexpr char letters[] = "SEVBCIXQ";
    std::string text;
    for (unsigned bit = 0; bit < 8; ++bit)
        if ((flags >> bit & 1U) != 0)
            text += letters[bit];
    return text;
}

} // namespace kessctl
