// File transfer to and from the agent's host, as the central server does it.
//
// An upload to the names that files are to have would leave half of one there when it breaks off.
// So files are sent under temporary names in the same directory and then moved by a command, which
// the agent refuses where it refuses transfers, and nowhere else. It replaces what an upload could
// have written to, regular files, behind a link too, and gives the new file the owner of the old
// one.
//
// An upload announces its files in the request; the agent answers with a header, takes their bytes
// one after the other and closes the connection once it has them all, or sends an error header in
// between. A download is answered with the names, sizes and permissions of the files, then their
// bytes; the agent waits for one byte back.
//
// A download writes to temporary names, and the files take their own only when all of the request
// have come: their bytes follow one another without a mark, so one that the agent sends short is
// filled with the next one's, and only the end shows it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "server/ext_client.h"

namespace kessctl {

struct local_file {
    std::string path;
    std::string name;      // its base name
    std::string sent_name; // the one that it gets on the agent's host at first
    std::uint32_t size = 0;
    mode_t permission = 0; // the nine bits of reading, writing and executing
};

// Told how much of a file has gone over; never empty.
using transfer_observer =
    std::function<void(const std::string& name, std::uint64_t done, std::uint64_t size)>;

// The way of an upload's files to their names: sent under temporary ones beside them, then moved by
// commands of the agent's shell.
struct placing {
    std::vector<std::string> commands; // each moves some files, and removes what it cannot move
    std::string remove;                // removes what of the files is there under a temporary name
};

// Gives the files temporary names of their own and makes the commands for them; `directory` as the
// agent is told it. Empty, or which name is too long for a command.
[[nodiscard]] std::string plan_placing(const std::string& directory, std::vector<local_file>* files,
                                       placing* out);

// Looks at a file to upload. Empty on success, else why it cannot be uploaded.
[[nodiscard]] std::string describe_file(const std::string& path, local_file* out);

// The items of an upload request's plan; the request's head is the directory.
std::string upload_item(const local_file& file);

// Uploads the files of one planned request, `files` being those of the whole plan. The agent keeps
// what it has got of a file when the transfer fails.
[[nodiscard]] ext_result upload_files(command_client& client, const ext_request& request,
                                      const std::vector<local_file>& files, int limit_ms,
                                      const transfer_observer& observe);

// Downloads the files of one planned request into `directory`, `paths` being those of the whole
// plan, and gives them the permission that the agent announces, without set-id bits. Each must have
// the name that was asked for; a variable in it stands for any text. The names join `taken`, which
// none of them may be in already: two files of one name would replace one another. A symbolic link
// of a file's name is replaced. When the transfer fails, none of them is there.
[[nodiscard]] ext_result download_files(command_client& client, const ext_request& request,
                                        const std::vector<std::string>& paths,
                                        const std::string& directory, int limit_ms,
                                        const transfer_observer& observe,
                                        std::set<std::string>* taken);

} // namespace kessctl
