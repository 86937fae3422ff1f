// The System V objects of an agent: where the configuration names their keys, how large they are,
// what they are called. The daemon makes them, the console looks at them.
#pragma once

#include <cstddef>

#include "config_keys.h"
#include "kessard/jcache_hash_tbl.h"
#include "kessard/noti_send_que.h"
#include "kessard/parse_log_que.h"
#include "kessard/ptrc_hash_tbl.h"
#include "kessard/svc_hash_tbl.h"
#include "kessard/tran_agt_shm.h"
#include "kessard/tran_logf_que_info.h"

namespace agt {

enum class object_kind { segment, semaphores };

struct shared_object {
    const char* keyword; // of its key
    object_kind kind;
    std::size_t size;           // bytes of a segment, semaphores of a set
    const char* log_name;       // in the log lines that say it was made
    const char* name;           // for people
    bool watchdog_only = false; // not there while the worker watchdog is off

    constexpr const config_key& key() const {
        return CONFIG_KEYS[config_key_index(
            kind == object_kind::segment ? "IPC_SHARED_MEMORY" : "IPC_SEMAPHORE", keyword)];
    }
    constexpr const char* unit() const {
        return kind == object_kind::segment ? "bytes" : "semaphores";
    }
};

inline constexpr shared_object SETTINGS_SEGMENT = {"TRAN_LOGF_QUE_INFO_SHMKEY",
                                                   object_kind::segment, sizeof(TRAN_LOGF_QUE_INFO),
                                                   "tran_logf_que_info", "runtime settings"};
inline constexpr shared_object NOTI_QUEUE = {"NOTI_SEND_QUE_SHMKEY", object_kind::segment,
                                             sizeof(NOTI_SEND_QUE_POOL), "noti_send_que",
                                             "notification queue"};
inline constexpr shared_object NOTI_QUEUE_SEM = {"NOTI_SEND_QUE_SEMKEY", object_kind::semaphores, 1,
                                                 "noti_send_que semaphore", "notification queue"};
inline constexpr shared_object SERVICE_TABLE = {"SVC_HASH_TBL_SHMKEY", object_kind::segment,
                                                sizeof(SVC_HASH_TBL), "svc_hash_tbl",
                                                "service table"};
inline constexpr shared_object SERVICE_TABLE_SEM = {"SVC_HASH_TBL_SEMKEY", object_kind::semaphores,
                                                    1, "svc_hash_tbl semaphore", "service table"};
inline constexpr shared_object TRACE_TABLE = {"PTRC_HASH_TBL_SHMKEY", object_kind::segment,
                                              sizeof(PTRC_HASH_TBL), "ptrc_hash_tbl",
                                              "trace table"};
inline constexpr shared_object TRACE_TABLE_SEM = {"PTRC_HASH_TBL_SEMKEY", object_kind::semaphores,
                                                  1, "ptrc_hash_tbl semaphore", "trace table"};
inline constexpr shared_object CACHE_TABLE = {"JCACHE_HASH_TBL_SHMKEY", object_kind::segment,
                                              sizeof(JCACHE_HASH_TBL), "jcache_hash_tbl",
                                              "cache table"};
inline constexpr shared_object CACHE_TABLE_SEM = {"JCACHE_HASH_TBL_SEMKEY", object_kind::semaphores,
                                                  1, "jcache_hash_tbl semaphore", "cache table"};
inline constexpr shared_object AGENT_SEGMENT = {
    "TRAN_AGT_SHMKEY", object_kind::segment, sizeof(TRAN_AGT_SHM), "tran_agt_shm", "agent segment"};
inline constexpr shared_object AGENT_SEMAPHORES = {"TRAN_AGT_SEMKEY", object_kind::semaphores,
                                                   TRAN_AGT_SEM_COUNT, "tran agent semaphore",
                                                   "agent segment"};
inline constexpr shared_object PARSE_QUEUES = {"PARSE_LOG_QUE_SHMKEY",     object_kind::segment,
                                               sizeof(PARSE_LOG_QUE_POOL), "parse_log_que",
                                               "parse-log queues",         true};
inline constexpr shared_object PARSE_QUEUES_SEM = {
    "PARSE_LOG_QUE_SEMKEY",    object_kind::semaphores, PARSE_LOG_QUE_POOL_SIZE,
    "parse_log_que semaphore", "parse-log queues",      true};

// All of them, in the order in which an agent creates them, each segment before the set that guards
// it.
inline constexpr const shared_object* SHARED_OBJECTS[] = {
    &SETTINGS_SEGMENT, &NOTI_QUEUE,      &NOTI_QUEUE_SEM,   &SERVICE_TABLE,   &SERVICE_TABLE_SEM,
    &TRACE_TABLE,      &TRACE_TABLE_SEM, &CACHE_TABLE,      &CACHE_TABLE_SEM, &AGENT_SEGMENT,
    &AGENT_SEMAPHORES, &PARSE_QUEUES,    &PARSE_QUEUES_SEM,
};
static_assert([] {
    for (const shared_object* object : SHARED_OBJECTS)
        if (object->keyword != std::string_view(object->key().keyword))
            return false;
    return true;
}());

// The place of an object there.
constexpr int row_of(const shared_object& object) {
    int row = 0;
    while (SHARED_OBJECTS[row] != &object)
        ++row;
    return row;
}

} // namespace agt
