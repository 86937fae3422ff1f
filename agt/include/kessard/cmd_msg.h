/* The command message: the fixed 1407-byte frame of all traffic between kessard and the central
 * server, and the extended request that shares its header position. Every record here is packed
 * text: alignment 1, no byte order, no length field. A field char[N] holds at most N-1 characters
 * and one terminator byte. */
#ifndef KESSARD_CMD_MSG_H
#define KESSARD_CMD_MSG_H

#include "layout.h"

enum {
    TCP_CMD_MSG_SIZE = 1407, /* bytes of every frame, whatever its body */
    SERVICE_ELEMENT_MAX = 8, /* services in one block of the service list */
    SERVICE_SMALL_MAX = 15,  /* services in one block of an upload */
    NOTIFY_ELEMENT_MAX = 2,  /* active-service records in one notification */
    MSG_QUE_STAT_MAX = 16,   /* queue rows of a health check */
    MSG_API_STAT_MAX = 2     /* API statistics rows of a health check */
};

/* The four bytes that start every frame. */
#define TCP_CMD_MAGIC_BYTES                                                                        \
    { 0x90, 0x85, 0x20, 0x83 }

/* msg_type[0]. A response takes the code that follows its request's. */
enum {
    MSG_HEALTH_CHECK_REQ = '0',                 /* agent to server */
    MSG_HEALTH_CHECK_RSP = '1',                 /* server to agent */
    MSG_RENEW_SERVICE_LIST_REQ = '2',           /* server to agent */
    MSG_RENEW_SERVICE_LIST_RSP = '3',           /* agent to server */
    MSG_GET_SERVICE_LIST_REQ = '4',             /* agent to server */
    MSG_GET_SERVICE_LIST_RSP = '5',             /* server to agent */
    MSG_GET_SERVICE_LIST_RSPACK = '6',          /* agent to server */
    MSG_SET_SYS_CONFIG_SET_REQ = '7',           /* server to agent */
    MSG_SET_SYS_CONFIG_SET_RSP = '8',           /* agent to server */
    MSG_UPDATE_SERVICE_LIST_REQ = '9',          /* agent to server */
    MSG_UPDATE_SERVICE_LIST_RSP = 'A',          /* server to agent */
    MSG_SET_MODIFIED_SERVICE_REQ = 'B',         /* server to agent */
    MSG_SET_MODIFIED_SERVICE_RSP = 'C',         /* agent to server */
    MSG_SET_SYS_RESOURCE_SET_REQ = 'D',         /* server to agent */
    MSG_SET_SYS_RESOURCE_SET_RSP = 'E',         /* agent to server */
    MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ = 'F', /* agent to server */
    MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP = 'G', /* server to agent */
    MSG_DEVICE_INFO_REQ = 'H',                  /* agent to server */
    MSG_DEVICE_INFO_RSP = 'I',                  /* server to agent */
    MSG_EXT_REQ = 0x02                          /* server to agent, see below */
};

typedef struct {
    unsigned char magic_bit[4]; /* TCP_CMD_MAGIC_BYTES */
    char msg_type[2];           /* [0] one of MSG_*, [1] always 0 from the agent */
} TCP_CMD_HDR;

/* Counters of one log queue as text; each field ends in a comma. */
typedef struct {
    char in_qcnt[6];
    char in_discard_qcnt[6];
    char out_qcnt[6];
    char out_discard_qcnt[6];
    char cur_qcnt[6];
    char log_hashtbl_used_pcnt[7];
} QUE_STAT_STR;

/* One line of the API statistics file, as read. */
typedef struct {
    char sw_type[16];
    char total_cnt[6];
    char init_cnt[6];
    char miss_cnt[6];
    char miss_info[71];
} API_STAT_STR;

