// Dispatch of the extended requests, and shell commands.
#include "ext_request.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

#include "audit.h"
#include "ext_file.h"
#include "ext_reply.h"
#include "field.h"
#include "log_printf.h"
#include "printable.h"
#include "shortage.h"
#include "state_file.h"
#include "subprocess.h"
#include "tcp_send.h"
#include "usrutil.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr int DEFAULT_TIME_VALUE = 10;
constexpr int COMMAND_LIMIT_SEC = 10;
constexpr int TIMED_OUT_CODE = -99;
constexpr int NO_OUTPUT_CODE = -1;
constexpr mode_t COMMAND_MASK = 022; // in the place of a daemon's, which is empty
constexpr char SEPARATORS[] = {EXT_SEPARATOR, '\0'};

// What goes out in front of each output.
struct result_head {
    std::uint32_t exit_code; // network order, as is the length
    std::uint32_t length;
};
static_assert(sizeof(result_head) == 8);

// Thirty outputs of the largest size have a total length that the response can carry.
static_assert(EXT_ITEM_MAX * (agt::SUBPROCESS_OUTPUT_MAX + sizeof(result_head)) <= INT_MAX);

// The status is the command's own, whatever the answer has.
void audit_run(const char* command, const agt::subprocess_result_t* result, long long ms) {
    const bool ran = result != nullptr;
    const std::string end = !ran                      ? "none"
                            : result->is_timeout != 0 ? "timeout"
                            : result->signal_number >= 0
                                ? "signal " + std::to_string(result->signal_number)
                                : std::to_string(result->exit_code);
    audit_request("remote-command", "exit=%s seconds=%.3f bytes=%zu text=%s", end.c_str(),
                  static_cast<double>(ms) / 1000, ran ? result->stdout_.length : 0, command);
}

void count_run(const agt::subprocess_result_t* result) {
    figure_add(figures->remote_commands);
    if (result != nullptr && result->is_timeout != 0)
        figure_add(figures->remote_commands_timed_out);
    else if (!agt::subprocess_completed_successfully(result))
        figure_add(figures->remote_commands_failed);
}

// The output is empty when the command wrote nothing; its exit code is lost then, whatever it was.
void run_command(const char* command, output& out, int& tot_length) {
    tot_length += static_cast<int>(sizeof(result_head));
    const long long start_ms = agt::monotonic_ms();
    agt::subprocess_result_t* result =
        agt::subprocess_exec_output_timeout_ex(command, COMMAND_LIMIT_SEC);
    if (result == nullptr)
        log_shortage("command", errno);
    count_run(result);
    audit_run(command, result, agt::monotonic_ms() - start_ms);
    if (result == nullptr)
        return;
    out.exit_code = result->is_timeout != 0 ? TIMED_OUT_CODE : result->exit_code;
    out.length = static_cast<int>(result->stdout_.length);
    if (out.length == 0)
        out.exit_code = NO_OUTPUT_CODE;
    else
        out.buf_p = std::exchange(result->stdout_.buf_p, nullptr);
    if (result->is_cut != 0)
        agt::log_printf("<!> output of a command is cut at %d bytes", out.length);
    tot_length += out.length;
    agt::subprocess_result_free(result);
}

