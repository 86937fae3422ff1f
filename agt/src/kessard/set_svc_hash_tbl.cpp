// The service table.
#include "set_svc_hash_tbl.h"

#include <cstring>

#include "field.h"
#include "hash_chain.h"
#include "log_printf.h"
#include "open_object.h"
#include "printable.h"
#include "settings.h"
#include "svc_hash_stk.h"
#include "tran_logf_que_info.h"

namespace kessard {

SVC_HASH_TBL* svc_hash_tbl = nullptr;
int svc_hash_tbl_semid = -1;

namespace {

agt::chain_place find_service(int bucket, const char* service_id) {
    return agt::find_in_chain(*svc_hash_tbl, bucket, [service_id](const SVC_HASH_ARR& param) {
        return std::memcmp(param.service_id, service_id, SVC_HASH_KEY_SIZE) == 0;
    });
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

SVC_HASH_ARR_LIST* delete_slot(int index) {
    SVC_HASH_ARR_LIST* slot = &svc_hash_tbl->h_arr[index];
    agt::log_printf("(I) delete array_idx : %d", static_cast<int>(slot->my_idx));
    agt::unlink_from_chain(*svc_hash_tbl, index);
    svc_hash_push(&svc_hash_tbl->available, static_cast<unsigned int>(index));
    svc_hash_popv(&svc_hash_tbl->used, static_cast<unsigned int>(index));
    agt::shared_store(svc_hash_tbl->alloc_cnt, agt::shared_load(svc_hash_tbl->alloc_cnt) - 1);
    return slot;
}

SVC_HASH_ARR_LIST* insert_slot(int bucket, int tail, const SERVICE_ELEMENT& element) {
    const int index = svc_hash_pop(&svc_hash_tbl->available);
    if (!agt::is_slot<SVC_HASH_TBL>(index))
        return nullptr;
    SVC_HASH_ARR_LIST* slot = &svc_hash_tbl->h_arr[index];
    fill_param(&slot->param, element);
    agt::append_to_chain(*svc_hash_tbl, bucket, index, tail);
    svc_hash_push(&svc_hash_tbl->used, static_cast<unsigned int>(index));
    agt::shared_store(svc_hash_tbl->alloc_cnt, agt::shared_load(svc_hash_tbl->alloc_cnt) + 1);
    return slot;
}

SVC_HASH_ARR_LIST* change_slot(int index, const SERVICE_ELEMENT& element) {
    SVC_HASH_ARR_LIST* slot = &svc_hash_tbl->h_arr[index];
    const char mode = element.update_mode[0];
    agt::log_printf("<!> service_id(%s) is already exist, update_mode : '%s'",
                    agt::printable(element.service_id).c_str(), agt::printable(mode).c_str());
    switch (mode) {
    case 'A':
    case 'X':
        return slot;
    case 'D':
        return delete_slot(index);
    case 'Y':
        fill_param(&slot->param, element);
        return slot;
    default:
        return nullptr;
    }
}

} // namespace

bool open_svc_hash_tbl() {
    const table_objects objects = {agt::SERVICE_TABLE, agt::SERVICE_TABLE_SEM, svc_hash_tbl_shmkey,
                                   svc_hash_tbl_semkey};
    opened_table opened;
    if (!open_table(objects, &opened))
        return false;
    svc_hash_tbl = static_cast<SVC_HASH_TBL*>(opened.segment.address);
    svc_hash_tbl_semid = opened.semaphores.id;
    if (opened.segment.existed || opened.segment.id == 0 ||
        fill_new_table(objects, opened, init_svc_hash_tbl))
        log_object_complete(objects.segment, objects.shmkey, opened.segment.existed);
    log_unsound_table(objects, opened, *svc_hash_tbl);
    return true;
}

int init_svc_hash_tbl() {
    agt::clear_hash_tbl(*svc_hash_tbl);
    return 1;
}

const SVC_HASH_ARR_LIST* find_svc_hash_tbl(const char* service_id) {
    const int bucket = agt::bucket_of<SVC_HASH_TBL>(service_id, SVC_HASH_KEY_SIZE);
    const int slot = find_service(bucket, service_id).slot;
    return slot == agt::NO_SLOT ? nullptr : &svc_hash_tbl->h_arr[slot];
}

SVC_HASH_ARR_LIST* set_svc_hash_tbl(const SERVICE_ELEMENT* element) {
    const int bucket = agt::bucket_of<SVC_HASH_TBL>(element->service_id, SVC_HASH_KEY_SIZE);
    const agt::chain_place place = find_service(bucket, element->service_id);
    if (place.slot != agt::NO_SLOT)
        return change_slot(place.slot, *element);
    if (element->update_mode[0] == 'D')
        return nullptr;
    return insert_slot(bucket, place.tail, *element);
}

} // namespace kessard