typedef struct {
    char host_name[65];
    char ipaddr[16];
    char port[6];
    char log_interface[3];
    char log_flag_set[9];
    char log_qcnt[4];
    char log_onoff[2];
    char sfilter_onoff[2];
    char call_trc_depth[6];
    char call_trc_limit[11];
    char dbio_trc_limit[11];
    char sql_trc_limit[11];
    char api_shm_nattch[9];
    char svc_shm_nattch[9];
    char svc_list_cnt[9];
    char api_log[2];
    char rell_log[2];
    char engine_sts[2];
    char init_proc_num[6];
    char ptrc_hashtbl_used_pcnt[7];
    char jcache_hashtbl_used_pcnt[7];
    QUE_STAT_STR que_stat[MSG_QUE_STAT_MAX];
    API_STAT_STR api_stat[MSG_API_STAT_MAX];
    char sys_time[13]; /* local HHMMSS and six digits of microseconds */
    char chk_msg[301]; /* processes that are not in their wanted state */
} BODY_HEALTH_CHECK_REQ;

typedef struct {
    char result_code[2];
    char svr_gap_time[11];
} BODY_HEALTH_CHECK_RSP;

typedef struct {
    char host_name[65];
    char os_info[201];
    char core_cnt[6];
    char mem_total[31];
} BODY_DEVICE_INFO_REQ;

typedef struct {
    char result_code[2];
} BODY_DEVICE_INFO_RSP;

typedef struct {
    char ipaddr[16];
} BODY_RENEW_SERVICE_LIST_REQ;

typedef struct {
    char result_code[2];
} BODY_RENEW_SERVICE_LIST_RSP;

typedef struct {
    char host_name[65];
} BODY_GET_SERVICE_LIST_REQ;

/* One service of the service table. */
typedef struct {
    char host_name[65];
    char server_id[16];
    char service_id[17];
    char call_trc_depth[6];
    char call_trc_limit[11];
    char dbio_trc_limit[11];
    char sql_trc_limit[11];
    char limit[11];    /* seconds */
    char uflag_set[9]; /* log-type letters */
    char tflag[2];
    char update_mode[2]; /* 'D' deletes, 'Y' overwrites, others insert */
} SERVICE_ELEMENT;

typedef struct {
    char result_code[2]; /* '5' marks the last block */
    char element_num[4]; /* 0 to 8 */
    SERVICE_ELEMENT elements[SERVICE_ELEMENT_MAX];
} BODY_GET_SERVICE_LIST_RSP;

typedef struct {
    char result_code[2];
} BODY_GET_SERVICE_LIST_RSPACK;

typedef struct {
    char host_name[65];
    char service_id[17];
    char limit[11];
} SERVICE_SMALL;

typedef struct {
    char result_code[2]; /* '3' first block of an upload, '4' every further one */
    char element_num[4]; /* 0 to 15 */
    SERVICE_SMALL elements[SERVICE_SMALL_MAX];
} BODY_UPDATE_SERVICE_LIST_REQ;

typedef struct {
    char result_code[2];
} BODY_UPDATE_SERVICE_LIST_RSP;

typedef struct {
    char element_num[4]; /* 0 to 8 */
    SERVICE_ELEMENT elements[SERVICE_ELEMENT_MAX];
} BODY_SET_MODIFIED_SERVICE_REQ;

typedef struct {
    char result_code[2];
    char element_num[4]; /* elements handled */
} BODY_SET_MODIFIED_SERVICE_RSP;

typedef struct {
    char cpu_alert_sec[6];
    char cpu_alert_pcnt[4];
    char file_sys_alert_pcnt[4];
    char file_sys_list[1025]; /* mount points, each ended by a comma, the last one by a blank */
} BODY_SET_SYS_RESOURCE_SET_REQ;

typedef struct {
    char result_code[2];
} BODY_SET_SYS_RESOURCE_SET_RSP;

typedef struct {
    char ipaddr[16];
    char log_flag_set[9];
    char log_qcnt[4];
    char log_onoff[2];
    char sfilter_onoff[2];
    char call_trc_depth[6];
    char call_trc_limit[11];
    char dbio_trc_limit[11];
    char sql_trc_limit[11];
} BODY_SET_SYS_CONFIG_SET_REQ;

typedef struct {
    char result_code[2]; /* '0' applied, '1' the log flag set was refused */
} BODY_SET_SYS_CONFIG_SET_RSP;

