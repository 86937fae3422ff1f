// The configuration reader, and what the daemon takes from the file while it runs. The first line
// of the input names a section, a keyword and the number of a word; the rest is the file.
#include "read_cfg.h"

#include <arpa/inet.h>
#include <sys/ipc.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "access_control.h"
#include "check_network.h"
#include "harness.h"
#include "settings.h"
#include "util.h"
#include "worker_cfg.h"

extern "C" int __wrap_shmget(key_t key, std::size_t size, int flags);
extern "C" int __wrap_semget(key_t key, int count, int flags);

namespace {

using fuzz::require;

const fuzz::memory_file& file() {
    static const fuzz::memory_file made;
    return made;
}

constexpr char BLANKS[] = " \t\n\v\f\r";

struct place {
    std::string section;
    std::string keyword;
    int word;
};

place take_place(std::string_view line) {
    fuzz::reader from(line);
    const std::string section(from.text_until(' '));
    const std::string keyword(from.text_until(' '));
    const std::string word(from.rest());
    // Each ends at its first NUL.
    return {std::string(section.c_str()), std::string(keyword.c_str()),
            static_cast<int>(std::strtol(word.c_str(), nullptr, 10))};
}

// The line of the entry as the two functions on an open file find it.
int line_by_hand(const place& wanted, char* value) {
    std::FILE* open = agt::open_text_file(file().path().c_str());
    require(open != nullptr, "the file cannot be opened");
    const int header = agt::seek_section(open, wanted.section.c_str());
    const int entry =
        header < 0 ? -1 : agt::get_string_in_section(open, wanted.keyword.c_str(), value);
    std::fclose(open);
    return entry < 0 ? -1 : header + entry;
}

// The line of that number, counted as the reader counts: in pieces.
std::string line_at(int number) {
    char line[agt::CFG_LINE_SIZE] = "";
    std::FILE* open = agt::open_text_file(file().path().c_str());
    while (number-- > 0 && std::fgets(line, sizeof line, open) != nullptr)
        continue;
    std::fclose(open);
    return line;
}

std::string first_word(const std::string& line) {
    const std::size_t start = std::min(line.find_first_not_of(BLANKS), line.size());
    return line.substr(start, line.find_first_of(BLANKS, start) - start);
}

void check_lookups(const place& wanted) {
    const char* path = file().path().c_str();
    const char* section = wanted.section.c_str();
    const char* keyword = wanted.keyword.c_str();
    const fuzz::exact_text value(std::string(agt::CFG_LINE_SIZE - 1, '.'));
    const fuzz::exact_text said(std::string(agt::CFG_WORD_SIZE - 1, '.'));
    const fuzz::exact_text silent(std::string(agt::CFG_WORD_SIZE - 1, '.'));
    char text[agt::CFG_LINE_SIZE];
    std::FILE* open = agt::open_text_file(path);
    const int line = agt::find_line_in_section(open, section, keyword, text);
    std::fclose(open);
    require(line_by_hand(wanted, value.get()) == line, "two ways lead to two lines");
    require(line < 0 || first_word(line_at(line)) == wanted.keyword, "the line is another key's");
    const int ret =
        agt::get_nth_token_in_file_section(path, section, keyword, wanted.word, said.get());
    require(agt::find_nth_token_in_file_section(path, section, keyword, wanted.word,
                                                silent.get()) == ret &&
                std::string(said.get()) == silent.get(),
            "two lookups of a word differ");
    require(ret == -1 || (ret == 1 && line > 0), "a word of no line");
    require(ret == -1 || std::string(value.get()).find(said.get()) != std::string::npos,
            "a word that is not there");
    require(ret == -1 || (said.get()[0] != '\0' && std::strpbrk(said.get(), BLANKS) == nullptr),
            "no word");
}

// What the fence lets pass can be taken.
void check_fence() {
    using namespace kessard;
    constexpr auto found = cfg_answer::found;
    const bool passed = fence_cfg();
    std::string value;
    if (read_cfg(agt::config_key_of("TRAN_AGENT", "ALLOWED_ADDRESSES"), &value) == found)
        require(take_allowed_addresses(value.c_str()) || !passed, "addresses that are none");
    if (read_cfg(agt::config_key_of("TRAN_AGENT", "REMOTE_COMMANDS_YN"), &value) == found)
        require(take_remote_commands(value.c_str()) || !passed, "a switch that is none");
}

// The keys that are read again, or by modules of their own.
void check_daemon() {
    using namespace kessard;
    check_fence();
    for (const char* address : {"127.0.0.1", "192.0.2.7", "255.255.255.255"}) {
        sockaddr_in peer{};
        peer.sin_addr.s_addr = inet_addr(address);
        admit_cmd_client(peer);
    }
    require(init_is_working() == 0, "the watchdog has a queue");
    find_skip_hash("trailsink");
    delete_skip_hash();
    require(try_connect() == -1 || noti_sockfd() >= 0, "the link has no socket");
    close_noti_socket();
    require(memchr(get_server_address().srv_ipaddr, 0, sizeof(server_address::srv_ipaddr)) !=
                nullptr,
            "the server's address has no end");
}

} // namespace

// The keys of System V objects come from the input: none is made or opened.
int __wrap_shmget(key_t, std::size_t, int) {
    errno = EACCES;
    return -1;
}

int __wrap_semget(key_t, int, int) {
    errno = EACCES;
    return -1;
}

void fuzz::set_up() {
    setenv("TRAN_AGT_CFG_FILE", file().path().c_str(), 1);
}

void fuzz::run(std::string_view input) {
    reader from(input);
    const place wanted = take_place(from.text_until('\n'));
    file().set(from.rest());
    check_lookups(wanted);
    check_daemon();
}
