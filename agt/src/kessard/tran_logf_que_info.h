// The runtime settings segment: creation and accessors. Every accessor is one load or store without
// a lock, from any thread. A setter returns 1, or -1 when the segment is not attached; what a
// getter returns then stands beside it.
#pragma once

#include "kessard/tran_logf_que_info.h"

namespace kessard {

// The attached segment; null until created.
extern TRAN_LOGF_QUE_INFO* que_info;

// Creates or opens the segment of `key` and attaches it; *existed tells which. Its identifier,
// negative on failure.
[[nodiscard]] int create_tran_logf_que_info(int key, int* existed);

// Detaches it; 0, or -1.
// Nothing in the programs calls it.
int detach_tran_logf_que_info();

int set_magic_code(unsigned int magic_code);
int get_magic_code();          // -1
int set_tran_logf_qcnt(int n); // also the mask
int get_tran_logf_qcnt();      // -1
int get_tran_logf_qcnt_mask(); // -1; nothing in the programs calls it
int set_log_flag_set(unsigned char flags);
unsigned char get_log_flag_set(); // 0
int set_call_trc_depth(int depth);
int get_call_trc_depth(); // -1
int set_call_trc_limit(long limit);
long get_call_trc_limit(); // 0
int set_dbio_trc_limit(long limit);
long get_dbio_trc_limit(); // 0
int set_sql_trc_limit(long limit);
long get_sql_trc_limit(); // 0
int set_svc_filtering(signed char on);
signed char get_svc_filtering(); // -1

// Stored as the first character of the decimal text; read back as its decimal value, 0 for '-'.
// Nothing in the programs calls the setters.
int set_save_apilog(int n);
int get_save_apilog(); // -1
int set_save_relllog(int n);
int get_save_relllog(); // -1

// The discard counter of a log queue; -1 when not attached or no such queue.
// Nothing in the programs calls it.
int get_discard_qmsgs(int index);

// Clears the discard counter of a queue, or all of them (index 100). 0; -1 for any other index or
// when not attached.
// Nothing in the programs calls it.
int init_discard_qmsgs(int index);

// Upper-case letters S E V B C I X Q to the bits 0x01 to 0x80; other characters count for nothing.
unsigned char get_log_flag_set_char(const char* letters);

// The letters of the bits, in that order; the text stays valid until the calling thread's next
// call.
const char* get_log_flag_set_str(unsigned char flags);

// Sets the error setting of a return code from "code,value" (code 128: all of them). 0, or -1 for a
// text it refuses.
// Nothing in the programs calls it.
int set_fst_err_rc_set(const char* text);

// The 128 error settings; null when not attached.
// Nothing in the programs calls it.
char* get_fst_err_rc_set();

} // namespace kessard