// While it is on, what is sent is gathered; off lets it go.
void gather_sent(int sockfd, int on) {
    setsockopt(sockfd, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

// Sends what a result has, its head first. The bytes of what went out whole.
int send_result(int sockfd, const output& out) {
    const result_head head = {htonl(static_cast<std::uint32_t>(out.exit_code)),
                              htonl(static_cast<std::uint32_t>(out.length))};
    if (agt::send_tcp_data(sockfd, &head, sizeof head) < 1)
        return 0;
    const int slen = out.length == 0 ? 0 : agt::send_tcp_data(sockfd, out.buf_p, out.length);
    return static_cast<int>(sizeof head) + std::max(slen, 0);
}

int send_results(int sockfd, const ST_CMD_EXEC& exec) {
    const EXT_RSP_HDR header =
        make_ext_header(EXT_STATUS_ACCEPTED, static_cast<std::uint32_t>(exec.tot_length));
    gather_sent(sockfd, 1);
    const int slen = agt::send_tcp_data(sockfd, &header, sizeof header);
    if (slen < 1) {
        agt::log_printf("<!> tcp error.. for header: %d", slen);
        return slen;
    }
    agt::log_printf("(i) send header... ok.. len=(%d)", slen);
    int total = 0;
    bool whole = true;
    for (int i = 0; i < exec.cmd_count && whole; ++i) {
        const int sent = send_result(sockfd, exec.outputs[i]);
        whole = sent == static_cast<int>(sizeof(result_head)) + exec.outputs[i].length;
        total += sent;
    }
    gather_sent(sockfd, 0);
    agt::log_printf("(i) send datas... ok.. len=(%d)", total);
    return total;
}

// The time value 0, or none, stands for the default; one beyond an int loses its high bits.
int take_time_value(char*& data, int& length) {
    const int value = static_cast<int>(std::strtol(data, nullptr, 10));
    char* separator = std::strchr(data, EXT_SEPARATOR);
    if (separator != nullptr) {
        length -= static_cast<int>(separator + 1 - data) + 1; // exactly what remains of the frame
        data = separator + 1;
    }
    return value == 0 ? DEFAULT_TIME_VALUE : value;
}

// The files that commands make are not everybody's to write.
void set_command_mask() {
    if (const mode_t own = umask(COMMAND_MASK); own != 0)
        umask(own);
}

void run_commands(int sockfd, char* data, int length, int time_value) {
    agt::log_printf("(i) MSGRCV : [[ EXT_REQ - SVC_CMD ]] len=%d, timeout=%d", length, time_value);
    set_command_mask();
    ST_CMD_EXEC exec{};
    if (!decode_cmd_packet(data, length, &exec, time_value))
        return;
    const int len = send_cmd_response(sockfd, &exec);
    if (len < 1)
        agt::log_printf("<!> send_cmd_response() error.. len=%d", len);
}

void svc_cmd(int sockfd, char* data, int length) {
    run_commands(sockfd, data, length, DEFAULT_TIME_VALUE);
}

void svc_cmd_timeout(int sockfd, char* data, int length) {
    const int time_value = take_time_value(data, length);
    run_commands(sockfd, data, length, time_value);
}

void svc_file_up(int sockfd, char* data, int length) {
    agt::log_printf("(i) MSGRCV : [[ EXT_REQ - SVC_FILE_UP ]] ");
    file_upload(sockfd, data, length);
}

void svc_file_down(int sockfd, char* data, int length) {
    agt::log_printf("(i) MSGRCV : [[ EXT_REQ - SVC_FILE_DOWN ]] ");
    file_download(sockfd, data, length);
}

struct request {
    const char* code;
    void (*serve)(int sockfd, char* data, int length);
};

agt::printable shown_start(const char* text, std::size_t most) {
    return agt::printable({text, agt::text_length(text, most)});
}

constexpr request REQUESTS[] = {
    {EXT_SVC_CMD, svc_cmd},
    {EXT_SVC_CMD_TIMEOUT, svc_cmd_timeout},
    {EXT_SVC_FILE_UP, svc_file_up},
    {EXT_SVC_FILE_DOWN, svc_file_down},
};

} // namespace

bool decode_cmd_packet(char* data, int length, ST_CMD_EXEC* exec, int time_value) {
    if (data == nullptr || length < 1) {
        agt::log_printf("<!> decode_cmd_packet() error! buffer is null.. len=(%d)", length);
        return false;
    }
    exec->cmd_count =
        agt::str_split(data, SEPARATORS, exec->cmds, std::min(time_value, int{EXT_ITEM_MAX}));
    for (int i = 0; i < exec->cmd_count; ++i)
        run_command(exec->cmds[i], exec->outputs[i], exec->tot_length);
    return true;
}

int send_cmd_response(int sockfd, ST_CMD_EXEC* exec) {
    const int len = send_results(sockfd, *exec);
    free_outputs(exec);
    return len;
}

void free_outputs(ST_CMD_EXEC* exec) {
    for (output& out : exec->outputs)
        std::free(std::exchange(out.buf_p, nullptr));
}

void dump_cmd_exec(const ST_CMD_EXEC* exec) {
    const char double_line[] = "==============================";
    const char line[] = "------------------------------";
    std::printf("%s\n", double_line);
    std::printf("type          = |%c|\n", exec->type);
    std::printf("tot_length    = |%ld|\n", static_cast<long>(exec->tot_length));
    std::printf("cmd_count     = |%d|\n", exec->cmd_count);
    for (int i = 0; i < exec->cmd_count; ++i)
        std::printf("%2d : |%s|\n", i, exec->cmds[i]);
    for (int i = 0; i < exec->cmd_count; ++i) {
        const output& out = exec->outputs[i];
        std::printf("exit_code=|%d|, data_length=|%ld|\n", out.exit_code,
                    static_cast<long>(out.length));
        std::printf("|%s|\n%s\n", out.buf_p != nullptr ? out.buf_p : "", line);
    }
    std::printf("%s\n", double_line);
}

void serve_ext_request(int sockfd, const unsigned char* frame, int rlen) {
    char packet[TCP_CMD_MSG_SIZE + 1] = {};
    const int received = std::clamp(rlen, 0, int{TCP_CMD_MSG_SIZE});
    std::memcpy(packet, frame, static_cast<std::size_t>(received));
    const char* code = packet + EXT_REQ_CODE_AT;
    const char* pdu = packet + EXT_REQ_PDU_AT;
    const auto* wanted =
        std::find_if(std::begin(REQUESTS), std::end(REQUESTS), [code](const request& known) {
            return std::memcmp(known.code, code, EXT_REQ_CODE_SIZE) == 0;
        });
    if (*pdu != EXT_PDU_REQUEST)
        agt::log_printf("<!> unsupported  EXT_PDU = |%s|", shown_start(pdu, 1).c_str());
    else if (wanted == std::end(REQUESTS))
        agt::log_printf("<!> unsupported EXT_REQ = |%s|",
                        shown_start(code, EXT_REQ_CODE_SIZE).c_str());
    else
        wanted->serve(sockfd, packet + EXT_REQ_DATA_AT, received - EXT_REQ_PDU_AT);
}

} // namespace kessard
