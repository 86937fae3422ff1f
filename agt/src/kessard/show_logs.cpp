// Dumps to the log.
#include "show_logs.h"

#include <cstdlib>
#include <string_view>

#include "index_stack.h"
#include "log_printf.h"
#include "printable.h"

namespace kessard {
namespace {

using slot_head = agt::text_in<48>; // any two numbers

template <std::size_t N>
void show(agt::log_batch* lines, const slot_head& head, const char (&name)[N], long value) {
    lines->line(head, name, " : ", static_cast<int>(value));
}

template <std::size_t N, std::size_t M>
void show(agt::log_batch* lines, const slot_head& head, const char (&name)[N],
          const char (&text)[M]) {
    lines->line(head, name, " : |", agt::shown(text), "|");
}

// Each line starts with the place of the slot in the used stack and its number.
void show_slot(agt::log_batch* lines, unsigned int place, unsigned int number,
               const SVC_HASH_ARR_LIST& slot) {
    char start[48] = {};
    agt::line_text text(start, sizeof start);
    text.add("[");
    text.add(static_cast<int>(place));
    text.add("] array_idx#");
    text.add(static_cast<int>(number));
    text.add(", ");
    const slot_head head = {start, text.size()};
    show(lines, head, "my_idx", slot.my_idx);
    show(lines, head, "hash_idx", slot.hash_idx);
    show(lines, head, "pre_idx", slot.pre_idx);
    show(lines, head, "next_idx", slot.next_idx);
    lines->line("- - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - ");
    show(lines, head, "host_name", slot.param.host_name);
    show(lines, head, "server_id", slot.param.server_id);
    show(lines, head, "service_id", slot.param.service_id);
    show(lines, head, "limit", slot.param.limit);
    show(lines, head, "call_trc_limit", slot.param.call_trc_limit);
    show(lines, head, "dbio_trc_limit", slot.param.dbio_trc_limit);
    show(lines, head, "sql_trc_limit", slot.param.sql_trc_limit);
    // With a sign on every processor: flag 0x80 is -128.
    show(lines, head, "uflag_set", static_cast<signed char>(slot.param.uflag_set));
    show(lines, head, "tflag", static_cast<signed char>(slot.param.tflag));
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
    agt::log_batch batch;
    agt::log_printf("------------------------ SERVICE HASH TABLE ----------------------------");
    agt::log_printf("alloc_cnt : %d, used.top : %d\n",
                    static_cast<int>(agt::shared_load(table.alloc_cnt)),
                    static_cast<int>(agt::shared_load(table.used.top)));
    const unsigned int used = agt::stack_size(table.used);
    for (unsigned int i = 0; i < used; ++i) {
        const unsigned int s = table.used.idx[i];
        if (s < SVC_HASH_SLOTS)
            show_slot(&batch, i, s, table.h_arr[s]);
    }
}

} // namespace kessard
