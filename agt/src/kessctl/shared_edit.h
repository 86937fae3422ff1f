// Changing the agent's shared memory as its other processes do: attached for writing, changed under
// its semaphore.
#pragma once

#include <string>

#include "shared_view.h"

namespace kessctl {

class shared_edit {
  public:
    shared_edit() = default;
    shared_edit(const shared_edit&) = delete;
    shared_edit& operator=(const shared_edit&) = delete;
    ~shared_edit();

    // Attaches an existing object and finds its semaphore set; `sem_keyword` names the set's key in
    // section IPC_SEMAPHORE. Empty on success, else why not.
    std::string open(const std::string& cfg_file, const shared_object& object,
                     const char* sem_keyword);

    void* address() const { return address_; }
    int semid() const { return semid_; }

  private:
    void* address_ = nullptr;
    int semid_ = -1;
};

} // namespace kessctl
