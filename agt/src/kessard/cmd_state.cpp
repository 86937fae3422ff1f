// What the commands change, as text.
#include "cmd_state.h"

#include <algorithm>

#include "field.h"
#include "set_svc_hash_tbl.h"
#include "shared_field.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"

namespace kessard {
namespace {

std::string service_text(const SERVICE_ELEMENT& element) {
    const SVC_HASH_ARR_LIST* slot = find_svc_hash_tbl(element.service_id);
    if (slot == nullptr)
        return "absent";
    const SVC_HASH_ARR& is = slot->param;
    return std::to_string(is.limit) + "s/" +
           get_log_flag_set_str(static_cast<unsigned char>(is.uflag_set)) + "/" +
           std::to_string(is.tflag) + "/" + std::to_string(is.call_trc_depth) + "/" +
           std::to_string(is.call_trc_limit) + "/" + std::to_string(is.dbio_trc_limit) + "/" +
           std::to_string(is.sql_trc_limit);
}

} // namespace

state_fields settings_state(const TCP_CMD_MSG&) {
    return {{"log_flags", get_log_flag_set_str(get_log_flag_set())},
            {"log_qcnt", std::to_string(get_tran_logf_qcnt())},
            {"magic", std::to_string(static_cast<unsigned int>(get_magic_code()))},
            {"sfilter", std::to_string(get_svc_filtering())},
            {"call_trc_depth", std::to_string(get_call_trc_depth())},
            {"call_trc_limit", std::to_string(get_call_trc_limit())},
            {"dbio_trc_limit", std::to_string(get_dbio_trc_limit())},
            {"sql_trc_limit", std::to_string(get_sql_trc_limit())}};
}

state_fields resource_state(const TCP_CMD_MSG&) {
    state_fields fields = {
        {"cpu_alert_sec", std::to_string(agt::shared_load(tran_agt_shm->cpu.alert_sec))},
        {"cpu_alert_pcnt", std::to_string(agt::shared_load(tran_agt_shm->cpu.alert_pcnt))},
        {"file_systems", ""}};
    const int rows =
        std::clamp(agt::shared_load(tran_agt_shm->file_sys_num), 0, int{FILE_SYSTEM_MAX});
    for (int i = 0; i < rows; ++i) {
        const FILE_SYSTEM& row = tran_agt_shm->file_system[i];
        fields.back().second += (i == 0 ? "" : ",") +
                                std::string(agt::field_text(row.file_system)) + ":" +
                                std::to_string(row.alert_pcnt);
    }
    return fields;
}

state_fields service_state(const TCP_CMD_MSG& request) {
    const auto& body = request.body.set_modified_service_req;
    const int n = std::clamp(agt::get_number(body.element_num), 0, int{SERVICE_ELEMENT_MAX});
    state_fields fields;
    for (const SERVICE_ELEMENT* one = body.elements; one != body.elements + n; ++one)
        fields.emplace_back(std::string(agt::field_text(one->service_id)), service_text(*one));
    return fields;
}

std::string effect_text(const state_fields& before, const state_fields& after) {
    std::string text;
    for (std::size_t i = 0; i < after.size(); ++i) {
        const auto& [name, value] = after[i];
        text += " " + name + "=" + value;
        if (i < before.size() && before[i].second != value)
            text.insert(text.size() - value.size(), before[i].second + "->");
    }
    return text;
}

} // namespace kessard
