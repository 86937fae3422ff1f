// The service table.
//
// Chains are walked with every index checked and with no more steps than there are slots: another
// process may have left anything in the segment.
#include "set_svc_hash_tbl.h"

#include <cstring>

#include "field.h"
#include "hash.h"
#include "log_printf.h"
#include "settings.h"
#include "svc_hash_stk.h"
#include "tran_logf_que_info.h"

namespace kessard {

SVC_HASH_TBL* svc_hash_tbl = nullptr;
int svc_hash_tbl_semid = -1;

namespace {

bool is_slot(int index) {
    return index >= 0 && index < SVC_HASH_SLOTS;
}

SVC_HASH_ARR_LIST* slot_at(int index) {
    return is_slot(index) ? &svc_hash_tbl->h_arr[index] : nullptr;
}

int bucket_of(const char* service_id) {
    return static_cast<int>(agt::get_hidx(service_id, SVC_HASH_KEY_SIZE, SVC_HASH_BUCKETS - 1));
}

struct chain_place {
    SVC_HASH_ARR_LIST* match; // null when the service is not in the chain
    SVC_HASH_ARR_LIST* last;  // last slot visited, null in an empty chain
};

chain_place find_in_chain(int bucket, const char* service_id) {
    chain_place place = {nullptr, nullptr};
    SVC_HASH_ARR_LIST* slot = slot_at(svc_hash_tbl->h_idx[bucket]);
    for (int steps = 0; slot != nullptr && steps < SVC_HASH_SLOTS; ++steps) {
        place.last = slot;
        if (std::memcmp(slot->param.service_id, service_id, SVC_HASH_KEY_SIZE) == 0) {
            place.match = slot;
            return place;
        }
        slot = slot_at(slot->next_idx);
    }
    return place;
}

// Copies the first N-1 bytes, so that the last byte of the array keeps its zero.
template <std::size_t N> void copy_bytes(char (&out)[N], const char (&in)[N]) {
    std::memcpy(out, in, N - 1);
}

void fill_param(SVC_HASH_ARR* param, const SERVICE_ELEMENT& element) {
    copy_bytes(param->host_name, element.host_name);
    copy_bytes(param->server_id, element.server_id);
    copy_bytes(param->service_id, element.service_id);
    param->call_trc_depth = agt::get_number(element.call_trc_depth);
    param->call_trc_limit = agt::get_number(element.call_trc_limit);
    param->dbio_trc_limit = agt::get_number(element.dbio_trc_limit);
    param->sql_trc_limit = agt::get_number(element.sql_trc_limit);
    const int limit = agt::get_number(element.limit);
    param->limit = limit < 1 ? default_timeout_sec : limit;
    param->uflag_set = static_cast<char>(get_log_flag_set_char(agt::field_text(element.uflag_set)));
    param->tflag = static_cast<char>(agt::get_number(element.tflag));
}

void unlink_slot(SVC_HASH_ARR_LIST* slot) {
    SVC_HASH_ARR_LIST* before = slot_at(slot->pre_idx);
    SVC_HASH_ARR_LIST* after = slot_at(slot->next_idx);
    if (before != nullptr)
        before->next_idx = slot->next_idx;
    else if (slot->hash_idx >= 0 && slot->hash_idx < SVC_HASH_BUCKETS)
        // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the slot lies in the table
        svc_hash_tbl->h_idx[slot->hash_idx] = slot->next_idx;
    if (after != nullptr)
        after->pre_idx = slot->pre_idx;
}

SVC_HASH_ARR_LIST* delete_slot(SVC_HASH_ARR_LIST* slot) {
    agt::log_printf("(I) delete array_idx : %d", static_cast<int>(slot->my_idx));
    unlink_slot(slot);
    const auto index = static_cast<unsigned int>(slot - svc_hash_tbl->h_arr);
    svc_hash_push(&svc_hash_tbl->available, index);
    svc_hash_popv(&svc_hash_tbl->used, index);
    shared_store(svc_hash_tbl->alloc_cnt, shared_load(svc_hash_tbl->alloc_cnt) - 1);
    return slot;
}

SVC_HASH_ARR_LIST* insert_slot(int bucket, SVC_HASH_ARR_LIST* tail,
                               const SERVICE_ELEMENT& element) {
    const int index = svc_hash_pop(&svc_hash_tbl->available);
    SVC_HASH_ARR_LIST* slot = slot_at(index);
    if (slot == nullptr)
        return nullptr;
    fill_param(&slot->param, element);
    slot->my_idx = static_cast<unsigned int>(index);
    slot->hash_idx = bucket;
    slot->next_idx = -1;
    slot->pre_idx = tail == nullptr ? -1 : static_cast<int>(tail - svc_hash_tbl->h_arr);
    (tail == nullptr ? svc_hash_tbl->h_idx[bucket] : tail->next_idx) = index;
    svc_hash_push(&svc_hash_tbl->used, slot->my_idx);
    shared_store(svc_hash_tbl->alloc_cnt, shared_load(svc_hash_tbl->alloc_cnt) + 1);
    return slot;
}

SVC_HASH_ARR_LIST* change_slot(SVC_HASH_ARR_LIST* slot, const SERVICE_ELEMENT& element) {
    const char mode = element.update_mode[0];
    agt::log_printf("<!> service_id(%s) is already exist, update_mode : '%c'",
                    agt::field_text(element.service_id).text, mode);
    switch (mode) {
    case 'A':
    case 'X':
        return slot;
    case 'D':
        return delete_slot(slot);
    case 'Y':
        fill_param(&slot->param, element);
        return slot;
    default:
        return nullptr;
    }
}

} // namespace

int open_svc_hash_tbl() {
    const hash_tbl_key key = {"svc_hash_tbl", svc_hash_tbl_shmkey, svc_hash_tbl_semkey,
                              sizeof(SVC_HASH_TBL)};
    hash_tbl_object object;
    if (!open_hash_tbl(key, &object))
        return 0;
    svc_hash_tbl = static_cast<SVC_HASH_TBL*>(object.address);
    svc_hash_tbl_semid = object.semid;
    init_new_hash_tbl(key, object, init_svc_hash_tbl);
    log_hash_tbl_complete(key, object);
    return 1;
}

int init_svc_hash_tbl() {
    clear_hash_tbl(*svc_hash_tbl);
    return 1;
}

SVC_HASH_ARR_LIST* set_svc_hash_tbl(const SERVICE_ELEMENT* element) {
    const int bucket = bucket_of(element->service_id);
    const chain_place place = find_in_chain(bucket, element->service_id);
    if (place.match != nullptr)
        return change_slot(place.match, *element);
    if (element->update_mode[0] == 'D')
        return nullptr;
    return insert_slot(bucket, place.last, *element);
}

} // namespace kessard
