// Extended requests as the child serves them. Of the input the part up to the byte 0x1e is the
// request from its code on, what follows is the rest that the server sends. No command is run, and
// files lie under a root directory of their own.
#include "ext_request.h"

#include <sys/stat.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "confined_files.h"
#include "harness.h"

namespace {

using fuzz::require;

constexpr char END_OF_REQUEST = 0x1e;
constexpr char MAGIC[] = "\x90\x85\x20\x83\x02";

std::string root() {
    return fuzz::directory() + "/root";
}

void make_root() {
    const std::string at = root();
    std::filesystem::create_directories(at + "/d");
    std::ofstream(at + "/f") << "some text\n";
    std::ofstream(at + "/d/g") << std::string(300, 'g');
    std::ofstream(at + "/empty");
    require(symlink("f", (at + "/l").c_str()) == 0 && symlink("/d", (at + "/ld").c_str()) == 0 &&
                mkfifo((at + "/p").c_str(), 0600) == 0,
            "no root directory");
}

std::uint32_t number_at(const std::string& bytes, std::size_t at) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data() + at, sizeof number);
    return ntohl(number);
}

// The sizes of the files that a download announces.
std::size_t announced_bytes(const std::string& answer) {
    std::size_t total = 0;
    for (std::uint32_t i = 0; i < number_at(answer, sizeof(EXT_RSP_HDR)); ++i)
        total += number_at(answer, sizeof(EXT_RSP_HDR) + 4 + i * sizeof(ST_FILE_INFO));
    return total;
}

// A text behind an error, results behind commands, an announcement and the files' content behind a
// download.
void check_answer(std::string_view request, const std::string& answer) {
    if (answer.empty())
        return;
    require(answer.size() >= sizeof(EXT_RSP_HDR) && answer.compare(0, 4, MAGIC, 4) == 0,
            "the answer has no header");
    const std::size_t length = number_at(answer, sizeof(EXT_RSP_HDR) - 4);
    const std::size_t behind = answer.size() - sizeof(EXT_RSP_HDR);
    const std::string_view code = request.substr(0, EXT_REQ_CODE_SIZE);
    if (answer[4] == EXT_STATUS_ERROR)
        require(behind == length, "the text of an error has another length");
    else if (code == EXT_SVC_CMD || code == EXT_SVC_CMD_TIMEOUT)
        require(behind == length, "the results have another length");
    else if (code == EXT_SVC_FILE_DOWN)
        require(behind == length + announced_bytes(answer), "a download has another length");
}

} // namespace

void fuzz::set_up() {
    setenv("D", "/d", 1);
    setenv("LONG", std::string(300, 'x').c_str(), 1);
    make_root();
}

void fuzz::run(std::string_view input) {
    reader from(input);
    const std::string_view request = from.text_until(END_OF_REQUEST);
    std::string frame = std::string(MAGIC) + std::string(request);
    frame.resize(TCP_CMD_MSG_SIZE);
    const far_end server(from.rest());
    bool changed = false;
    {
        const confinement confined(root());
        kessard::serve_ext_request(
            server.near(), reinterpret_cast<const unsigned char*>(frame.data()), TCP_CMD_MSG_SIZE);
        changed = confined.changed();
    }
    close(server.near());
    // A refusal follows the answer that accepted an upload.
    if (request.substr(0, EXT_REQ_CODE_SIZE) != EXT_SVC_FILE_UP)
        check_answer(request, server.heard());
    if (changed) {
        std::filesystem::remove_all(root());
        make_root();
    }
}
