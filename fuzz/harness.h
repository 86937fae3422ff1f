// What the fuzz targets have in common: their start, the input, and what a program needs around it
// in memory.
//
// A target defines set_up() and run(). What the program must not do for real is replaced when the
// target is linked: by a function of the same name in the target, which the linker takes before it
// looks into the library, or by a wrapper
// (-Wl,--wrap) of a function of the C library.
#pragma once

#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "tls_identity.h"

namespace fuzz {

// Runs once, before the first input. There is no log; its lines are composed all the same.
void set_up();

// Takes one input. A descriptor that is open behind it and was not before is a finding.
void run(std::string_view input);

// Ends the process as a finding, which `what` describes.
[[noreturn]] void fail(const std::string& what);

inline void require(bool holds, const char* what) {
    if (!holds)
        fail(what);
}

// Takes an input apart from its front. What is missing at the end reads as zero, or is empty.
class reader {
  public:
    explicit reader(std::string_view input) : left_(input) {}

    template <class T> T number() {
        T value{};
        const std::string_view bytes = text(sizeof value);
        std::memcpy(&value, bytes.data(), bytes.size());
        return value;
    }
    std::string_view text(std::size_t most) {
        const std::string_view taken = left_.substr(0, most);
        left_.remove_prefix(taken.size());
        return taken;
    }
    // Up to `end`, which is taken too, or all of the rest.
    std::string_view text_until(char end) {
        const std::size_t at = left_.find(end);
        const std::string_view taken = text(at);
        left_.remove_prefix(std::min<std::size_t>(left_.size(), 1));
        return taken;
    }
    std::string_view rest() const { return left_; }

  private:
    std::string_view left_;
};

// A terminated copy that ends where its memory ends, so that a step too far is seen.
class exact_text {
  public:
    explicit exact_text(std::string_view text) : memory_(new char[text.size() + 1]) {
        std::memcpy(memory_.get(), text.data(), text.size());
        memory_[text.size()] = '\0';
    }
    char* get() const { return memory_.get(); }

  private:
    std::unique_ptr<char[]> memory_;
};

// A file in memory that lives as long as the process; its path leads to it while the content
// changes.
class memory_file {
  public:
    memory_file();
    void set(std::string_view content) const;
    const std::string& path() const { return path_; }
    int fd() const { return fd_; }

  private:
    int fd_;
    std::string path_;
};

// A directory of this process, removed when it ends by itself.
const std::string& directory();

// A System V segment of all zeros under no key, which disappears with the process however it ends.
template <class T> T* make_segment() {
    const int id = shmget(IPC_PRIVATE, sizeof(T), IPC_CREAT | 0600);
    void* address = shmat(id, nullptr, 0);
    shmctl(id, IPC_RMID, nullptr);
    require(id >= 0 && address != reinterpret_cast<void*>(-1), "no shared memory");
    return static_cast<T*>(address);
}

// What the next connection to the server becomes (needs the wrapper of create_tcp_client_session);
// -1: none is made.
inline int next_connection = -1;

// Called by a wait for time alone, of a target that is linked with the wrapper of poll; waits end
// at once there.
inline void (*on_sleep)() = nullptr;

// Semaphores that are held, of a target that is linked with the wrapper of semtimedop, which always
// grants one.
inline int held_semaphores = 0;

// A certificate that trusts itself, made in directory().
agt::tls_identity& own_identity();

// The far end of a connection, which has said all that it will say; with `record_bytes` in TLS, in
// records of that size.
class far_end {
  public:
    explicit far_end(std::string_view says);
    far_end(std::string_view says, std::size_t record_bytes);
    ~far_end();
    far_end(const far_end&) = delete;
    far_end& operator=(const far_end&) = delete;

    int near() const { return near_; } // the program's end, which it closes
    std::string heard() const;         // what the program has sent since the last call

  private:
    void connect();
    void say(std::string_view says);

    int near_;
    int far_;
};

} // namespace fuzz
