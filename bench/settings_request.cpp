// The request that the command rows send.
#include "settings_request.h"

#include "wire/frame.h"
#include "wire/text.h"

namespace bench {

TCP_CMD_MSG settings_request() {
    TCP_CMD_MSG request = kessctl::start_frame(MSG_SET_SYS_CONFIG_SET_REQ);
    BODY_SET_SYS_CONFIG_SET_REQ& body = request.body.set_sys_config_set_req;
    kessctl::put_field(body.ipaddr, sizeof body.ipaddr, "127.0.0.1");
    kessctl::put_field(body.log_flag_set, sizeof body.log_flag_set, "SEVBCIXQ");
    kessctl::put_field(body.log_qcnt, sizeof body.log_qcnt, "8");
    kessctl::put_field(body.log_onoff, sizeof body.log_onoff, "1");
    kessctl::put_field(body.sfilter_onoff, sizeof body.sfilter_onoff, "0");
    kessctl::put_field(body.call_trc_depth, sizeof body.call_trc_depth, "100");
    kessctl::put_field(body.call_trc_limit, sizeof body.call_trc_limit, "1000");
    kessctl::put_field(body.dbio_trc_limit, sizeof body.dbio_trc_limit, "1000");
    kessctl::put_field(body.sql_trc_limit, sizeof body.sql_trc_limit, "1000");
    return request;
}

} // namespace bench
