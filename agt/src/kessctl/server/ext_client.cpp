// Extended requests: the request itself, and shell commands.
#include "server/ext_client.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "tcp_recv.h"
#include "wire/frame.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr std::size_t ERROR_TEXT_MAX = 4096;
constexpr std::size_t PIECE_BYTES = std::size_t{1024} * 1024;
constexpr int TIMED_OUT_CODE = -99;
constexpr int UNKNOWN_CODE = -1;
constexpr char NO_FILE[] = "invliad file="; // the agent's spelling
constexpr char REPORT[] = "echo;";          // in front of a command that reports its end

std::uint32_t number_at(const unsigned char* bytes) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return ntohl(value);
}

ext_result failure(const command_client& client) {
    return {ext_result::failed, client.error()};
}

// The agent's text; it may announce more than it sends.
std::string receive_error_text(command_client& client, std::uint32_t length, int limit_ms) {
    std::string text(std::min<std::size_t>(length, ERROR_TEXT_MAX), '\0');
    if (text.empty() || !client.receive_bytes(text.data(), text.size(), limit_ms))
        return "the agent gave no reason; its log does";
    const bool is_unseen = text.starts_with(NO_FILE);
    return "the agent says: " + printable(text) +
           (is_unseen ? ", no file there that it may look at" : "");
}

bool receive_output(command_client& client, std::size_t length, int limit_ms, std::string* output) {
    while (output->size() < length) {
        const std::size_t at = output->size();
        output->resize(at + std::min(length - at, PIECE_BYTES));
        if (!client.receive_bytes(output->data() + at, output->size() - at, limit_ms)) {
            output->resize(at);
            return false;
        }
    }
    return true;
}

} // namespace

std::string plan_requests(const ext_form& form, const std::vector<std::string>& items,
                          std::vector<ext_request>* out) {
    out->clear();
    for (std::size_t i = 0; i < items.size(); ++i) {
        const std::size_t head_size = form.head.empty() ? 0 : form.head.size() + 1;
        if (head_size + items[i].size() > EXT_DATA_MAX)
            return std::string("'") + items[i].substr(0, 60) +
                   "...' is too long: a request carries " + std::to_string(EXT_DATA_MAX) + " bytes";
        if (out->empty() || out->back().count == form.most ||
            out->back().data.size() + 1 + items[i].size() > EXT_DATA_MAX)
            out->push_back({form.code, form.head, i, 0});
        ext_request& request = out->back();
        if (!request.data.empty())
            request.data += static_cast<char>(EXT_SEPARATOR);
        request.data += items[i];
        ++request.count;
    }
    return {};
}

ext_form command_form(int time_value) {
    const int most = std::min<int>(time_value == 0 ? DEFAULT_TIME_VALUE : time_value, EXT_ITEM_MAX);
    return {time_value == 0 ? EXT_SVC_CMD : EXT_SVC_CMD_TIMEOUT,
            time_value == 0 ? "" : std::to_string(time_value), static_cast<std::size_t>(most)};
}

std::string reporting(const ext_form& form, const std::string& command) {
    const std::size_t head_size = form.head.empty() ? 0 : form.head.size() + 1;
    return head_size + std::size(REPORT) - 1 + command.size() > EXT_DATA_MAX ? command
                                                                             : REPORT + command;
}

std::string check_item(const std::string& text) {
    if (text.empty())
        return "an empty text cannot be sent";
    if (text.find(static_cast<char>(EXT_SEPARATOR)) != std::string::npos)
        return std::string("'") + printable(text) +
               "' holds the byte 0x1F, which separates the items of a request";
    return {};
}

TCP_CMD_MSG ext_frame(const ext_request& request) {
    TCP_CMD_MSG frame = start_frame(MSG_EXT_REQ);
    char* bytes = reinterpret_cast<char*>(&frame);
    std::memcpy(bytes + EXT_REQ_CODE_AT, request.code, EXT_REQ_CODE_SIZE);
    bytes[EXT_REQ_PDU_AT] = EXT_PDU_REQUEST;
    std::copy_n(request.data.begin(), std::min(request.data.size(), EXT_DATA_MAX),
                bytes + EXT_REQ_DATA_AT);
    return frame;
}

bool send_request(command_client& client, const ext_request& request, int limit_ms) {
    return client.send(ext_frame(request), limit_ms);
}

ext_result receive_header(command_client& client, int limit_ms, std::uint32_t* length) {
    EXT_RSP_HDR header;
    if (!client.receive_bytes(&header, sizeof header, limit_ms))
        return failure(client);
    if (agt::magic_bit_check(client.fd(), &header) != 1)
        return {ext_result::failed, "the answer does not start with the magic bytes"};
    *length = number_at(header.length);
    if (header.status == EXT_STATUS_ACCEPTED)
        return {};
    if (header.status == EXT_STATUS_ERROR)
        return {ext_result::refused, receive_error_text(client, *length, limit_ms)};
    return {ext_result::failed, "the answer's status is '" + printable({&header.status, 1}) + "'"};
}

void take_report(command_result* result) {
    result->reported = result->output.starts_with('\n');
    if (result->reported)
        result->output.erase(0, 1);
}

command_end end_of(const command_result& result) {
    if (result.output.empty() && !result.reported)
        return result.exit_code == UNKNOWN_CODE ? command_end::no_output : command_end::not_started;
    switch (result.exit_code) {
    case 0:
        return command_end::succeeded;
    case TIMED_OUT_CODE:
        return command_end::timed_out;
    case UNKNOWN_CODE:
        return command_end::signalled;
    default:
        return command_end::exit_status;
    }
}

ext_result run_commands(command_client& client, const ext_request& request, int limit_ms,
                        std::vector<command_result>* results) {
    const long long all_ms =
        limit_ms + static_cast<long long>(request.count) * AGENT_COMMAND_LIMIT_MS;
    std::uint32_t left = 0;
    if (!send_request(client, request, limit_ms))
        return failure(client);
    const ext_result answered =
        receive_header(client, static_cast<int>(std::min(all_ms, 86400000LL)), &left);
    if (!answered.ok())
        return answered;
    for (std::size_t i = 0; i < request.count; ++i) {
        unsigned char head[8];
        if (left < sizeof head)
            return {ext_result::failed, "the answer holds fewer results than there are commands"};
        if (!client.receive_bytes(head, sizeof head, limit_ms))
            return failure(client);
        const std::uint32_t length = number_at(head + 4);
        left -= static_cast<std::uint32_t>(sizeof head);
        if (length > left)
            return {ext_result::failed, "a result is longer than the answer"};
        left -= length;
        results->push_back({static_cast<int>(number_at(head)), {}});
        results->back().whole = receive_output(client, length, limit_ms, &results->back().output);
        if (!results->back().whole)
            return failure(client);
    }
    return {};
}

} // namespace kessctl
