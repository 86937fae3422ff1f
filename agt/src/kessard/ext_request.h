// Extended requests: shell commands and file transfer for the central server.
//
// Each is served by a forked child of the daemon that owns the connection: the parent has received
// the frame and forked; the child serves it here, closes the connection and exits with status 0,
// whatever happened. Nothing here touches what the child shares with the daemon. SIGCHLD must be at
// its default, or no command has an exit status.
#pragma once

#include "kessard/cmd_msg.h"

namespace kessard {

// The result of one command line.
struct output {
    int exit_code;
    int length;  // bytes of output
    char* buf_p; // heap copy of the output, owned by the record; null without output
};

// One request to run commands.
struct ST_CMD_EXEC {
    char type;      // not set
    int tot_length; // of the response behind its header
    int cmd_count;
    char* cmds[EXT_ITEM_MAX]; // pointing into the request
    struct output outputs[EXT_ITEM_MAX];
};

// Serves the extended request `frame` of `rlen` bytes and answers it on `sockfd`, which stays open.
// A frame that is no request or has an unknown code is logged and not answered.
void serve_ext_request(int sockfd, const unsigned char* frame, int rlen);

// Splits `data` (terminated, taken apart in place) into command lines, at most `time_value` of them
// and at most 30, and runs them one after the other, each within 10 seconds. False when `data` is
// null or `length` below 1. `exec`, which must be zeroed, then owns the outputs until free_outputs.
bool decode_cmd_packet(char* data, int length, ST_CMD_EXEC* exec, int time_value);

// Sends the results: a header with their total length, then exit code, length and output of each
// command. The number of bytes sent behind the header; below 1 when the header was not sent. The
// outputs are freed in any case.
int send_cmd_response(int sockfd, ST_CMD_EXEC* exec);

// Frees the outputs of a record.
void free_outputs(ST_CMD_EXEC* exec);

// Shows a record on standard output, for debugging.
// Nothing in the programs calls it.
void dump_cmd_exec(const ST_CMD_EXEC* exec);

} // namespace kessard
