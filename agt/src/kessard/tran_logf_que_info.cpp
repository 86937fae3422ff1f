// The runtime settings segment.
#include "tran_logf_que_info.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "field.h"
#include "log_flags.h"
#include "open_object.h"
#include "shared_field.h"
#include "shmem.h"

namespace kessard {

TRAN_LOGF_QUE_INFO* que_info = nullptr;

namespace {

constexpr int ALL_QUEUES = 100;
constexpr int ALL_CODES = 128;
constexpr int HIGHEST_VALUE = 2;

// Behind what was written before: the filter comes on when the services are there.
template <class T, class V> int set_field(T TRAN_LOGF_QUE_INFO::*field, V value) {
    if (que_info == nullptr)
        return -1;
    agt::shared_store(que_info->*field, static_cast<T>(value), std::memory_order_release);
    return 1;
}

template <class T> T get_field(T TRAN_LOGF_QUE_INFO::*field, T otherwise) {
    return que_info == nullptr ? otherwise : agt::shared_load(que_info->*field);
}

int set_digit(char TRAN_LOGF_QUE_INFO::*field, int n) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", n);
    return set_field(field, text[0]);
}

int get_digit(char TRAN_LOGF_QUE_INFO::*field) {
    if (que_info == nullptr)
        return -1;
    const char text[2] = {agt::shared_load(que_info->*field), '\0'};
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

} // namespace

int create_tran_logf_que_info(int key, int* existed) {
    opened_object segment;
    if (!open_object(agt::SETTINGS_SEGMENT, key, &segment))
        return -1;
    que_info = static_cast<TRAN_LOGF_QUE_INFO*>(segment.address);
    *existed = segment.existed ? 1 : 0;
    return segment.id;
}

int detach_tran_logf_que_info() {
    const int ret = agt::detach_shm(que_info);
    que_info = nullptr;
    return ret;
}

int set_magic_code(unsigned int magic_code) {
    return set_field(&TRAN_LOGF_QUE_INFO::magic_code, magic_code);
}
int get_magic_code() {
    return static_cast<int>(get_field(&TRAN_LOGF_QUE_INFO::magic_code, ~0u));
}

int set_tran_logf_qcnt(int n) {
    set_field(&TRAN_LOGF_QUE_INFO::qcnt, n);
    return set_field(&TRAN_LOGF_QUE_INFO::qcnt_mask, n - 1);
}
int get_tran_logf_qcnt() {
    return get_field(&TRAN_LOGF_QUE_INFO::qcnt, -1);
}
int get_tran_logf_qcnt_mask() {
    return get_field(&TRAN_LOGF_QUE_INFO::qcnt_mask, -1);
}

int set_log_flag_set(unsigned char flags) {
    return set_field(&TRAN_LOGF_QUE_INFO::log_flag_set, flags);
}
unsigned char get_log_flag_set() {
    return get_field(&TRAN_LOGF_QUE_INFO::log_flag_set, static_cast<unsigned char>(0));
}

int set_call_trc_depth(int depth) {
    return set_field(&TRAN_LOGF_QUE_INFO::call_trc_depth, depth);
}
int get_call_trc_depth() {
    return get_field(&TRAN_LOGF_QUE_INFO::call_trc_depth, -1);
}
int set_call_trc_limit(long limit) {
    return set_field(&TRAN_LOGF_QUE_INFO::call_trc_limit, limit);
}
long get_call_trc_limit() {
    return get_field(&TRAN_LOGF_QUE_INFO::call_trc_limit, 0L);
}
int set_dbio_trc_limit(long limit) {
    return set_field(&TRAN_LOGF_QUE_INFO::dbio_trc_limit, limit);
}
long get_dbio_trc_limit() {
    return get_field(&TRAN_LOGF_QUE_INFO::dbio_trc_limit, 0L);
}
int set_sql_trc_limit(long limit) {
    return set_field(&TRAN_LOGF_QUE_INFO::sql_trc_limit, limit);
}
long get_sql_trc_limit() {
    return get_field(&TRAN_LOGF_QUE_INFO::sql_trc_limit, 0L);
}

int set_svc_filtering(signed char on) {
    return set_field(&TRAN_LOGF_QUE_INFO::svc_filtering, on);
}
signed char get_svc_filtering() {
    return static_cast<signed char>(
        get_field(&TRAN_LOGF_QUE_INFO::svc_filtering, static_cast<char>(-1)));
}

int set_save_apilog(int n) {
    return set_digit(&TRAN_LOGF_QUE_INFO::save_apilog_yn, n);
}
int get_save_apilog() {
    return get_digit(&TRAN_LOGF_QUE_INFO::save_apilog_yn);
}
int set_save_relllog(int n) {
    return set_digit(&TRAN_LOGF_QUE_INFO::save_relllog_yn, n);
}
int get_save_relllog() {
    return get_digit(&TRAN_LOGF_QUE_INFO::save_relllog_yn);
}

int get_discard_qmsgs(int index) {
    if (que_info == nullptr || index < 0 || index >= LOG_QUE_MAX)
        return -1;
    return static_cast<int>(agt::shared_load(que_info->discard_qmsgs[index]));
}

int init_discard_qmsgs(int index) {
    if (que_info == nullptr || index < 0 || (index >= LOG_QUE_MAX && index != ALL_QUEUES))
        return -1;
    const int first = index == ALL_QUEUES ? 0 : index;
    const int last = index == ALL_QUEUES ? LOG_QUE_MAX - 1 : index;
    for (int i = first; i <= last; ++i)
        agt::shared_store(que_info->discard_qmsgs[i], 0u);
    return 0;
}

unsigned char get_log_flag_set_char(const char* letters) {
    return agt::flags_of_letters(letters);
}

const char* get_log_flag_set_str(unsigned char flags) {
    static thread_local char letters[10];
    agt::copy_text(letters, agt::letters_of_flags(flags).c_str());
    return letters;
}

int set_fst_err_rc_set(const char* text) {
    const char* comma = std::strchr(text, ',');
    if (que_info == nullptr || comma == nullptr || comma == text || !is_digit(comma[1]) ||
        comma[2] != '\0')
        return -1;
    const long sent = std::strtol(text, nullptr, 10);
    const int value = comma[1] - '0';
    if (sent > ALL_CODES || sent < -ALL_CODES || value > HIGHEST_VALUE)
        return -1;
    const long code = std::labs(sent); // a negative code acts as its positive counterpart
    const long first = code == ALL_CODES ? 0 : code;
    const long last = code == ALL_CODES ? RC_SET_MAX - 1 : code;
    for (long i = first; i <= last; ++i)
        agt::shared_store(que_info->fst_err_rc_set[i], static_cast<char>(value));
    return 0;
}

char* get_fst_err_rc_set() {
    return que_info == nullptr ? nullptr : que_info->fst_err_rc_set;
}

} // namespace kessard