/* One active transaction as a tracer reports it; also the record of the notification queue. */
typedef struct {
    char tr_cd[13];
    char host_name[65];
    char service_id[17];
    char tr_section[2];
    char gid[33];
    char pid[9];
    char tid[16];
    char proc_nm[31];
    char call_trc_depth[6];
    char call_seq[7];
    char call_func1[101];
    char call_func2[71];
    char call_sql_id[201];
    char svc_logdt[13];
    char svc_elapsed_time[8];
    char func_logdt[13];
    char func_elapsed_time[8];
} ACTIVE_SERVICE_DETAIL;

typedef struct {
    char element_num[4]; /* 1 or 2 */
    ACTIVE_SERVICE_DETAIL elements[NOTIFY_ELEMENT_MAX];
} BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ;

typedef struct {
    char result_code[2];
    char element_num[4];
} BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP;

typedef struct {
    TCP_CMD_HDR hdr;
    union {
        BODY_HEALTH_CHECK_REQ health_check_req;
        BODY_HEALTH_CHECK_RSP health_check_rsp;
        BODY_DEVICE_INFO_REQ device_info_req;
        BODY_DEVICE_INFO_RSP device_info_rsp;
        BODY_GET_SERVICE_LIST_REQ get_service_list_req;
        BODY_GET_SERVICE_LIST_RSP get_service_list_rsp;
        BODY_GET_SERVICE_LIST_RSPACK get_service_list_rspack;
        BODY_UPDATE_SERVICE_LIST_REQ update_service_list_req;
        BODY_UPDATE_SERVICE_LIST_RSP update_service_list_rsp;
        BODY_SET_MODIFIED_SERVICE_REQ set_modified_service_req;
        BODY_SET_MODIFIED_SERVICE_RSP set_modified_service_rsp;
        BODY_SET_SYS_RESOURCE_SET_REQ set_sys_resource_set_req;
        BODY_SET_SYS_RESOURCE_SET_RSP set_sys_resource_set_rsp;
        BODY_SET_SYS_CONFIG_SET_REQ set_sys_config_set_req;
        BODY_SET_SYS_CONFIG_SET_RSP set_sys_config_set_rsp;
        BODY_RENEW_SERVICE_LIST_REQ renew_service_list_req;
        BODY_RENEW_SERVICE_LIST_RSP renew_service_list_rsp;
        BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ notify_active_service_detail_req;
        BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP notify_active_service_detail_rsp;
    } body;
} TCP_CMD_MSG;

/* The extended request: a frame of type MSG_EXT_REQ. Its code overlaps msg_type[1]. */
enum {
    EXT_REQ_CODE_AT = 5, /* four ASCII digits, EXT_SVC_* */
    EXT_REQ_CODE_SIZE = 4,
    EXT_REQ_PDU_AT = 9, /* EXT_PDU_REQUEST */
    EXT_REQ_DATA_AT = 10,
    EXT_PDU_REQUEST = 'R',
    EXT_SEPARATOR = 0x1F, /* between the items of the request's data */
    EXT_STATUS_ACCEPTED = 'A',
    EXT_STATUS_ERROR = 'E',
    EXT_ITEM_MAX = 30 /* command lines, or items of a file list */
};

#define EXT_SVC_CMD "0001"
#define EXT_SVC_CMD_TIMEOUT "1001"
#define EXT_SVC_FILE_UP "0002"
#define EXT_SVC_FILE_DOWN "0003"

/* Starts every answer to an extended request. */
typedef struct {
    unsigned char magic_bit[4]; /* TCP_CMD_MAGIC_BYTES */
    char status;                /* EXT_STATUS_* */
    char host_name[64];         /* the agent's, NUL-padded */
    unsigned char length[4];    /* unsigned, network order; its meaning depends on the request */
} EXT_RSP_HDR;

/* One file announced in the answer to a download. */
typedef struct {
    unsigned int size; /* bytes, network order */
    unsigned int perm; /* st_mode, network order */
    char name[128];    /* base name, NUL-padded */
} ST_FILE_INFO;

