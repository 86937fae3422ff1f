// Tables, and patches over them.
#include "table_patches.h"

#include <sys/mman.h>
#include <unistd.h>

#include <ctime>
#include <iterator>

#include "noti_send_que.h"
#include "parse_log_que.h"
#include "ptrc_hash_stk.h"
#include "set_svc_hash_tbl.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"
#include "worker_cfg.h"

namespace fuzz {
namespace {

using namespace kessard;

SVC_HASH_TBL pristine;

// Zeros whose last byte stands in front of a page that cannot be touched.
template <class T> T* make_guarded() {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t whole = (sizeof(T) + page - 1) / page * page;
    void* memory = mmap(nullptr, whole + page, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    require(memory != MAP_FAILED, "no memory");
    char* start = static_cast<char*>(memory);
    mprotect(start + whole, page, PROT_NONE);
    return reinterpret_cast<T*>(start + whole - sizeof(T));
}

// A queue's pool; the daemon attaches it by the same identifier.
template <class Pool> Pool* make_pool(int (*create)(int key, int index, int* existed)) {
    int existed = 0;
    const int id = create(IPC_PRIVATE, 0, &existed);
    void* address = shmat(id, nullptr, 0);
    shmctl(id, IPC_RMID, nullptr);
    require(address != reinterpret_cast<void*>(-1), "no shared memory");
    return static_cast<Pool*>(address);
}

struct area {
    void* start;
    std::size_t size;
};

// The part of a trace entry that the daemon reads, but for the time at its end.
area entry_area(int slot) {
    PTRC_HASH_ARR& entry = ptrc_hash_tbl->h_arr[slot].param;
    return {entry.proc_nm,
            offsetof(PTRC_HASH_ARR, call_trc_depth_list) - offsetof(PTRC_HASH_ARR, proc_nm)};
}

area time_area(int slot) {
    return {&ptrc_hash_tbl->h_arr[slot].param.lasted_access, sizeof(std::time_t)};
}

template <class T> area whole(T& object) {
    return {&object, sizeof object};
}

area area_of(int number) {
    const int slots[] = {0, 1, 2, 3, 9999};
    const area areas[] = {
        whole(ptrc_hash_tbl->used.top),
        {ptrc_hash_tbl->used.idx, MANY_ENTRIES * sizeof(unsigned)},
        whole(ptrc_hash_tbl->alloc_cnt),
        entry_area(slots[0]),
        entry_area(slots[1]),
        entry_area(slots[2]),
        entry_area(slots[3]),
        entry_area(slots[4]),
        time_area(slots[0]),
        time_area(slots[1]),
        time_area(slots[2]),
        time_area(slots[3]),
        time_area(slots[4]),
        whole(svc_hash_tbl->alloc_cnt),
        whole(svc_hash_tbl->h_idx[77]), // of the first three services
        {&svc_hash_tbl->h_arr[9992], 8 * sizeof(SVC_HASH_ARR_LIST)},
        {&svc_hash_tbl->h_arr[0], 2 * sizeof(SVC_HASH_ARR_LIST)},
        whole(svc_hash_tbl->available.top),
        {svc_hash_tbl->available.idx, 8 * sizeof(unsigned)},
        {&svc_hash_tbl->available.idx[SVC_HASH_SLOTS - 8], 8 * sizeof(unsigned)},
        whole(svc_hash_tbl->used.top),
        {svc_hash_tbl->used.idx, 16 * sizeof(unsigned)},
        whole(noti_pool->que[0].info),
        whole(parse_pool->que[0].info),
        {tran_agt_shm, offsetof(TRAN_AGT_SHM, dir_cleanup)},
        {tran_agt_shm->proc_info, 4 * sizeof(PROCESS_INFO)},
        whole(tran_agt_shm->que_stat),
        whole(tran_agt_shm->device_info),
        whole(*que_info),
    };
    return areas[static_cast<std::size_t>(number) % std::size(areas)];
}

constexpr int TRAN_AGT_AREAS[] = {24, 25, 26, 27};

} // namespace

void make_tables() {
    ptrc_hash_tbl = make_guarded<PTRC_HASH_TBL>();
    svc_hash_tbl = make_guarded<SVC_HASH_TBL>();
    init_svc_hash_tbl();
    pristine = *svc_hash_tbl;
    que_info = make_guarded<TRAN_LOGF_QUE_INFO>();
    tran_agt_shm = make_guarded<TRAN_AGT_SHM>();
    proc_info = tran_agt_shm->proc_info;
    noti_pool = make_pool<NOTI_SEND_QUE_POOL>(create_noti_send_que);
    parse_pool = make_pool<PARSE_LOG_QUE_POOL>(create_parse_log_que);
    parse_log_que_semid = 0;
}

void empty_tables() {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto start = reinterpret_cast<std::uintptr_t>(ptrc_hash_tbl) / page * page;
    const auto end = reinterpret_cast<std::uintptr_t>(ptrc_hash_tbl + 1);
    madvise(reinterpret_cast<void*>(start), end - start, MADV_DONTNEED);
    std::memcpy(static_cast<void*>(svc_hash_tbl), &pristine, sizeof pristine);
    noti_pool->que[0].info = {};
    parse_pool->que[0].info = {};
    for (const int number : TRAN_AGT_AREAS)
        std::memset(area_of(number).start, 0, area_of(number).size);
    *que_info = {};
}

void patch_tables(reader& from) {
    while (!from.rest().empty()) {
        const area where = area_of(from.number<std::uint8_t>());
        const std::size_t at = from.number<std::uint16_t>() % where.size;
        const std::string_view bytes = from.text(from.number<std::uint8_t>());
        std::memcpy(static_cast<char*>(where.start) + at, bytes.data(),
                    std::min(bytes.size(), where.size - at));
    }
}

} // namespace fuzz
