// Extended requests as the central server makes them: the request itself, and shell commands on the
// agent's host.
//
// A request is one frame and needs a connection of its own, which the agent closes afterwards. The
// answer starts with a header (magic, status, length); an error's text or the results follow, each
// result a code and a length before its output. Lengths are the agent's to say and are checked
// against what is left of the answer.
//
// The agent cuts a request's items at a separator and has room for few of them, joining what is too
// much to the last one; so what is to be sent is planned first, as several requests where one
// cannot carry it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "server/command_client.h"

namespace kessctl {

inline constexpr std::size_t EXT_DATA_MAX = std::size_t{TCP_CMD_MSG_SIZE} - EXT_REQ_DATA_AT;
inline constexpr int AGENT_COMMAND_LIMIT_MS = 10000; // of each command of a request
inline constexpr std::size_t UPLOAD_MAX = 9;         // files of one request
inline constexpr int DEFAULT_TIME_VALUE = 10;        // of a request that carries none

// What became of a request.
struct ext_result {
    enum outcome_kind { done, refused, failed } outcome = done;
    std::string text; // the agent's when it refused, else why it failed
    bool ok() const { return outcome == done; }
};

struct ext_request {
    const char* code = nullptr; // EXT_SVC_*
    std::string data;           // items with separators between them
    std::size_t first = 0;      // the planned items that it carries
    std::size_t count = 0;
};

struct ext_form {
    const char* code;
    std::string head; // item in front of each request's own, none when empty
    std::size_t most; // items of one request
};

// Spreads the items over requests, in their order. Empty on success, else which item no request can
// carry.
[[nodiscard]] std::string plan_requests(const ext_form& form, const std::vector<std::string>& items,
                                        std::vector<ext_request>* out);

// The form of a request for commands; `time_value` 0 sends none. The agent makes at most that many
// commands (ten without a value, never more than thirty) of a request's data.
ext_form command_form(int time_value);

// A command that reports its end even when it writes nothing: the agent tells the exit status only
// of a command that wrote something, so an empty line goes out in front of its output. The command
// as it is where a request has no room for that.
std::string reporting(const ext_form& form, const std::string& command);

// Empty when the text can be an item, else why not.
[[nodiscard]] std::string check_item(const std::string& text);

// The frame of a request; data that no plan made is cut to what the frame holds.
TCP_CMD_MSG ext_frame(const ext_request& request);

// Sends the frame of a request; false when that failed, and the client's error() says why.
[[nodiscard]] bool send_request(command_client& client, const ext_request& request, int limit_ms);

// Receives the header that starts every answer; `length` is what follows. An error answer is
// received whole.
[[nodiscard]] ext_result receive_header(command_client& client, int limit_ms,
                                        std::uint32_t* length);

struct command_result {
    int exit_code;
    std::string output;
    bool whole = true;     // what came of the output is all of it
    bool reported = false; // the code is the command's own although the output may be empty
};

// How a command ended, as far as its result tells. Of one that writes nothing and does not report
// its end, the agent has the same code whatever happened.
enum class command_end { succeeded, exit_status, timed_out, signalled, no_output, not_started };
command_end end_of(const command_result& result);

// Takes the line of a reporting command off the output of its result. A shell that finds its text
// wrong writes that instead.
void take_report(command_result* result);

// Runs the commands of one request on the agent's host, waiting for them and `limit_ms` more. What
// came before a failure is appended to `results` too.
[[nodiscard]] ext_result run_commands(command_client& client, const ext_request& request,
                                      int limit_ms, std::vector<command_result>* results);

} // namespace kessctl
