// kessctl show queues.
#include "commands/show.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "agent/event_record.h"
#include "agent/ring_view.h"
#include "commands/json_output.h"
#include "host/shared_view.h"
#include "wire/frame.h"
#include "wire/json_frame.h"
#include "wire/print_frame.h"

namespace kessctl {
namespace {

// A ring and the last records in it, the newest first.
struct ring_look {
    std::string name;
    agt::ring_indexes at{};
    std::string fault; // of the indexes
    int waiting = 0;
    std::vector<std::pair<std::size_t, std::vector<field_value>>> records; // with their slots
};

template <class Queue> ring_look look_at_ring(const std::string& name, agt::ring_indexes at) {
    ring_look ring;
    ring.name = name;
    ring.at = at;
    ring.fault = index_fault<Queue>(at);
    ring.waiting = ring.fault.empty() ? records_between<Queue>(at) : 0;
    return ring;
}

// Reads the last records, of which `read` makes the fields of one, or none of a slot that was never
// written to.
template <class Queue, class Read> std::string read_last(ring_look* ring, int wanted, Read read) {
    std::string wrong;
    const int count = ring->fault.empty() ? std::min(wanted, agt::ring_slots<Queue>) : 0;
    for (int i = 0; i < count; ++i) {
        const auto slot = static_cast<std::size_t>((ring->at.rear - i + agt::ring_slots<Queue>) %
                                                   agt::ring_slots<Queue>);
        std::vector<field_value> fields = read(slot, &wrong);
        if (!wrong.empty() || fields.empty())
            break;
        ring->records.emplace_back(slot, std::move(fields));
    }
    return wrong;
}

std::string look_at_notifications(const show_options& chosen, std::vector<ring_look>* rings) {
    NOTI_SEND_QUE_INFO info{};
    const std::string wrong = read_shared(chosen.cfg_file, agt::NOTI_QUEUE, 0, &info, sizeof info);
    if (!wrong.empty())
        return wrong;
    rings->push_back(look_at_ring<NOTI_SEND_QUE>("noti_send_que", {info.front, info.rear}));
    return read_last<NOTI_SEND_QUE>(
        &rings->back(), chosen.records, [&](std::size_t slot, std::string* fault) {
            ACTIVE_SERVICE_DETAIL record;
            std::vector<field_value> fields;
            *fault = read_shared(chosen.cfg_file, agt::NOTI_QUEUE,
                                 offsetof(NOTI_SEND_QUE, data) + slot * sizeof(NOTI_SEND_QUE_DATA),
                                 &record, sizeof record);
            decode_record(ACTIVE_SERVICE_ITEMS, reinterpret_cast<const char*>(&record), "", fields);
            if (std::all_of(fields.begin(), fields.end(),
                            [](const auto& field) { return field.text.empty(); }))
                fields.clear();
            return fields;
        });
}

// A queue nobody has used yet is left out, but for the first.
std::string look_at_events(const show_options& chosen, std::size_t que,
                           std::vector<ring_look>* rings) {
    PARSE_LOG_QUE_INFO info{};
    const std::size_t start = que * sizeof(PARSE_LOG_QUE);
    const std::string wrong =
        read_shared(chosen.cfg_file, agt::PARSE_QUEUES, start, &info, sizeof info);
    if (!wrong.empty() || (que > 0 && info.front == 0 && info.rear == 0))
        return wrong;
    rings->push_back(look_at_ring<PARSE_LOG_QUE>("parse_log_que " + std::to_string(que),
                                                 {info.front, info.rear}));
    return read_last<PARSE_LOG_QUE>(
        &rings->back(), chosen.records, [&](std::size_t slot, std::string* fault) {
            TRAN_LOG_FMT log;
            *fault = read_shared(chosen.cfg_file, agt::PARSE_QUEUES,
                                 start + offsetof(PARSE_LOG_QUE, data) +
                                     slot * sizeof(PARSE_LOG_QUE_DATA),
                                 &log, sizeof log);
            const bool written = fault->empty() && log.hdr.log_type[0] != '\0';
            return written ? decode_event(log) : std::vector<field_value>();
        });
}

void print_ring(const ring_look& ring) {
    std::printf("%s: front %d, rear %d", ring.name.c_str(), ring.at.front, ring.at.rear);
    std::printf(ring.fault.empty() ? ", %d waiting\n" : ": not indexes of this queue\n",
                ring.waiting);
    for (const auto& [slot, fields] : ring.records) {
        std::printf("  slot %zu\n", slot);
        print_fields(stdout, fields);
    }
}

nlohmann::ordered_json ring_json(const ring_look& ring) {
    nlohmann::ordered_json one = {
        {"queue", ring.name},      {"front", ring.at.front},
        {"rear", ring.at.rear},    {"fault", ring.fault},
        {"waiting", ring.waiting}, {"records", nlohmann::ordered_json::array()}};
    for (const auto& [slot, fields] : ring.records)
        one["records"].push_back({{"slot", slot}, {"fields", fields_json(fields)}});
    return one;
}

} // namespace

// The parse-log queues do not exist while the worker watchdog is off.
exit_status show_queues(const show_options& chosen) {
    std::vector<ring_look> rings;
    std::string wrong = look_at_notifications(chosen, &rings);
    if (!wrong.empty())
        return complain(wrong);
    for (std::size_t que = 0; que < PARSE_LOG_QUE_POOL_SIZE && wrong.empty(); ++que)
        wrong = look_at_events(chosen, que, &rings);
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const ring_look& ring : rings)
        all.push_back(ring_json(ring));
    if (chosen.json)
        print_json(all);
    else
        std::for_each(rings.begin(), rings.end(), print_ring);
    if (!wrong.empty() && !chosen.json)
        std::printf("no parse-log queues: %s\n", wrong.c_str());
    return EXIT_OK;
}

} // namespace kessctl
