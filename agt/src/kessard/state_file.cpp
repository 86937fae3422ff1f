// The state file.
//
// It is made beside its place and moved there when it is whole, so nobody reads half of one, and a
// link or whatever else stands in that place is replaced, not followed. Its space is reserved
// first: a full disk fails the making, not a store. The file stays when the daemon ends.
#include "state_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config_keys.h"
#include "field.h"
#include "log_printf.h"
#include "shortage.h"
#include "unique_fd.h"
#include "util.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr mode_t FILE_MODE = 0644; // whatever the process's mask is
constexpr int NO_PLACE = -1;

KESSARD_STATE unmapped = [] {
    KESSARD_STATE none{};
    none.filter_switched_off = STATE_FILTER_NONE;
    return none;
}();

thread_local int own_place = NO_PLACE;

STATE_THREAD& own_figures() {
    return figures->threads[own_place];
}

void read_boot_id(char (&id)[sizeof KESSARD_STATE::boot_id]) {
    std::FILE* file = agt::open_text_file("/proc/sys/kernel/random/boot_id");
    if (file == nullptr)
        return;
    if (std::fgets(id, sizeof id, file) != nullptr)
        id[std::strcspn(id, "\n")] = '\0';
    std::fclose(file);
}

// A state file of this boot that stands there; false when there is none.
bool read_old(const char* path, const char* boot_id, KESSARD_STATE* old) {
    const agt::unique_fd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    return fd.valid() && fstat(fd.get(), &info) == 0 && S_ISREG(info.st_mode) &&
           info.st_size == sizeof *old && read(fd.get(), old, sizeof *old) == sizeof *old &&
           old->magic == STATE_FILE_MAGIC && old->version == STATE_FILE_VERSION &&
           old->size == sizeof *old &&
           std::strncmp(old->boot_id, boot_id, sizeof old->boot_id) == 0;
}

// What a retrieval left switched off that was killed, STATE_FILTER_NONE without one.
std::int64_t left_filter(const char* path, const char* boot_id) {
    KESSARD_STATE old;
    const bool tells = read_old(path, boot_id, &old) && old.filter_switched_off >= SCHAR_MIN &&
                       old.filter_switched_off <= SCHAR_MAX;
    return tells ? old.filter_switched_off : STATE_FILTER_NONE;
}

void fill_head(KESSARD_STATE* state) {
    state->version = STATE_FILE_VERSION;
    state->size = sizeof *state;
    agt::copy_text(state->release, KESSARD_VERSION);
    read_boot_id(state->boot_id);
    state->pid = getpid();
}

// The memory of a new file, all zero; null and errno when there is none.
KESSARD_STATE* map_new(const char* path) {
    const agt::unique_fd fd(
        open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, FILE_MODE));
    if (!fd.valid() || fchmod(fd.get(), FILE_MODE) != 0)
        return nullptr;
    errno = posix_fallocate(fd.get(), 0, sizeof(KESSARD_STATE));
    if (errno != 0)
        return nullptr;
    void* memory =
        mmap(nullptr, sizeof(KESSARD_STATE), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    return memory == MAP_FAILED ? nullptr : static_cast<KESSARD_STATE*>(memory);
}

// False and errno when the file cannot be made.
bool make_file(const char* path) {
    fill_head(&unmapped);
    figure_set(unmapped.filter_switched_off, left_filter(path, unmapped.boot_id));
    const std::string fresh = std::string(path) + ".new";
    unlink(fresh.c_str()); // of a start that was killed
    KESSARD_STATE* made = map_new(fresh.c_str());
    if (made != nullptr) {
        *made = unmapped;
        agt::shared_store(made->magic, STATE_FILE_MAGIC, std::memory_order_release);
        if (std::rename(fresh.c_str(), path) == 0) {
            figures = made;
            agt::count_lost_lines(&figures->log_lines_lost);
            return true;
        }
    }
    const int error = errno;
    if (made != nullptr)
        munmap(made, sizeof *made);
    unlink(fresh.c_str());
    errno = error;
    return false;
}

} // namespace

KESSARD_STATE* figures = &unmapped;

bool take_state_file(const char* word) {
    agt::state_file_text path;
    const bool fits = agt::resolve_path(path, sizeof path, std::getenv("TRAN_AGT_HOME"), word);
    errno = ENAMETOOLONG;
    if (fits && make_file(path))
        return true;
    log_shortage("state file", errno);
    agt::log_printf("<!> state file cannot be made, errno : %d (%s)", errno, path);
    return true;
}

void figure_now(std::int64_t& figure) {
    figure_set(figure, agt::monotonic_ms());
}

void begin_thread_figures(int place, const char* name, std::int64_t rhythm_ms) {
    own_place = place;
    if (place == NO_PLACE)
        return;
    agt::copy_text(own_figures().name, name);
    set_rhythm(rhythm_ms);
    note_pass();
    figure_set(own_figures().running, 1);
}

void end_thread_figures() {
    if (own_place != NO_PLACE)
        figure_set(own_figures().running, 0);
    own_place = NO_PLACE;
}

void note_pass() {
    if (own_place != NO_PLACE)
        figure_now(own_figures().last_pass_ms);
}

void set_rhythm(std::int64_t rhythm_ms) {
    if (own_place != NO_PLACE)
        figure_set(own_figures().rhythm_ms, rhythm_ms);
}

long_step::long_step(std::int64_t limit_ms)
    : rhythm_ms_(own_place == NO_PLACE ? 0 : own_figures().rhythm_ms) {
    note_pass();
    set_rhythm(limit_ms);
}

long_step::~long_step() {
    note_pass();
    set_rhythm(rhythm_ms_);
}

transfer_figures::transfer_figures(STATE_TRANSFER& figures_of_kind)
    : of_(figures_of_kind), start_ms_(agt::monotonic_ms()) {
    figure_add(of_.begun);
}

transfer_figures::~transfer_figures() {
    if (!good_ && !agt::cancelled())
        figure_add(of_.failed);
}

void transfer_figures::good(int elements) {
    good_ = true;
    figure_set(of_.elements, elements);
    figure_set(of_.took_ms, agt::monotonic_ms() - start_ms_);
    figure_now(of_.good_ms);
}

semaphore_wait::semaphore_wait(int row, int number) {
    if (own_place == NO_PLACE)
        return;
    figure_set(own_figures().waits_number, number);
    figure_now(own_figures().waits_since_ms);
    figure_set(own_figures().waits_for, row + 1);
}

semaphore_wait::~semaphore_wait() {
    if (own_place == NO_PLACE)
        return;
    figure_set(own_figures().waits_for, 0);
    note_pass();
}

} // namespace kessard
