// The commands of the server: the input is what it sends, frame after frame, to the dispatcher.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>

#include "access_control.h"
#include "client.h"
#include "cmd_event.h"
#include "get_service_list.h"
#include "harness.h"
#include "kessard/cmd_msg.h"
#include "process_globals.h"
#include "service_table.h"
#include "set_svc_hash_tbl.h"
#include "settings.h"
#include "tls.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"

extern "C" pid_t __wrap_fork();

namespace {

using namespace kessard;
using fuzz::far_end;
using fuzz::require;

constexpr std::size_t RECORD_BYTES[] = {100, TCP_CMD_MSG_SIZE, 3000, 16384};

int retrievals = 0; // asked for by the frame at hand

void list_client(int sockfd) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    require(add_cmd_client(sockfd, peer) == 1, "the list of connections is full");
    FD_SET(sockfd, &readFds);
    maxFd = sockfd;
}

void check_answer(std::string_view frame, const std::string& answer) {
    const bool renews = frame.size() == TCP_CMD_MSG_SIZE &&
                        frame[4] == MSG_RENEW_SERVICE_LIST_REQ && !answer.empty();
    require(retrievals == (renews ? 1 : 0), "a retrieval was started or not started");
    if (answer.empty())
        return;
    require(answer.size() == TCP_CMD_MSG_SIZE && frame.size() == TCP_CMD_MSG_SIZE,
            "the answer is no frame");
    require(answer.compare(0, 4, "\x90\x85\x20\x83") == 0, "the answer has no magic");
    require(answer[4] == frame[4] + 1, "the answer has another type");
}

void check_objects() {
    require(fuzz::held_semaphores == 0, "a semaphore is still held");
    if (const std::string fault = fuzz::table_fault(*svc_hash_tbl); !fault.empty())
        fuzz::fail(fault);
    const int rows = tran_agt_shm->file_sys_num;
    require(rows >= 0 && rows <= FILE_SYSTEM_MAX, "too many file systems");
    for (int i = 0; i < rows; ++i)
        require(memchr(tran_agt_shm->file_system[i].file_system, 0,
                       sizeof(FILE_SYSTEM::file_system)) != nullptr,
                "the name of a file system has no end");
    const int queues = que_info->qcnt;
    require(queues >= 0 && queues <= LOG_QUE_MAX && (queues & (queues - 1)) == 0,
            "the number of queues is none");
}

// A frame may come in several records, and several frames in one.
void serve(const far_end& server, std::string_view input) {
    const int sockfd = server.near();
    list_client(sockfd);
    for (std::size_t at = 0; client_list.client_num > 0; at += TCP_CMD_MSG_SIZE) {
        std::string answer;
        retrievals = 0;
        do {
            cmd_event(&client_list.client[0]);
            answer = server.heard();
        } while (answer.empty() && client_list.client_num > 0 && agt::has_pending_data(sockfd));
        check_answer(input.substr(std::min(at, input.size()), TCP_CMD_MSG_SIZE), answer);
    }
    require(!FD_ISSET(sockfd, &readFds) && maxFd == agt_cmd_sockfd,
            "a dropped connection is still looked at");
}

} // namespace

namespace kessard {

void th_start_get_service_list() {
    ++retrievals;
}

} // namespace kessard

// An extended request finds no process to be served by.
pid_t __wrap_fork() {
    errno = EAGAIN;
    return -1;
}

void fuzz::set_up() {
    running = 1;
    own_identity();
    svc_hash_tbl = make_segment<SVC_HASH_TBL>();
    svc_hash_tbl_semid = 0;
    que_info = make_segment<TRAN_LOGF_QUE_INFO>();
    tran_agt_shm = make_segment<TRAN_AGT_SHM>();
    default_timeout_sec = 30;
    FD_ZERO(&readFds);
    init_cmd_client();
    init_svc_hash_tbl();
}

void fuzz::run(std::string_view input) {
    fuzz::empty_table(*svc_hash_tbl);
    *que_info = {};
    remote_commands_yn = input.size() % 2 == 0;
    if (input.size() / 2 % 4 == 1)
        serve(far_end(input, RECORD_BYTES[input.size() / 8 % std::size(RECORD_BYTES)]), input);
    else
        serve(far_end(input), input);
    check_objects();
}
