// Upload of a script's service list.
//
// The script prints one service a line, identifier and limit; blocks of fifteen go to the server,
// each answered before the next is filled. A refused block does not stop the upload; any other
// failure ends it. A complete upload, and a server that cannot be reached, start a retrieval of the
// server's list.
#include "shcmd_service_list.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "daemon_thread.h"
#include "field.h"
#include "get_service_list.h"
#include "kessard/cmd_msg.h"
#include "log_printf.h"
#include "printable.h"
#include "process_globals.h"
#include "server_link.h"
#include "settings.h"
#include "shortage.h"
#include "state_file.h"
#include "subprocess.h"
#include "tcp_base.h"
#include "tcp_recv.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr std::size_t LINE_SIZE = 512;
constexpr int SCRIPT_LIMIT_SEC = 600;
constexpr char NO_BLOCK_YET = '2';
constexpr char FIRST_BLOCK = '3';
constexpr char FURTHER_BLOCK = '4';
constexpr exchange_texts texts_of(const char* no_answer) {
    return {.not_sent = "<!> server send error.. slen : %d",
            .no_answer = no_answer,
            .sent = "(I) Send Msg To Server (-> UPDATE_SERVICE_LIST_REQ )"};
}
constexpr exchange_texts FULL_BLOCK =
    texts_of("<!> shcmd_service_list2, server recv error.. rlen : %d");
constexpr exchange_texts LAST_BLOCK =
    texts_of("<!> shcmd_service_list1, server recv error.. rlen : %d");
constexpr std::string_view BLANKS = " \t\n\v\f\r";

TCP_CMD_MSG s_msg;
TCP_CMD_MSG r_msg;
std::atomic<int> uploads{0};
daemon_thread th("shcmd_service_list", shcmd_service_list, "pthread_create error", STATE_UPLOAD,
                 SCRIPT_LIMIT_SEC * 1000);

BODY_UPDATE_SERVICE_LIST_REQ& request() {
    return s_msg.body.update_service_list_req;
}

// Lines of a descriptor, at most LINE_SIZE-1 characters each with their line end; a longer line
// comes in pieces.
struct line_source {
    int fd;
    long long until_ms;    // of the script
    std::size_t held = 0;  // bytes in text
    std::size_t taken = 0; // bytes of the line that was handed out last
    char text[LINE_SIZE] = {};
};

// Whether the script has run for its time. One that writes without a pause is not waited for, so
// the time is looked at for each line.
bool is_late(const line_source& from) {
    return agt::monotonic_ms() >= from.until_ms;
}

// Reads more behind what is held; false at the end of the output and when the thread is cancelled.
bool read_more(line_source* from) {
    const long long left_ms = std::max(from->until_ms - agt::monotonic_ms(), 0LL);
    if (agt::wait_fd(from->fd, POLLIN, static_cast<int>(left_ms)) != agt::wait_result::ready)
        return false;
    const ssize_t got = read(from->fd, from->text + from->held, LINE_SIZE - 1 - from->held);
    if (got > 0)
        from->held += static_cast<std::size_t>(got);
    return got > 0 || (got < 0 && errno == EINTR);
}

// The next line, valid until the next call, in `line` (LINE_SIZE bytes); false at the end.
bool next_line(line_source* from, char* line) {
    from->held -= from->taken;
    std::memmove(from->text, from->text + from->taken, from->held);
    from->taken = 0;
    const void* end = nullptr;
    while ((end = std::memchr(from->text, '\n', from->held)) == nullptr &&
           from->held < LINE_SIZE - 1) {
        if (!read_more(from))
            break;
    }
    if (agt::cancelled() || is_late(*from)) // what is held may be the start of a line
        return false;
    from->taken = end == nullptr
                      ? from->held
                      : static_cast<std::size_t>(static_cast<const char*>(end) - from->text) + 1;
    std::memcpy(line, from->text, from->taken);
    line[from->taken] = '\0';
    return from->taken > 0;
}