KESSARD_SIZE(TCP_CMD_HDR, 6);
KESSARD_AT(TCP_CMD_HDR, msg_type, 4);
KESSARD_SIZE(TCP_CMD_MSG, TCP_CMD_MSG_SIZE);
KESSARD_AT(TCP_CMD_MSG, body, 6);

KESSARD_SIZE(QUE_STAT_STR, 37);
KESSARD_AT(QUE_STAT_STR, in_discard_qcnt, 6);
KESSARD_AT(QUE_STAT_STR, out_qcnt, 12);
KESSARD_AT(QUE_STAT_STR, out_discard_qcnt, 18);
KESSARD_AT(QUE_STAT_STR, cur_qcnt, 24);
KESSARD_AT(QUE_STAT_STR, log_hashtbl_used_pcnt, 30);
KESSARD_SIZE(API_STAT_STR, 105);
KESSARD_AT(API_STAT_STR, total_cnt, 16);
KESSARD_AT(API_STAT_STR, init_cnt, 22);
KESSARD_AT(API_STAT_STR, miss_cnt, 28);
KESSARD_AT(API_STAT_STR, miss_info, 34);

KESSARD_SIZE(BODY_HEALTH_CHECK_REQ, 1315);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, ipaddr, 65);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, port, 81);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, log_interface, 87);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, log_flag_set, 90);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, log_qcnt, 99);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, log_onoff, 103);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, sfilter_onoff, 105);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, call_trc_depth, 107);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, call_trc_limit, 113);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, dbio_trc_limit, 124);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, sql_trc_limit, 135);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, api_shm_nattch, 146);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, svc_shm_nattch, 155);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, svc_list_cnt, 164);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, api_log, 173);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, rell_log, 175);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, engine_sts, 177);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, init_proc_num, 179);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, ptrc_hashtbl_used_pcnt, 185);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, jcache_hashtbl_used_pcnt, 192);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, que_stat, 199);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, api_stat, 791);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, sys_time, 1001);
KESSARD_AT(BODY_HEALTH_CHECK_REQ, chk_msg, 1014);
KESSARD_SIZE(BODY_HEALTH_CHECK_RSP, 13);
KESSARD_AT(BODY_HEALTH_CHECK_RSP, svr_gap_time, 2);

KESSARD_SIZE(BODY_DEVICE_INFO_REQ, 303);
KESSARD_AT(BODY_DEVICE_INFO_REQ, os_info, 65);
KESSARD_AT(BODY_DEVICE_INFO_REQ, core_cnt, 266);
KESSARD_AT(BODY_DEVICE_INFO_REQ, mem_total, 272);
KESSARD_SIZE(BODY_DEVICE_INFO_RSP, 2);
KESSARD_SIZE(BODY_RENEW_SERVICE_LIST_REQ, 16);
KESSARD_SIZE(BODY_RENEW_SERVICE_LIST_RSP, 2);
KESSARD_SIZE(BODY_GET_SERVICE_LIST_REQ, 65);

KESSARD_SIZE(SERVICE_ELEMENT, 161);
KESSARD_AT(SERVICE_ELEMENT, server_id, 65);
KESSARD_AT(SERVICE_ELEMENT, service_id, 81);
KESSARD_AT(SERVICE_ELEMENT, call_trc_depth, 98);
KESSARD_AT(SERVICE_ELEMENT, call_trc_limit, 104);
KESSARD_AT(SERVICE_ELEMENT, dbio_trc_limit, 115);
KESSARD_AT(SERVICE_ELEMENT, sql_trc_limit, 126);
KESSARD_AT(SERVICE_ELEMENT, limit, 137);
KESSARD_AT(SERVICE_ELEMENT, uflag_set, 148);
KESSARD_AT(SERVICE_ELEMENT, tflag, 157);
KESSARD_AT(SERVICE_ELEMENT, update_mode, 159);
KESSARD_SIZE(BODY_GET_SERVICE_LIST_RSP, 1294);
KESSARD_AT(BODY_GET_SERVICE_LIST_RSP, element_num, 2);
KESSARD_AT(BODY_GET_SERVICE_LIST_RSP, elements, 6);
KESSARD_SIZE(BODY_GET_SERVICE_LIST_RSPACK, 2);

