// What the daemon reads line by line: the output of the service script, which it uploads, and the
// API statistics file. The input is both.
#include <climits>
#include <vector>

#include "get_service_list.h"
#include "harness.h"
#include "health_check.h"
#include "kessard/cmd_msg.h"
#include "process_globals.h"
#include "settings.h"
#include "shcmd_service_list.h"
#include "subprocess.h"

namespace {

using fuzz::require;

constexpr std::size_t STATISTICS_SIZE = MSG_API_STAT_MAX * sizeof(API_STAT_STR);

std::string_view script_output;

const fuzz::memory_file& statistics() {
    static const fuzz::memory_file made;
    return made;
}

// As many good answers as the shortest lines need.
std::string answers(std::size_t input_size) {
    TCP_CMD_MSG answer{{TCP_CMD_MAGIC_BYTES, {MSG_UPDATE_SERVICE_LIST_RSP, 0}}, {}};
    answer.body.update_service_list_rsp.result_code[0] = '0';
    std::string all;
    for (std::size_t i = 0; i < input_size / (4 * SERVICE_SMALL_MAX) + 1; ++i)
        all.append(reinterpret_cast<const char*>(&answer), sizeof answer);
    return all;
}

template <std::size_t N> bool is_word(const char (&field)[N]) {
    return memchr(field, 0, N) != nullptr && std::strpbrk(field, " \t\n\v\f\r") == nullptr;
}

void check_block(const TCP_CMD_MSG& frame, bool first, bool last) {
    const BODY_UPDATE_SERVICE_LIST_REQ& body = frame.body.update_service_list_req;
    require(frame.hdr.msg_type[0] == MSG_UPDATE_SERVICE_LIST_REQ &&
                body.result_code[0] == (first ? '3' : '4'),
            "a block has another type");
    const int count = std::atoi(std::string(body.element_num, 3).c_str());
    require(count >= 1 && count <= SERVICE_SMALL_MAX && (last || count == SERVICE_SMALL_MAX),
            "a block has no count");
    for (int i = 0; i < count; ++i) {
        const SERVICE_SMALL& one = body.elements[i];
        require(is_word(one.service_id) && is_word(one.limit) && one.host_name[0] != '\0',
                "a service is no service");
    }
}

void check_upload(const std::string& sent) {
    require(sent.size() % TCP_CMD_MSG_SIZE == 0, "a block was sent in part");
    for (std::size_t at = 0; at < sent.size(); at += TCP_CMD_MSG_SIZE) {
        TCP_CMD_MSG frame;
        std::memcpy(&frame, sent.data() + at, sizeof frame);
        check_block(frame, at == 0, at + TCP_CMD_MSG_SIZE == sent.size());
    }
}

// What is read stands in its two records and nowhere else; without a file they are left alone.
void check_statistics(std::string_view input) {
    statistics().set(input);
    const fuzz::exact_text records(std::string(STATISTICS_SIZE, '.'));
    kessard::set_api_stat(records.get());
    require(records.get()[STATISTICS_SIZE] == '\0', "a record is longer than it is");
    require(!input.empty() || std::string(records.get()) == std::string(STATISTICS_SIZE, ' '),
            "no line is a line");
}

} // namespace

namespace agt {

// The script has printed the input.
bool shell_reader_start(const char*, shell_reader* reader) {
    static const fuzz::memory_file output;
    output.set(script_output);
    *reader = {INT_MAX, dup(output.fd())};
    return true;
}

} // namespace agt

namespace kessard {

void th_start_get_service_list() {}

} // namespace kessard

void fuzz::set_up() {
    kessard::running = 1;
    std::snprintf(kessard::api_stat_out_fn, sizeof kessard::api_stat_out_fn, "%s",
                  statistics().path().c_str());
    agt::shell_reader opened{};
    if (agt::shell_reader_start("", &opened))
        close(opened.fd);
}

void fuzz::run(std::string_view input) {
    const far_end server(answers(input.size()));
    next_connection = server.near();
    script_output = input;
    kessard::shcmd_service_list(nullptr);
    check_upload(server.heard());
    check_statistics(input);
}
