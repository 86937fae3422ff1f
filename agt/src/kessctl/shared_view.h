// Looking at the agent's shared memory: attached read-only, never locked, copied out before anything is decoded. What
// is copied may be changing meanwhile and may be corrupt; whoever decodes it checks every count and index.
#pragma once

#include <cstddef>
#include <string>

#include "kessard/tran_logf_que_info.h"

namespace kessctl {

struct shared_object {
    const char* keyword; // of its key, in section IPC_SHARED_MEMORY
    std::size_t size;    // bytes it must have
};

// Copies `size` bytes from `at` of the object that the configuration file names. Empty on success, else why not.
std::string read_shared(const std::string& cfg_file, const shared_object& object, std::size_t at, void* out,
                        std::size_t size);

// The settings that the agent's processes read now.
std::string read_settings(const std::string& cfg_file, TRAN_LOGF_QUE_INFO* out);

// The letters of a log flag set, in the order of its bits.
std::string flag_letters(unsigned char flags);

} // namespace kessctl
