/* The contract headers are valid C11: their assertions of sizes and offsets hold there too. */
#include "kessard/cmd_msg.h"
#include "kessard/jcache_hash_tbl.h"
#include "kessard/noti_send_que.h"
#include "kessard/parse_log_que.h"
#include "kessard/ptrc_hash_tbl.h"
#include "kessard/state_file.h"
#include "kessard/svc_hash_tbl.h"
#include "kessard/tran_agt_shm.h"
#include "kessard/tran_logf_que_info.h"

const unsigned long contract_bytes = sizeof(TCP_CMD_MSG) + sizeof(TRAN_AGT_SHM);