std::string_view take_word(std::string_view* text) {
    text->remove_prefix(std::min(text->find_first_not_of(BLANKS), text->size()));
    const std::string_view word = text->substr(0, text->find_first_of(BLANKS));
    text->remove_prefix(word.size());
    return word;
}

template <std::size_t N> void copy_word(char (&field)[N], std::string_view word) {
    std::memcpy(field, word.data(), std::min(word.size(), N - 1));
}

struct upload {
    int conn_sockfd;
    char host_name[65];
    int total = 0;         // services in all
    int count = 0;         // services in the block
    bool no_magic = false; // in the last answer; said once the connection and the script are gone
};

// Parses a line into the next element of the block; false after a log line when it is not two
// words.
bool add_service(upload* up, const char* line) {
    SERVICE_SMALL& element = request().elements[up->count];
    element = {};
    std::string_view text = line;
    const std::string_view service_id = take_word(&text);
    const std::string_view limit = take_word(&text);
    copy_word(element.service_id, service_id);
    if (limit.empty()) {
        agt::log_printf("<!> SKIP.. DATA -> fail get service, format string : %s",
                        agt::printable(line, "\n").c_str());
        return false;
    }
    copy_word(element.limit, limit);
    agt::copy_text(element.host_name, up->host_name);
    ++up->total;
    ++up->count;
    agt::log_printf("\t[#%03d] host_name : %s, service_id : %s, limit : %s", up->total,
                    element.host_name, agt::printable(element.service_id).c_str(),
                    agt::printable(element.limit).c_str());
    return true;
}

// Sends the block and waits for its answer; false when the upload is over, after a log line unless
// the magic is wrong.
bool send_block(upload* up, const exchange_texts& texts) {
    note_pass();
    auto& body = request();
    std::snprintf(body.element_num, sizeof body.element_num, "%0*d", 3, up->count);
    body.result_code[0] = body.result_code[0] == NO_BLOCK_YET ? FIRST_BLOCK : FURTHER_BLOCK;
    if (up->count == SERVICE_SMALL_MAX)
        agt::log_printf("######### element_num string : %s\n", body.element_num);
    if (exchange(up->conn_sockfd, MSG_UPDATE_SERVICE_LIST_REQ, &s_msg, &r_msg, texts) !=
        exchange_result::answered)
        return false;
    up->no_magic = agt::magic_bit_check(up->conn_sockfd, &r_msg) != 1;
    if (up->no_magic)
        return false;
    if (r_msg.hdr.msg_type[0] != MSG_UPDATE_SERVICE_LIST_RSP) {
        agt::log_printf("<!> Response Msg MisMatch Type : '%s'",
                        agt::printable(r_msg.hdr.msg_type[0]).c_str());
        return false;
    }
    agt::log_printf("(I) Receive Msg From Server (<- UPDATE_SERVICE_LIST_RSP )");
    const char result = r_msg.body.update_service_list_rsp.result_code[0];
    if (result == '0')
        agt::log_printf("(I) Update Service List Complete.");
    else
        agt::log_printf("<!> Update Service List Fail. Result Code : '%s'",
                        agt::printable(result).c_str());
    up->count = 0;
    return true;
}

// Uploads the script's lines until `until_ms`; false when the upload is over.
bool upload_lines(upload* up, int script_fd, long long until_ms) {
    line_source source{script_fd, until_ms};
    char line[LINE_SIZE];
    while (next_line(&source, line)) {
        if (add_service(up, line) && up->count == SERVICE_SMALL_MAX && !send_block(up, FULL_BLOCK))
            return false;
    }
    return !agt::cancelled() && !is_late(source);
}