KESSARD_SIZE(SERVICE_SMALL, 93);
KESSARD_AT(SERVICE_SMALL, service_id, 65);
KESSARD_AT(SERVICE_SMALL, limit, 82);
KESSARD_SIZE(BODY_UPDATE_SERVICE_LIST_REQ, 1401);
KESSARD_AT(BODY_UPDATE_SERVICE_LIST_REQ, element_num, 2);
KESSARD_AT(BODY_UPDATE_SERVICE_LIST_REQ, elements, 6);
KESSARD_SIZE(BODY_UPDATE_SERVICE_LIST_RSP, 2);
KESSARD_SIZE(BODY_SET_MODIFIED_SERVICE_REQ, 1292);
KESSARD_AT(BODY_SET_MODIFIED_SERVICE_REQ, elements, 4);
KESSARD_SIZE(BODY_SET_MODIFIED_SERVICE_RSP, 6);
KESSARD_AT(BODY_SET_MODIFIED_SERVICE_RSP, element_num, 2);

KESSARD_SIZE(BODY_SET_SYS_RESOURCE_SET_REQ, 1039);
KESSARD_AT(BODY_SET_SYS_RESOURCE_SET_REQ, cpu_alert_pcnt, 6);
KESSARD_AT(BODY_SET_SYS_RESOURCE_SET_REQ, file_sys_alert_pcnt, 10);
KESSARD_AT(BODY_SET_SYS_RESOURCE_SET_REQ, file_sys_list, 14);
KESSARD_SIZE(BODY_SET_SYS_RESOURCE_SET_RSP, 2);
KESSARD_SIZE(BODY_SET_SYS_CONFIG_SET_REQ, 72);
KESSARD_AT(BODY_SET_SYS_CONFIG_SET_REQ, log_flag_set, 16);
KESSARD_AT(BODY_SET_SYS_CONFIG_SET_REQ, log_qcnt, 25);
KESSARD_AT(BODY_SET_SYS_CONFIG_SET_REQ, log_onoff, 29);
KESSARD_AT(BODY_SET_SYS_CONFIG_SET_REQ, sfilter_onoff, 31);
KESSARD_AT(BODY_SET_SYS_CONFIG_SET_REQ, call_trc_depth, 33);
KESSARD_AT(BODY_SET_SYS_CONFIG_SET_REQ, call_trc_limit, 39);
KESSARD_AT(BODY_SET_SYS_CONFIG_SET_REQ, dbio_trc_limit, 50);
KESSARD_AT(BODY_SET_SYS_CONFIG_SET_REQ, sql_trc_limit, 61);
KESSARD_SIZE(BODY_SET_SYS_CONFIG_SET_RSP, 2);

KESSARD_SIZE(ACTIVE_SERVICE_DETAIL, 614);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, host_name, 13);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, service_id, 78);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, tr_section, 95);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, gid, 97);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, pid, 130);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, tid, 139);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, proc_nm, 155);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, call_trc_depth, 186);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, call_seq, 192);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, call_func1, 199);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, call_func2, 300);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, call_sql_id, 371);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, svc_logdt, 572);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, svc_elapsed_time, 585);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, func_logdt, 593);
KESSARD_AT(ACTIVE_SERVICE_DETAIL, func_elapsed_time, 606);
KESSARD_SIZE(BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ, 1232);
KESSARD_AT(BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ, elements, 4);
KESSARD_SIZE(BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP, 6);
KESSARD_AT(BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP, element_num, 2);

KESSARD_SIZE(EXT_RSP_HDR, 73);
KESSARD_AT(EXT_RSP_HDR, status, 4);
KESSARD_AT(EXT_RSP_HDR, host_name, 5);
KESSARD_AT(EXT_RSP_HDR, length, 69);
KESSARD_SIZE(ST_FILE_INFO, 136);
KESSARD_AT(ST_FILE_INFO, perm, 4);
KESSARD_AT(ST_FILE_INFO, name, 8);

#endif
