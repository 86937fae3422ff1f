// The System V objects of an agent: where the configuration names their keys, how large they are,
// who needs them.
#pragma once

#include <cstddef>

#include "kessard/jcache_hash_tbl.h"
#include "kessard/noti_send_que.h"
#include "kessard/parse_log_que.h"
#include "kessard/ptrc_hash_tbl.h"
#include "kessard/svc_hash_tbl.h"
#include "kessard/tran_agt_shm.h"
#include "kessard/tran_logf_que_info.h"

namespace kessctl {

inline constexpr char SHARED_MEMORY_SECTION[] = "IPC_SHARED_MEMORY";
inline constexpr char SEMAPHORE_SECTION[] = "IPC_SEMAPHORE";

enum class object_kind { segment, semaphores };

struct shared_object {
    const char* keyword; // of its key in the configuration
    object_kind kind;
    std::size_t size;   // bytes of a segment, semaphores of a set
    const char* name;   // for people
    bool watchdog_only; // not there while the worker watchdog is off

    constexpr const char* section() const {
        return kind == object_kind::segment ? SHARED_MEMORY_SECTION : SEMAPHORE_SECTION;
    }
};

// In the order in which an agent creates them, each segment before the set that guards it.
inline constexpr shared_object SHARED_OBJECTS[] = {
    {"TRAN_LOGF_QUE_INFO_SHMKEY", object_kind::segment, sizeof(TRAN_LOGF_QUE_INFO),
     "runtime settings", false},
    {"NOTI_SEND_QUE_SHMKEY", object_kind::segment, sizeof(NOTI_SEND_QUE_POOL), "notification queue",
     false},
    {"NOTI_SEND_QUE_SEMKEY", object_kind::semaphores, 1, "notification queue", false},
    {"SVC_HASH_TBL_SHMKEY", object_kind::segment, sizeof(SVC_HASH_TBL), "service table", false},
    {"SVC_HASH_TBL_SEMKEY", object_kind::semaphores, 1, "service table", false},
    {"PTRC_HASH_TBL_SHMKEY", object_kind::segment, sizeof(PTRC_HASH_TBL), "trace table", false},
    {"PTRC_HASH_TBL_SEMKEY", object_kind::semaphores, 1, "trace table", false},
    {"JCACHE_HASH_TBL_SHMKEY", object_kind::segment, sizeof(JCACHE_HASH_TBL), "cache table", false},
    {"JCACHE_HASH_TBL_SEMKEY", object_kind::semaphores, 1, "cache table", false},
    {"TRAN_AGT_SHMKEY", object_kind::segment, sizeof(TRAN_AGT_SHM), "agent segment", false},
    {"TRAN_AGT_SEMKEY", object_kind::semaphores, TRAN_AGT_SEM_COUNT, "agent segment", false},
    {"PARSE_LOG_QUE_SHMKEY", object_kind::segment, sizeof(PARSE_LOG_QUE_POOL), "parse-log queues",
     true},
    {"PARSE_LOG_QUE_SEMKEY", object_kind::semaphores, PARSE_LOG_QUE_POOL_SIZE, "parse-log queues",
     true},
};

inline constexpr const shared_object& SETTINGS_SEGMENT = SHARED_OBJECTS[0];
inline constexpr const shared_object& NOTI_QUEUE = SHARED_OBJECTS[1];
inline constexpr const shared_object& SERVICE_TABLE = SHARED_OBJECTS[3];
inline constexpr const shared_object& TRACE_TABLE = SHARED_OBJECTS[5];
inline constexpr const shared_object& CACHE_TABLE = SHARED_OBJECTS[7];
inline constexpr const shared_object& AGENT_SEGMENT = SHARED_OBJECTS[9];
inline constexpr const shared_object& PARSE_QUEUES = SHARED_OBJECTS[11];

} // namespace kessctl