// Closes the script's output and waits for it, as long as the thread is not cancelled. A script
// that runs beyond its limit is ended with all that it started, and so is what it left behind when
// that holds its output.
void end_script(const agt::shell_reader& script, long long until_ms) {
    close(script.fd);
    bool runs = agt::monotonic_ms() >= until_ms;
    while (!runs && waitpid(script.pid, nullptr, WNOHANG) == 0 && agt::sleep_ms(10))
        runs = agt::monotonic_ms() >= until_ms;
    if (!runs)
        return;
    agt::log_printf("<!> script runs for more than %d sec, ended : %s", SCRIPT_LIMIT_SEC,
                    update_service_script);
    kill(-script.pid, SIGKILL);
    while (waitpid(script.pid, nullptr, WNOHANG) == 0 && agt::sleep_ms(10))
        continue;
}

// Runs the script and uploads what it prints; false when the upload ended before its end.
bool run_script(upload* up) {
    agt::log_printf("(I) run script : %s", update_service_script);
    agt::shell_reader script{};
    if (!agt::shell_reader_start(update_service_script, &script)) {
        log_shortage("script", errno);
        return false;
    }
    const long long until_ms = agt::monotonic_ms() + SCRIPT_LIMIT_SEC * 1000LL;
    const bool complete = upload_lines(up, script.fd, until_ms);
    if (!complete) { // the server need not wait for the script's end
        agt::close_tcp_session(up->conn_sockfd);
        up->conn_sockfd = -1;
    }
    end_script(script, until_ms);
    return complete && (up->count == 0 || send_block(up, LAST_BLOCK));
}

// The whole exchange on an open connection; whether it came to its end.
bool upload_services(int conn_sockfd, transfer_figures* figures_of_it) {
    upload up{};
    up.conn_sockfd = conn_sockfd;
    request().result_code[0] = NO_BLOCK_YET;
    const bool complete = put_host_name(up.host_name, sizeof up.host_name) && run_script(&up);
    agt::close_tcp_session(up.conn_sockfd);
    if (up.no_magic)
        agt::log_printf("<!> magic bit mismatch. sockfd : %d, rlen : %d", conn_sockfd,
                        TCP_CMD_MSG_SIZE);
    if (complete)
        figures_of_it->good(up.total);
    if (complete)
        agt::log_printf("(I) Total [%d] Services Server Update, Success..", up.total);
    return complete;
}

int connect_for_upload() {
    const server_address server = get_server_address();
    agt::log_printf("###(I) call thread-function(cmd_service_list)...");
    agt::log_printf("###(I) service block-elements(max %d).", int{SERVICE_SMALL_MAX});
    agt::log_printf("###(I) trying server connect. (ip %s, port %d)", server.srv_ipaddr,
                    server.srv_cmd_port);
    const int conn_sockfd = init_tcp_client(server.srv_ipaddr, server.srv_cmd_port);
    if (conn_sockfd < 0 && !agt::cancelled())
        agt::log_printf("<!> server connection fail. (ip %s, port %d)", server.srv_ipaddr,
                        server.srv_cmd_port);
    if (conn_sockfd >= 0)
        agt::log_printf("(i) server connection success. (ip %s, port %d, fd %d)", server.srv_ipaddr,
                        server.srv_cmd_port, conn_sockfd);
    return conn_sockfd;
}

} // namespace

void th_start_shcmd_service_list() {
    agt::log_printf("(I) run shell-command get service list starting..");
    ++uploads;
    if (!start_thread(th))
        --uploads;
}

void th_cancel_shcmd_service_list() {
    cancel_thread(th);
}

void th_join_shcmd_service_list() {
    if (running == 0)
        th.cancel(); // one that was started after the cancellation
    join_thread(th);
}

bool shcmd_service_list_running() {
    return uploads > 0;
}

void* shcmd_service_list(void*) {
    transfer_figures own(figures->upload);
    const int conn_sockfd = connect_for_upload();
    const bool over = conn_sockfd < 0 || upload_services(conn_sockfd, &own);
    if (over && !agt::cancelled()) {
        agt::log_printf("(I) End Thread-function(cmd_service_list)...");
        th_start_get_service_list();
    }
    --uploads;
    return nullptr;
}

} // namespace kessard
