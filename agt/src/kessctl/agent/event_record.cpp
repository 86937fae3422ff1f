// Event records of the parse-log queue.
#include "agent/event_record.h"

#include "wire/text.h"

namespace kessctl {
namespace {

template <std::size_t N> field_value field(const char* name, const char (&bytes)[N]) {
    return {name, trimmed(bytes, N)};
}

} // namespace

std::vector<field_value> decode_event(const TRAN_LOG_FMT& record) {
    const TRAN_LOG_HDR_FMT& head = record.hdr;
    const TRAN_EVENT_BDY_FMT& event = record.bdy.evt_log;
    return {field("log_type", head.log_type),
            field("log_interface", head.log_interface),
            field("tr_section", head.tr_section),
            field("gid", head.gid),
            field("server_id", head.server_id),
            field("service_id", head.service_id),
            field("host_name", head.host_name),
            field("pid", head.pid),
            field("tid", head.tid),
            field("idx", head.idx),
            field("pidx", head.pidx),
            field("log_day", head.log_day),
            field("log_time", head.log_time),
            field("evt_id", event.evt_id),
            field("evt_tr_cd", event.evt_tr_cd),
            field("evt_info_fld", event.evt_info_fld),
            field("evt_info_str", event.evt_info_str)};
}

} // namespace kessctl
