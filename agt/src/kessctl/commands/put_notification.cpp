// kessctl put-notification: being a tracer that notifies the server.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>

#include "agent/ring_view.h"
#include "agent/shared_edit.h"
#include "commands/commands.h"
#include "sem.h"
#include "wait.h"
#include "wire/frame.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr int CALL_SEQ_MODULUS = 1000000; // what the field holds

struct put_options {
    std::string cfg_file = default_cfg_file();
    int count = 1;
    double rate = 0; // records per second, 0: no pause
    std::map<std::string, std::string> fields;
};

std::string time_of_day() {
    timespec now{};
    struct tm local {};
    char text[64];
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    std::snprintf(text, sizeof text, "%02d%02d%02d%06ld", local.tm_hour, local.tm_min, local.tm_sec,
                  now.tv_nsec / 1000);
    return text;
}

std::string digits(long value, int width) {
    char text[32];
    std::snprintf(text, sizeof text, "%0*ld", width, value);
    return text;
}

// What a field holds that no option names; `seq` counts the records.
std::map<std::string, std::string> default_fields(int seq) {
    char host[65] = "";
    gethostname(host, sizeof host - 1);
    const std::string now = time_of_day();
    const std::string pid = std::to_string(getpid());
    return {{"tr_cd", "TRAN0001"},
            {"host_name", host},
            {"service_id", "SERVICE1"},
            {"tr_section", "T"},
            {"gid", pid + "-" + std::to_string(seq)},
            {"pid", pid},
            {"tid", digits(0, 15)},
            {"proc_nm", "kessctl"},
            {"call_trc_depth", digits(1, 5)},
            {"call_seq", digits(seq % CALL_SEQ_MODULUS, 6)},
            {"call_func1", "main"},
            {"svc_logdt", now},
            {"svc_elapsed_time", digits(3000, 7)},
            {"func_logdt", now},
            {"func_elapsed_time", digits(3000, 7)}};
}

ACTIVE_SERVICE_DETAIL make_record(const put_options& chosen, int seq) {
    ACTIVE_SERVICE_DETAIL record{};
    std::map<std::string, std::string> fields = chosen.fields;
    fields.merge(default_fields(seq));
    for (const item* field = ACTIVE_SERVICE_ITEMS; field->name != nullptr; ++field)
        put_field(reinterpret_cast<char*>(&record) + field->at, field->size, fields[field->name]);
    return record;
}

// Waits for the time at which record `seq` (from 0) is due.
void keep_rate(double rate, int seq, long long start_ms) {
    const long long due_ms =
        rate > 0 ? start_ms + static_cast<long long>(seq * 1000.0 / rate) : start_ms;
    const long long left_ms = due_ms - agt::monotonic_ms();
    if (left_ms > 0)
        agt::sleep_ms(static_cast<int>(std::min<long long>(left_ms, INT_MAX)));
}

exit_status put_notifications(const put_options& chosen) {
    shared_edit edit;
    const std::string closed = edit.open(chosen.cfg_file, agt::NOTI_QUEUE, agt::NOTI_QUEUE_SEM);
    if (!closed.empty())
        return complain(closed);
    NOTI_SEND_QUE& queue = static_cast<NOTI_SEND_QUE_POOL*>(edit.address())->que[0];
    const long long start_ms = agt::monotonic_ms();
    int put = 0;
    for (int seq = 0; seq < chosen.count; ++seq) {
        keep_rate(chosen.rate, seq, start_ms);
        const ACTIVE_SERVICE_DETAIL record = make_record(chosen, seq + 1);
        const agt::sem_hold hold(edit.semid(), 0);
        if (!hold.held())
            return complain(std::string("the queue's semaphore: ") + std::strerror(errno));
        const std::string wrong = index_fault<NOTI_SEND_QUE>(agt::ring_load(queue));
        if (!wrong.empty())
            return complain("the queue's indexes are out of range: " + wrong);
        put += agt::ring_put(queue, &record, sizeof record) == 1 ? 1 : 0;
    }
    std::printf("%d records put, %d did not fit\n", put, chosen.count - put);
    return put == chosen.count ? EXIT_OK : EXIT_REFUSED;
}

// "service_id" to "--service-id".
std::string option_name(const std::string& field) {
    std::string name = "--" + field;
    std::replace(name.begin(), name.end(), '_', '-');
    return name;
}

} // namespace

void add_put_notification(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<put_options>();
    CLI::App* command = app.add_subcommand(
        "put-notification", "Put records on the notification queue, as a tracer would");
    add_cfg_option(*command, chosen->cfg_file);
    command->add_option("--count", chosen->count, "How many records; call_seq counts them")
        ->check(CLI::Range(1, INT_MAX))
        ->capture_default_str();
    command
        ->add_option("--rate", chosen->rate,
                     "Records per second (default: as fast as the queue takes them)")
        ->check(CLI::Range(0.01, 1e6));
    for (const item* field = ACTIVE_SERVICE_ITEMS; field->name != nullptr; ++field) {
        const std::string name = option_name(field->name);
        command
            ->add_option(name == "--service-id" ? "--service," + name : name,
                         chosen->fields[field->name], std::string("Field ") + field->name)
            ->check(fits(field->size))
            ->group("Fields of the records");
    }
    command->callback([chosen, status] {
        std::erase_if(chosen->fields, [](const auto& field) { return field.second.empty(); });
        *status = put_notifications(*chosen);
    });
}

} // namespace kessctl
