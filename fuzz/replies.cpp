// What the server answers to the daemon's own requests. The first byte of the input chooses the
// request, the rest is what the server sends; for the reconnection of the notify link it is the
// configuration file.
#include <sys/shm.h>

#include <climits>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "check_network.h"
#include "get_service_list.h"
#include "harness.h"
#include "health_check.h"
#include "kessard/cmd_msg.h"
#include "noti_send_que.h"
#include "notify_active_service_detail.h"
#include "process_globals.h"
#include "service_table.h"
#include "set_svc_hash_tbl.h"
#include "settings.h"
#include "shcmd_service_list.h"
#include "subprocess.h"
#include "tcp_base.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"

extern "C" void __wrap__ZN7kessard25th_start_get_service_listEv();

namespace {

using namespace kessard;
using fuzz::require;

constexpr char SERVICES[] = "SVC0001 30\nSVC0002 60\n"; // fifteen and more make a second block
constexpr int SERVICE_ROUNDS = 9;
constexpr int EVENTS = 5;

const fuzz::memory_file& configuration() {
    static const fuzz::memory_file made;
    return made;
}

const fuzz::memory_file& script() {
    static const fuzz::memory_file made;
    return made;
}

void retrieve_list(std::string_view) {
    set_svc_filtering(1);
    get_service_list(nullptr);
    require(get_svc_filtering() == 1, "the service filter stays off");
    if (const std::string fault = fuzz::table_fault(*svc_hash_tbl); !fault.empty())
        fuzz::fail(fault);
    fuzz::empty_table(*svc_hash_tbl);
}

void check_health(std::string_view) {
    bool reconnect = true;
    health_check_cycle(&reconnect);
    health_check_cycle(&reconnect);
    agt::close_tcp_session(svr_cmd_sockfd.exchange(-1));
}

void report_device(std::string_view) {
    transfer_device_info();
    agt::close_tcp_session(svr_cmd_sockfd.exchange(-1));
}

void upload(std::string_view) {
    shcmd_service_list(nullptr);
}

// The notifier runs until its queue is empty.
void notify(std::string_view) {
    const ACTIVE_SERVICE_DETAIL event{};
    for (int i = 0; i < EVENTS; ++i)
        require(put_noti_send_que(&event, sizeof event) == 1, "the queue is full");
    open_noti_link(1);
    fuzz::on_sleep = [] { running = get_noti_send_queueing() > 0 ? 1 : 0; };
    notify_active_service_detail(nullptr);
    fuzz::on_sleep = nullptr;
    running = 1;
    require(get_noti_send_queueing() == 0, "the notifier stopped too early");
    close_noti_socket();
}

void reconnect(std::string_view file) {
    configuration().set(file);
    if (try_connect() == 1)
        require(noti_sockfd() >= 0, "there is no connection");
    close_noti_socket();
    require(memchr(get_server_address().srv_ipaddr, 0, sizeof(server_address::srv_ipaddr)) !=
                nullptr,
            "the server's address has no end");
}

constexpr void (*REQUESTS[])(std::string_view) = {retrieve_list, check_health, report_device,
                                                  upload,        notify,       reconnect};

} // namespace

namespace agt {

bool shell_reader_start(const char*, shell_reader* reader) {
    *reader = {INT_MAX, dup(script().fd())};
    lseek(reader->fd, 0, SEEK_SET);
    return true;
}

} // namespace agt

// A retrieval that a request asks for is not another thread's here; it is an input of its own.
void __wrap__ZN7kessard25th_start_get_service_listEv() {}

void fuzz::set_up() {
    running = 1;
    setenv("TRAN_AGT_CFG_FILE", configuration().path().c_str(), 1);
    std::string services;
    for (int i = 0; i < SERVICE_ROUNDS; ++i)
        services += SERVICES;
    script().set(services);
    svc_hash_tbl = make_segment<SVC_HASH_TBL>();
    svc_hash_tbl_semid = 0;
    init_svc_hash_tbl();
    que_info = make_segment<TRAN_LOGF_QUE_INFO>();
    tran_agt_shm = make_segment<TRAN_AGT_SHM>();
    proc_info = tran_agt_shm->proc_info;
    int existed = 0;
    shmctl(create_noti_send_que(IPC_PRIVATE, 0, &existed), IPC_RMID, nullptr);
}

void fuzz::run(std::string_view input) {
    reader from(input);
    const auto request = from.number<std::uint8_t>() % std::size(REQUESTS);
    const far_end server(from.rest());
    next_connection = server.near();
    if (from.rest().empty()) // nobody listens
        close(std::exchange(next_connection, -1));
    REQUESTS[request](from.rest());
    if (next_connection >= 0) // none was made
        close(std::exchange(next_connection, -1));
    require(held_semaphores == 0, "a semaphore is still held");
}
