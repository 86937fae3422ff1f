// Every kind of exchange with an agent.
#include "exchanges.h"

#include "ring_queue.h"
#include "sem.h"

namespace test_support {

namespace {

template <class... Fields> std::array<void*, sizeof...(Fields)> places_of(Fields&... fields) {
    return {&fields...};
}

void spoil(SVC_HASH_TBL& svc, PTRC_HASH_TBL& ptrc, JCACHE_HASH_TBL& cache, NOTI_SEND_QUE_INFO& noti,
           TRAN_AGT_SHM& segment, unsigned seed) {
    std::mt19937 random(seed);
    const int values[] = {0, -1, 9999, 10000, INT_MAX, INT_MIN, static_cast<int>(random() % 10000)};
    SVC_HASH_ARR_LIST& slot = svc.h_arr[9999 - random() % 300];
    PTRC_HASH_ARR& entry = ptrc.h_arr[random() % 100].param;
    const auto places =
        places_of(svc.h_idx[slot.hash_idx & 0xffff], slot.next_idx, slot.pre_idx, slot.hash_idx,
                  svc.used.top, svc.available.top, svc.alloc_cnt, svc.used.idx[random() % 300],
                  svc.available.idx[9999 - random() % 300], ptrc.used.idx[random() % 300],
                  ptrc.alloc_cnt, cache.used.top, segment.proc_num, noti.front, noti.rear);
    const int& value = values[random() % std::size(values)];
    std::memcpy(places[random() % places.size()], &value, sizeof value);
    std::memset(entry.proc_nm, values[random() % std::size(values)], sizeof entry.proc_nm);
    std::memset(entry.pid, '0' + values[6] % 12, sizeof entry.pid);
    ptrc.used.top = 300;
}

} // namespace

exchanges::exchanges() {
    server.set_services(services(1));
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1000);
    a.set("SERVICE_HASH", "DAILY_UPDATE_YN", "Y");
    a.set("PTRC_HASH", "TRC_STS_CHECK_PERIOD", 1);
    a.set("KESSARD", "WORKER_CHECK_INTERVAL", 1);
    a.write_file("services.sh", "#!/bin/sh\nfor i in $(seq 20); do echo SVC$i $i; done\n", 0755);
    a.write_file("sent", std::string(300000, 's') + "end");
    std::filesystem::create_directory(a.path("down"));
}

void exchanges::expect_all() {
    for (const auto& [name, exchange] : ALL)
        EXPECT_TRUE((this->*exchange)()) << name;
}

void exchanges::empty_log() const {
    for (const auto& log : std::filesystem::directory_iterator(a.path("logs/proc/kessard")))
        std::filesystem::resize_file(log.path(), 0);
}

kessctl::command_client exchanges::new_client() const {
    kessctl::command_client made;
    if (identity != nullptr)
        made.use_tls(identity, "agent.example");
    return made;
}

bool exchanges::is_answered(const TCP_CMD_MSG& request, TCP_CMD_MSG* got) const {
    kessctl::command_client asking = new_client();
    return asking.connect("127.0.0.1", a.port()) && asking.request(request, got);
}

bool exchanges::command() {
    SERVICE_ELEMENT gone = kessctl::make_service("NOT THERE");
    gone.update_mode[0] = 'D';
    TCP_CMD_MSG got;
    return repeat([&] {
        return is_answered(kessctl::modified_services_frame(&gone, 1), &got) &&
               kessctl::field_text(got, "element_num") == "001";
    });
}

bool exchanges::remote_command() {
    return repeat([&] {
        return a.console({"exec", "echo ran"}).out == "$ echo ran\nran\n-> exit status 0\n";
    });
}

bool exchanges::transfer() {
    std::filesystem::remove(a.path("down/sent"));
    return repeat([&] {
        return a.console({"put", a.path("sent"), a.path("up")}).status == 0 &&
               a.console({"get", a.path("up/sent"), a.path("down")}).status == 0 &&
               content(a.path("sent")) == content(a.path("down/sent"));
    });
}

void exchanges::put_notifications() {
    queue_ = queue_ == nullptr ? a.noti_que() : queue_;
    const NOTI_SEND_QUE_DATA record{};
    agt::ring_put(*queue_, &record, sizeof record);
    agt::ring_put(*queue_, &record, sizeof record);
}

bool exchanges::notify() {
    const std::size_t before = server.count(MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ);
    return repeat([&] { // what comes while the link is down is dropped
        put_notifications();
        return bool(server.wait_for(MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ, before + 1, TRY_MS));
    });
}

bool exchanges::renew() const {
    TCP_CMD_MSG got;
    return is_answered(kessctl::start_frame(MSG_RENEW_SERVICE_LIST_REQ), &got);
}

bool exchanges::reload() {
    const int wanted = static_cast<int>(LEAST_SERVICES) + ++lists_ % 8;
    server.set_services(services(wanted));
    services_ = services_ == nullptr ? a.services() : services_;
    const SVC_HASH_TBL& table = *services_;
    const auto loaded = [&] {
        const agt::sem_hold hold(a.sem_id("SVC_HASH_TBL_SEMKEY"), 0);
        return table.alloc_cnt == static_cast<unsigned>(wanted) && table_fault(table).empty();
    };
    return repeat([&] { return renew() && wait_until(loaded, 2 * TRY_MS); });
}

bool exchanges::update() {
    const std::size_t before = server.count(MSG_UPDATE_SERVICE_LIST_REQ);
    return repeat([&] {
        if (!std::filesystem::exists(a.path("svc_update")))
            a.write_file("svc_update", "");
        return server.wait_for(MSG_UPDATE_SERVICE_LIST_REQ, before + 2, TRY_MS).has_value();
    });
}

int exchanges::isalive(pid_t pid) {
    traces_ = traces_ == nullptr ? a.traces() : traces_;
    const PTRC_HASH_TBL& table = *traces_;
    for (unsigned i = 0; i < table.used.top && i < PTRC_HASH_SLOTS; ++i)
        if (const PTRC_HASH_ARR& entry = table.h_arr[table.used.idx[i] % PTRC_HASH_SLOTS].param;
            entry._pid == pid)
            return entry.isalive;
    return -1;
}

bool exchanges::sweep() {
    a.console({"put-trace", "--clear"});
    process traced({"/bin/sleep", "100"}, {});
    const pid_t pid = traced.pid();
    const texts put = {"put-trace", "--pid", std::to_string(pid), "--name", "sleep",
                       "--state",   "h",     "--alive",           "0"};
    const bool found = repeat([&] {
        return a.console(put).status == 0 && wait_until([&] { return isalive(pid) == 1; }, TRY_MS);
    });
    kill(pid, SIGKILL);
    traced.wait_exit();
    return found && repeat([&] { return isalive(pid) == 0; });
}

void exchanges::spoil_until(const std::atomic<bool>& over) {
    NOTI_SEND_QUE_INFO& noti = a.noti_que()->info;
    SVC_HASH_TBL& svc = *a.services();
    PTRC_HASH_TBL& ptrc = *a.traces();
    JCACHE_HASH_TBL& cache = *a.cache();
    TRAN_AGT_SHM& segment = *a.segment();
    for (unsigned seed = std::random_device()(); !over; ++seed)
        spoil(svc, ptrc, cache, noti, segment, seed);
    noti = {};
}

} // namespace test_support
