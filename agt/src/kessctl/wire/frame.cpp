// Command messages by name.
#include "wire/frame.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "field.h"
#include "wire/text.h"

namespace kessctl {

#define TEXT(record, member)                                                                       \
    { #member, offsetof(record, member), sizeof(record::member), 0, nullptr }
#define GROUP(record, member, items)                                                               \
    {                                                                                              \
#member, offsetof(record, member), sizeof(record::member[0]),                              \
            sizeof(record::member) / sizeof(record::member[0]), items                              \
    }
#define END_OF_ITEMS                                                                               \
    { nullptr, 0, 0, 0, nullptr }

const item ACTIVE_SERVICE_ITEMS[] = {
    TEXT(ACTIVE_SERVICE_DETAIL, tr_cd),
    TEXT(ACTIVE_SERVICE_DETAIL, host_name),
    TEXT(ACTIVE_SERVICE_DETAIL, service_id),
    TEXT(ACTIVE_SERVICE_DETAIL, tr_section),
    TEXT(ACTIVE_SERVICE_DETAIL, gid),
    TEXT(ACTIVE_SERVICE_DETAIL, pid),
    TEXT(ACTIVE_SERVICE_DETAIL, tid),
    TEXT(ACTIVE_SERVICE_DETAIL, proc_nm),
    TEXT(ACTIVE_SERVICE_DETAIL, call_trc_depth),
    TEXT(ACTIVE_SERVICE_DETAIL, call_seq),
    TEXT(ACTIVE_SERVICE_DETAIL, call_func1),
    TEXT(ACTIVE_SERVICE_DETAIL, call_func2),
    TEXT(ACTIVE_SERVICE_DETAIL, call_sql_id),
    TEXT(ACTIVE_SERVICE_DETAIL, svc_logdt),
    TEXT(ACTIVE_SERVICE_DETAIL, svc_elapsed_time),
    TEXT(ACTIVE_SERVICE_DETAIL, func_logdt),
    TEXT(ACTIVE_SERVICE_DETAIL, func_elapsed_time),
    END_OF_ITEMS,
};

namespace {

const item QUE_STAT_ITEMS[] = {
    TEXT(QUE_STAT_STR, in_qcnt),
    TEXT(QUE_STAT_STR, in_discard_qcnt),
    TEXT(QUE_STAT_STR, out_qcnt),
    TEXT(QUE_STAT_STR, out_discard_qcnt),
    TEXT(QUE_STAT_STR, cur_qcnt),
    TEXT(QUE_STAT_STR, log_hashtbl_used_pcnt),
    END_OF_ITEMS,
};
const item API_STAT_ITEMS[] = {
    TEXT(API_STAT_STR, sw_type),  TEXT(API_STAT_STR, total_cnt), TEXT(API_STAT_STR, init_cnt),
    TEXT(API_STAT_STR, miss_cnt), TEXT(API_STAT_STR, miss_info), END_OF_ITEMS,
};
const item SERVICE_ITEMS[] = {
    TEXT(SERVICE_ELEMENT, host_name),      TEXT(SERVICE_ELEMENT, server_id),
    TEXT(SERVICE_ELEMENT, service_id),     TEXT(SERVICE_ELEMENT, call_trc_depth),
    TEXT(SERVICE_ELEMENT, call_trc_limit), TEXT(SERVICE_ELEMENT, dbio_trc_limit),
    TEXT(SERVICE_ELEMENT, sql_trc_limit),  TEXT(SERVICE_ELEMENT, limit),
    TEXT(SERVICE_ELEMENT, uflag_set),      TEXT(SERVICE_ELEMENT, tflag),
    TEXT(SERVICE_ELEMENT, update_mode),    END_OF_ITEMS,
};
const item SERVICE_SMALL_ITEMS[] = {
    TEXT(SERVICE_SMALL, host_name),
    TEXT(SERVICE_SMALL, service_id),
    TEXT(SERVICE_SMALL, limit),
    END_OF_ITEMS,
};

const item HEALTH_CHECK_REQ_ITEMS[] = {
    TEXT(BODY_HEALTH_CHECK_REQ, host_name),
    TEXT(BODY_HEALTH_CHECK_REQ, ipaddr),
    TEXT(BODY_HEALTH_CHECK_REQ, port),
    TEXT(BODY_HEALTH_CHECK_REQ, log_interface),
    TEXT(BODY_HEALTH_CHECK_REQ, log_flag_set),
    TEXT(BODY_HEALTH_CHECK_REQ, log_qcnt),
    TEXT(BODY_HEALTH_CHECK_REQ, log_onoff),
    TEXT(BODY_HEALTH_CHECK_REQ, sfilter_onoff),
    TEXT(BODY_HEALTH_CHECK_REQ, call_trc_depth),
    TEXT(BODY_HEALTH_CHECK_REQ, call_trc_limit),
    TEXT(BODY_HEALTH_CHECK_REQ, dbio_trc_limit),
    TEXT(BODY_HEALTH_CHECK_REQ, sql_trc_limit),
    TEXT(BODY_HEALTH_CHECK_REQ, api_shm_nattch),
    TEXT(BODY_HEALTH_CHECK_REQ, svc_shm_nattch),
    TEXT(BODY_HEALTH_CHECK_REQ, svc_list_cnt),
    TEXT(BODY_HEALTH_CHECK_REQ, api_log),
    TEXT(BODY_HEALTH_CHECK_REQ, rell_log),
    TEXT(BODY_HEALTH_CHECK_REQ, engine_sts),
    TEXT(BODY_HEALTH_CHECK_REQ, init_proc_num),
    TEXT(BODY_HEALTH_CHECK_REQ, ptrc_hashtbl_used_pcnt),
    TEXT(BODY_HEALTH_CHECK_REQ, jcache_hashtbl_used_pcnt),
    GROUP(BODY_HEALTH_CHECK_REQ, que_stat, QUE_STAT_ITEMS),
    GROUP(BODY_HEALTH_CHECK_REQ, api_stat, API_STAT_ITEMS),
    TEXT(BODY_HEALTH_CHECK_REQ, sys_time),
    TEXT(BODY_HEALTH_CHECK_REQ, chk_msg),
    END_OF_ITEMS,
};
const item HEALTH_CHECK_RSP_ITEMS[] = {
    TEXT(BODY_HEALTH_CHECK_RSP, result_code),
    TEXT(BODY_HEALTH_CHECK_RSP, svr_gap_time),
    END_OF_ITEMS,
};
const item DEVICE_INFO_REQ_ITEMS[] = {
    TEXT(BODY_DEVICE_INFO_REQ, host_name),
    TEXT(BODY_DEVICE_INFO_REQ, os_info),
    TEXT(BODY_DEVICE_INFO_REQ, core_cnt),
    TEXT(BODY_DEVICE_INFO_REQ, mem_total),
    END_OF_ITEMS,
};
const item RENEW_REQ_ITEMS[] = {TEXT(BODY_RENEW_SERVICE_LIST_REQ, ipaddr), END_OF_ITEMS};
const item GET_SERVICE_LIST_REQ_ITEMS[] = {TEXT(BODY_GET_SERVICE_LIST_REQ, host_name),
                                           END_OF_ITEMS};
const item GET_SERVICE_LIST_RSP_ITEMS[] = {
    TEXT(BODY_GET_SERVICE_LIST_RSP, result_code),
    TEXT(BODY_GET_SERVICE_LIST_RSP, element_num),
    GROUP(BODY_GET_SERVICE_LIST_RSP, elements, SERVICE_ITEMS),
    END_OF_ITEMS,
};
const item UPDATE_SERVICE_LIST_REQ_ITEMS[] = {
    TEXT(BODY_UPDATE_SERVICE_LIST_REQ, result_code),
    TEXT(BODY_UPDATE_SERVICE_LIST_REQ, element_num),
    GROUP(BODY_UPDATE_SERVICE_LIST_REQ, elements, SERVICE_SMALL_ITEMS),
    END_OF_ITEMS,
};
const item SET_MODIFIED_SERVICE_REQ_ITEMS[] = {
    TEXT(BODY_SET_MODIFIED_SERVICE_REQ, element_num),
    GROUP(BODY_SET_MODIFIED_SERVICE_REQ, elements, SERVICE_ITEMS),
    END_OF_ITEMS,
};
const item SET_SYS_RESOURCE_SET_REQ_ITEMS[] = {
    TEXT(BODY_SET_SYS_RESOURCE_SET_REQ, cpu_alert_sec),
    TEXT(BODY_SET_SYS_RESOURCE_SET_REQ, cpu_alert_pcnt),
    TEXT(BODY_SET_SYS_RESOURCE_SET_REQ, file_sys_alert_pcnt),
    TEXT(BODY_SET_SYS_RESOURCE_SET_REQ, file_sys_list),
    END_OF_ITEMS,
};
const item SET_SYS_CONFIG_SET_REQ_ITEMS[] = {
    TEXT(BODY_SET_SYS_CONFIG_SET_REQ, ipaddr),
    TEXT(BODY_SET_SYS_CONFIG_SET_REQ, log_flag_set),
    TEXT(BODY_SET_SYS_CONFIG_SET_REQ, log_qcnt),
    TEXT(BODY_SET_SYS_CONFIG_SET_REQ, log_onoff),
    TEXT(BODY_SET_SYS_CONFIG_SET_REQ, sfilter_onoff),
    TEXT(BODY_SET_SYS_CONFIG_SET_REQ, call_trc_depth),
    TEXT(BODY_SET_SYS_CONFIG_SET_REQ, call_trc_limit),
    TEXT(BODY_SET_SYS_CONFIG_SET_REQ, dbio_trc_limit),
    TEXT(BODY_SET_SYS_CONFIG_SET_REQ, sql_trc_limit),
    END_OF_ITEMS,
};
const item NOTIFY_REQ_ITEMS[] = {
    TEXT(BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ, element_num),
    GROUP(BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ, elements, ACTIVE_SERVICE_ITEMS),
    END_OF_ITEMS,
};
// The responses that carry a result, and those that also count elements, have one shape each.
const item RESULT_ITEMS[] = {TEXT(BODY_DEVICE_INFO_RSP, result_code), END_OF_ITEMS};
const item RESULT_AND_COUNT_ITEMS[] = {
    TEXT(BODY_SET_MODIFIED_SERVICE_RSP, result_code),
    TEXT(BODY_SET_MODIFIED_SERVICE_RSP, element_num),
    END_OF_ITEMS,
};
// Lies over the header; these fields have no terminator.
const item EXT_REQ_ITEMS[] = {
    {"request_code", EXT_REQ_CODE_AT, EXT_REQ_CODE_SIZE + 1, 0, nullptr},
    {"pdu", EXT_REQ_PDU_AT, 2, 0, nullptr},
    {"data", EXT_REQ_DATA_AT, sizeof(TCP_CMD_MSG) - EXT_REQ_DATA_AT + 1, 0, nullptr},
    END_OF_ITEMS,
};

#undef TEXT
#undef GROUP
#undef END_OF_ITEMS

struct message {
    char code;
    const char* name;
    const item* items;
    std::size_t record_at = offsetof(TCP_CMD_MSG, body);
};

// In the order of the codes: a response follows its request.
const message MESSAGES[] = {
    {MSG_HEALTH_CHECK_REQ, "HEALTH_CHECK_REQ", HEALTH_CHECK_REQ_ITEMS},
    {MSG_HEALTH_CHECK_RSP, "HEALTH_CHECK_RSP", HEALTH_CHECK_RSP_ITEMS},
    {MSG_RENEW_SERVICE_LIST_REQ, "RENEW_SERVICE_LIST_REQ", RENEW_REQ_ITEMS},
    {MSG_RENEW_SERVICE_LIST_RSP, "RENEW_SERVICE_LIST_RSP", RESULT_ITEMS},
    {MSG_GET_SERVICE_LIST_REQ, "GET_SERVICE_LIST_REQ", GET_SERVICE_LIST_REQ_ITEMS},
    {MSG_GET_SERVICE_LIST_RSP, "GET_SERVICE_LIST_RSP", GET_SERVICE_LIST_RSP_ITEMS},
    {MSG_GET_SERVICE_LIST_RSPACK, "GET_SERVICE_LIST_RSPACK", RESULT_ITEMS},
    {MSG_SET_SYS_CONFIG_SET_REQ, "SET_SYS_CONFIG_SET_REQ", SET_SYS_CONFIG_SET_REQ_ITEMS},
    {MSG_SET_SYS_CONFIG_SET_RSP, "SET_SYS_CONFIG_SET_RSP", RESULT_ITEMS},
    {MSG_UPDATE_SERVICE_LIST_REQ, "UPDATE_SERVICE_LIST_REQ", UPDATE_SERVICE_LIST_REQ_ITEMS},
    {MSG_UPDATE_SERVICE_LIST_RSP, "UPDATE_SERVICE_LIST_RSP", RESULT_ITEMS},
    {MSG_SET_MODIFIED_SERVICE_REQ, "SET_MODIFIED_SERVICE_REQ", SET_MODIFIED_SERVICE_REQ_ITEMS},
    {MSG_SET_MODIFIED_SERVICE_RSP, "SET_MODIFIED_SERVICE_RSP", RESULT_AND_COUNT_ITEMS},
    {MSG_SET_SYS_RESOURCE_SET_REQ, "SET_SYS_RESOURCE_SET_REQ", SET_SYS_RESOURCE_SET_REQ_ITEMS},
    {MSG_SET_SYS_RESOURCE_SET_RSP, "SET_SYS_RESOURCE_SET_RSP", RESULT_ITEMS},
    {MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ, "NOTIFY_ACTIVE_SERVICE_DETAIL_REQ", NOTIFY_REQ_ITEMS},
    {MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP, "NOTIFY_ACTIVE_SERVICE_DETAIL_RSP",
     RESULT_AND_COUNT_ITEMS},
    {MSG_DEVICE_INFO_REQ, "DEVICE_INFO_REQ", DEVICE_INFO_REQ_ITEMS},
    {MSG_DEVICE_INFO_RSP, "DEVICE_INFO_RSP", RESULT_ITEMS},
    {MSG_EXT_REQ, "EXT_REQ", EXT_REQ_ITEMS, 0},
};

const message* find_message(char type) {
    const auto found = std::find_if(std::begin(MESSAGES), std::end(MESSAGES),
                                    [type](const message& row) { return row.code == type; });
    return found == std::end(MESSAGES) ? nullptr : found;
}

// How many records of a group are valid: those that the element_num just decoded counts, all
// without one.
std::size_t valid_records(const item& group, const std::vector<field_value>& decoded) {
    if (std::string_view(group.name) != "elements" || decoded.empty())
        return group.count;
    const long counted = std::strtol(decoded.back().text.c_str(), nullptr, 10);
    return static_cast<std::size_t>(std::clamp(counted, 0L, static_cast<long>(group.count)));
}

} // namespace

TCP_CMD_MSG start_frame(char type) {
    constexpr unsigned char magic[] = TCP_CMD_MAGIC_BYTES;
    TCP_CMD_MSG frame{};
    std::memcpy(frame.hdr.magic_bit, magic, sizeof magic);
    frame.hdr.msg_type[0] = type;
    return frame;
}

const char* message_name(char type) {
    const message* row = find_message(type);
    return row == nullptr ? "UNKNOWN" : row->name;
}

bool is_request(char type) {
    return std::string_view(message_name(type)).ends_with("_REQ");
}

char response_type(char type) {
    const message* row = find_message(type);
    return row == nullptr || !is_request(type) || type == MSG_EXT_REQ ? '\0' : row[1].code;
}

void decode_record(const item* items, const char* bytes, const std::string& prefix,
                   std::vector<field_value>& out) {
    for (const item* member = items; member->name != nullptr; ++member) {
        if (member->inside == nullptr) {
            out.push_back({prefix + member->name, trimmed(bytes + member->at, member->size - 1)});
            continue;
        }
        const std::size_t valid = valid_records(*member, out);
        for (std::size_t i = 0; i < valid; ++i)
            decode_record(member->inside, bytes + member->at + i * member->size,
                          prefix + member->name + "[" + std::to_string(i) + "].", out);
    }
}

std::vector<field_value> decode(const TCP_CMD_MSG& frame) {
    std::vector<field_value> values;
    const message* row = find_message(frame.hdr.msg_type[0]);
    if (row != nullptr)
        decode_record(row->items, reinterpret_cast<const char*>(&frame) + row->record_at, "",
                      values);
    return values;
}

std::string field_text(const TCP_CMD_MSG& frame, std::string_view name) {
    for (field_value& value : decode(frame))
        if (value.name == name)
            return std::move(value.text);
    return {};
}

TCP_CMD_MSG modified_services_frame(const SERVICE_ELEMENT* services, std::size_t count) {
    TCP_CMD_MSG frame = start_frame(MSG_SET_MODIFIED_SERVICE_REQ);
    BODY_SET_MODIFIED_SERVICE_REQ& body = frame.body.set_modified_service_req;
    count = std::min<std::size_t>(count, SERVICE_ELEMENT_MAX);
    agt::put_number(body.element_num, static_cast<long>(count));
    std::copy_n(services, count, body.elements);
    return frame;
}

TCP_CMD_MSG service_block_frame(const SERVICE_ELEMENT* services, std::size_t count, bool last) {
    TCP_CMD_MSG frame = start_frame(MSG_GET_SERVICE_LIST_RSP);
    BODY_GET_SERVICE_LIST_RSP& body = frame.body.get_service_list_rsp;
    count = std::min<std::size_t>(count, SERVICE_ELEMENT_MAX);
    body.result_code[0] = last ? '5' : '0';
    agt::put_number(body.element_num, static_cast<long>(count));
    std::copy_n(services, count, body.elements);
    return frame;
}

} // namespace kessctl
