// Changing the agent's shared memory as its other processes do: attached for writing, changed under
// its semaphore.
#pragma once

#include <string>

#include "host/shared_view.h"

namespace kessctl {

class shared_edit {
  public:
    shared_edit() = default;
    shared_edit(const shared_edit&) = delete;
    shared_edit& operator=(const shared_edit&) = delete;
    ~shared_edit();

    // Attaches an existing segment and finds the semaphore set that guards it. Empty on success,
    // else why not.
    [[nodiscard]] std::string open(const std::string& cfg_file, const agt::shared_object& segment,
                                   const agt::shared_object& semaphores);

    // The first byte of the segment and the identifier of the set; valid once open() succeeded, the
    // former for the life of the object.
    void* address() const { return address_; }
    int semid() const { return semid_; }

  private:
    void* address_ = nullptr;
    int semid_ = -1;
};

} // namespace kessctl
