// kessctl show-events: being the log parser.
#include <CLI/CLI.hpp>
#include <climits>
#include <cstdio>
#include <memory>

#include "agent/event_record.h"
#include "agent/ring_view.h"
#include "agent/shared_edit.h"
#include "commands/commands.h"
#include "wait.h"
#include "wire/print_frame.h"

namespace kessctl {
namespace {

constexpr int NO_LIMIT = -1;
constexpr int FOLLOW_POLL_MS = 50;

struct events_options {
    std::string cfg_file = default_cfg_file();
    int count = NO_LIMIT; // events to show
    bool follow = false;
    bool peek = false;
};

// The record behind the position *front, which moves on; null when there is none. Taking goes
// through the queue itself.
const PARSE_LOG_QUE_DATA* next_event(PARSE_LOG_QUE& queue, bool peek, int* front) {
    if (!peek)
        return agt::ring_take(queue);
    if (*front == agt::ring_load(queue).rear)
        return nullptr;
    *front = agt::ring_next<PARSE_LOG_QUE>(*front);
    return &queue.data[*front];
}

void print_event(const PARSE_LOG_QUE& queue, const PARSE_LOG_QUE_DATA& data) {
    const LOG_HASH_ARR record = data.parse_log;
    std::printf("slot %td\n", &data - queue.data);
    std::vector<field_value> fields = decode_event(record.keep_log);
    fields.push_back({"result_flag", std::string(1, record.result_flag)});
    print_fields(stdout, fields);
    std::fflush(stdout);
}

exit_status show_events(const events_options& chosen) {
    shared_edit edit;
    const std::string closed = edit.open(chosen.cfg_file, agt::PARSE_QUEUES, agt::PARSE_QUEUES_SEM);
    if (!closed.empty())
        return complain(closed);
    PARSE_LOG_QUE& queue = static_cast<PARSE_LOG_QUE_POOL*>(edit.address())->que[0];
    int front = agt::ring_load(queue).front;
    for (int shown = 0; shown != chosen.count && std::ferror(stdout) == 0;) {
        const std::string wrong = index_fault<PARSE_LOG_QUE>(agt::ring_load(queue));
        if (!wrong.empty())
            return complain("the queue's indexes are out of range: " + wrong);
        const PARSE_LOG_QUE_DATA* data = next_event(queue, chosen.peek, &front);
        if (data != nullptr) {
            print_event(queue, *data);
            ++shown;
        } else if (!chosen.follow) {
            break;
        } else {
            agt::sleep_ms(FOLLOW_POLL_MS);
        }
    }
    return EXIT_OK;
}

} // namespace

void add_show_events(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<events_options>();
    CLI::App* command = app.add_subcommand(
        "show-events", "Take the event records off parse-log queue 0 and show them, "
                       "as the log parser would");
    add_cfg_option(*command, chosen->cfg_file);
    command->add_option("--count", chosen->count, "Stop after that many records")
        ->check(CLI::Range(1, INT_MAX));
    command->add_flag("--follow", chosen->follow, "Wait for more when there are none left");
    command->add_flag("--peek", chosen->peek, "Leave the records in the queue");
    command->callback([chosen, status] { *status = show_events(*chosen); });
}

} // namespace kessctl
