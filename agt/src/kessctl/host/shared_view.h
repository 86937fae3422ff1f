// Looking at the agent's shared memory: attached read-only, never locked, copied out before
// anything is decoded. What is copied may be changing meanwhile and may be corrupt; whoever decodes
// it checks every count and index. A page that nobody has written yet costs memory once it is read,
// so readers keep to what is in use.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "kessard/tran_logf_que_info.h"
#include "shared_objects.h"

namespace kessctl {

// How one object stands. `fault` is empty for a segment or set that can be used.
struct object_state {
    const agt::shared_object* object = nullptr;
    std::string key; // as the configuration has it; empty when it has none
    int id = -1;     // -1: there is no such object
    std::size_t size = 0;
    unsigned long attaches = 0; // of a segment, those of the caller not counted
    std::string fault;

    bool exists() const { return id >= 0; }
    bool usable() const { return exists() && fault.empty(); }
};

// The key that the text of a configuration value means; IPC_PRIVATE, which no two processes can
// share, for what is no number.
key_t object_key(const std::string& text);

// Finds the object of the configuration's key without attaching it. None, one that may not be
// looked at and one that is smaller than it must be have a fault; of the latter two the identifier
// stands all the same.
object_state find_object(const std::string& cfg_file, const agt::shared_object& object);

// "KEYWORD key: what is wrong", of an object that has a fault.
std::string describe_fault(const object_state& state);

// A segment, attached read-only for the life of the object.
class segment_view {
  public:
    // Attaches the segment of the configuration's key; what went wrong stands in state().fault.
    segment_view(const std::string& cfg_file, const agt::shared_object& object);
    segment_view(const segment_view&) = delete;
    segment_view& operator=(const segment_view&) = delete;
    ~segment_view();

    // How the segment stood before it was attached.
    const object_state& state() const { return state_; }

    // Copies bytes out. False, and nothing is copied, when the segment is not usable or does not
    // hold them.
    [[nodiscard]] bool copy(std::size_t at, void* out, std::size_t size) const;
    template <class T> [[nodiscard]] bool copy(std::size_t at, T* out) const {
        return copy(at, out, sizeof *out);
    }

  private:
    object_state state_;
    const char* address_ = nullptr;
};

// Copies `size` bytes from `at` of the object that the configuration file names. Empty on success,
// else why not.
[[nodiscard]] std::string read_shared(const std::string& cfg_file, const agt::shared_object& object,
                                      std::size_t at, void* out, std::size_t size);

// Copies the settings that the agent's processes read now. Empty on success, else why not.
[[nodiscard]] std::string read_settings(const std::string& cfg_file, TRAN_LOGF_QUE_INFO* out);

} // namespace kessctl
