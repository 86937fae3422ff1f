// Dumps to the log.
#include "show_logs.h"

#include <charconv>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "index_stack.h"
#include "log_printf.h"
#include "printable.h"

namespace kessard {
namespace {

// What the lines of one slot start with: its place in the used stack and its number.
class slot_head {
  public:
    // cppcheck-suppress uninitMemberVar
    slot_head(int place, int slot)
        : length_(std::snprintf(text_, sizeof text_, "[%d] array_idx#%d, ", place, slot)) {}
    operator std::string_view() const { return {text_, static_cast<std::size_t>(length_)}; }

  private:
    char text_[48]; // any two numbers
    int length_;
};

void show_number(std::string_view head, std::string_view name, long value) {
    char digits[16];
    const char* end = std::to_chars(digits, std::end(digits), static_cast<int>(value)).ptr;
    agt::log_line({head, name, " : ", {digits, end}});
}

template <std::size_t N>
void show_text(std::string_view head, std::string_view name, const char (&text)[N]) {
    agt::log_line({head, name, " : |", agt::printable(text), "|"});
}

void show_slot(std::string_view head, const SVC_HASH_ARR_LIST& slot) {
    show_number(head, "my_idx", slot.my_idx);
    show_number(head, "hash_idx", slot.hash_idx);
    show_number(head, "pre_idx", slot.pre_idx);
    show_number(head, "next_idx", slot.next_idx);
    agt::log_line({"- - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - "});
    show_text(head, "host_name", slot.param.host_name);
    show_text(head, "server_id", slot.param.server_id);
    show_text(head, "service_id", slot.param.service_id);
    show_number(head, "limit", slot.param.limit);
    show_number(head, "call_trc_limit", slot.param.call_trc_limit);
    show_number(head, "dbio_trc_limit", slot.param.dbio_trc_limit);
    show_number(head, "sql_trc_limit", slot.param.sql_trc_limit);
    show_number(head, "uflag_set", slot.param.uflag_set);
    show_number(head, "tflag", slot.param.tflag);
}

} // namespace

svc_hash_tbl_copy copy_svc_hash_tbl(const SVC_HASH_TBL& table) {
    svc_hash_tbl_copy copy(static_cast<SVC_HASH_TBL*>(std::malloc(sizeof table)));
    if (copy == nullptr)
        return copy;
    copy->alloc_cnt = agt::shared_load(table.alloc_cnt);
    copy->used = table.used;
    const unsigned int used =
        agt::stack_size(copy->used); // of the copy: the table may change meanwhile
    for (unsigned int i = 0; i < used; ++i) {
        const unsigned int s = copy->used.idx[i];
        if (s < SVC_HASH_SLOTS)
            copy->h_arr[s] = table.h_arr[s];
    }
    return copy;
}

void show_svc_hash_tbl(const SVC_HASH_TBL& table) {
    const agt::log_batch batch;
    agt::log_printf("------------------------ SERVICE HASH TABLE ----------------------------");
    agt::log_printf("alloc_cnt : %d, used.top : %d\n",
                    static_cast<int>(agt::shared_load(table.alloc_cnt)),
                    static_cast<int>(agt::shared_load(table.used.top)));
    const unsigned int used = agt::stack_size(table.used);
    for (unsigned int i = 0; i < used; ++i) {
        const unsigned int s = table.used.idx[i];
        if (s < SVC_HASH_SLOTS)
            show_slot(slot_head(static_cast<int>(i), static_cast<int>(s)), table.h_arr[s]);
    }
}

} // namespace kessard
