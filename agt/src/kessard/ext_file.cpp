// File transfer to and from the host.
#include "ext_file.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include <utstring.h>

#include "audit.h"
#include "ext_reply.h"
#include "field.h"
#include "log_printf.h"
#include "printable.h"
#include "shortage.h"
#include "state_file.h"
#include "tcp_recv.h"
#include "tcp_send.h"
#include "unique_fd.h"
#include "usrutil.h"
#include "util.h"

namespace kessard {
namespace {

constexpr int PIECE_BYTES = 1048576;
constexpr int PIECE_TIMEOUT_SEC = 10;
constexpr timeval NO_RECEIVE_LIMIT = {0, 0}; // the pieces have their own
constexpr int ACK_TIMEOUT_SEC = 30;
constexpr std::size_t PATH_SIZE = 512;
constexpr std::size_t TEXT_SIZE = 2048; // holds any text made of a request's items
constexpr char SEPARATORS[] = {EXT_SEPARATOR, '\0'};

struct free_deleter {
    void operator()(char* memory) const { std::free(memory); }
};
using piece_buffer = std::unique_ptr<char, free_deleter>;

struct body_deleter {
    void operator()(UT_string* body) const { utstring_free(body); }
};
using body_ptr = std::unique_ptr<UT_string, body_deleter>;

[[gnu::format(printf, 1, 2)]] std::string text_of(const char* fmt, ...) {
    char text[TEXT_SIZE];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    return text;
}

piece_buffer make_piece_buffer(std::string& error) {
    piece_buffer buffer(static_cast<char*>(std::malloc(PIECE_BYTES)));
    if (buffer == nullptr)
        error = "RECV_MAX_SIZE malloc error!!";
    return buffer;
}

int split_items(char* data, int length, char* (&items)[EXT_ITEM_MAX]) {
    return length < 1 ? 0 : agt::str_split(data, SEPARATORS, items, EXT_ITEM_MAX);
}

int send_accepted(int sockfd, std::uint32_t length) {
    const EXT_RSP_HDR header = make_ext_header(EXT_STATUS_ACCEPTED, length);
    return agt::send_tcp_data(sockfd, &header, sizeof header);
}

void refuse(int sockfd, const std::string& error) {
    if (!error.empty())
        agt::log_printf("<!> %s", agt::printable(error).c_str());
    const EXT_RSP_HDR header =
        make_ext_header(EXT_STATUS_ERROR, static_cast<std::uint32_t>(error.size()));
    agt::send_tcp_data2(sockfd, &header, sizeof header, error.data(),
                        static_cast<int>(error.size()));
}

// Opens a regular file. A FIFO or a device would answer at once and is then turned away, so nothing
// is waited for.
agt::unique_fd open_regular(const char* path, int flags) {
    agt::unique_fd fd(::open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0600));
    struct stat info;
    if (!fd.valid())
        log_shortage("file", errno);
    else if (fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode))
        fd.reset();
    return fd;
}

void audit_file(const char* event, bool done, long long size, mode_t mode, const char* path) {
    audit_request(event, "result=%s size=%lld mode=%04o path=%s", done ? "ok" : "failed", size,
                  mode & 07777, path);
}

// ---- upload

struct upload_target {
    char directory[PATH_SIZE];
    int file_count;
    char* items[EXT_ITEM_MAX]; // the directory, then three items for each file
};

struct upload_file {
    int number; // from 1
    int count;
    std::string path;
    long long size;
    mode_t permission;
};

bool take_target(char* data, int length, upload_target& target, std::string& error) {
    const int count = split_items(data, length, target.items);
    const char* named = count > 0 ? target.items[0] : "";
    if (!agt::env2str(named, target.directory, sizeof target.directory)) {
        error = text_of("makedir(%s) failed...", named);
        return false;
    }
    if (agt::makedir(target.directory, 1) != 0) {
        error = text_of("makedir(%s) failed...", target.directory);
        return false;
    }
    const int kind = agt::is_file_exist(target.directory);
    target.file_count = count / 3;
    if ((count - 1) % 3 == 0 && kind == agt::FILE_DIRECTORY)
        return true;
    error = text_of("invalid data... count=%d, type=%d, |%s|", count, kind, target.directory);
    return false;
}

upload_file file_of(const upload_target& target, int number) {
    char* const* item = target.items + 1 + static_cast<std::ptrdiff_t>(number - 1) * 3;
    return {number, target.file_count, std::string(target.directory) + '/' + item[0],
            std::strtoll(item[1], nullptr, 10),
            static_cast<mode_t>(std::strtol(item[2], nullptr, 10)) & 07777};
}

// A file that is empty already is left alone: some file systems write a truncated file out when it
// is closed.
bool make_empty(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 && (info.st_size == 0 || ftruncate(fd, 0) == 0);
}

// False with an empty `error` when the bytes did not come.
bool receive_content(int sockfd, int fd, const upload_file& file, char* buffer,
                     std::string& error) {
    for (long long left = file.size; left > 0;) {
        const int piece = static_cast<int>(std::min<long long>(left, PIECE_BYTES));
        const int rlen = agt::recv_tcp_piece(sockfd, buffer, piece, PIECE_TIMEOUT_SEC);
        if (rlen < 1) {
            agt::log_printf("<!> recv_tcp_data_timeout error!! |%d|", rlen);
            return false;
        }
        if (!agt::write_whole(fd, buffer, static_cast<std::size_t>(piece))) {
            log_shortage("file", errno);
            error = text_of("can't write file |%s|", file.path.c_str());
            return false;
        }
        left -= piece;
        figure_add(figures->file_bytes_received, piece);
    }
    return true;
}

bool store_file(int sockfd, const upload_file& file, char* buffer, std::string& error) {
    const char* path = file.path.c_str();
    const agt::printable shown(file.path);
    agt::log_printf("(i) start (%d/%d) - file=|%s|, size=|%lld|", file.number, file.count,
                    shown.c_str(), file.size);
    agt::unique_fd fd = open_regular(path, O_WRONLY | O_CREAT);
    if (!fd.valid() || !make_empty(fd.get())) {
        error = text_of("can't open file |%s|", path);
        return false;
    }
    if (!receive_content(sockfd, fd.get(), file, buffer, error))
        return false;
    if (fchmod(fd.get(), file.permission) != 0)
        agt::log_printf("<!> can't set permission of file |%s|", shown.c_str());
    if (::close(fd.release()) != 0) {
        error = text_of("can't write file |%s|", path);
        return false;
    }
    agt::log_printf("(i) ok    (%d/%d) - file=|%s|, total recv size=|%lld|", file.number,
                    file.count, shown.c_str(), std::max(file.size, 0LL));
    return true;
}

bool receive_file(int sockfd, const upload_file& file, char* buffer, std::string& error) {
    const bool stored = store_file(sockfd, file, buffer, error);
    figure_add(stored ? figures->files_received : figures->file_failures);
    audit_file("upload", stored, file.size, file.permission, file.path.c_str());
    return stored;
}

// ---- download

struct download_file {
    char path[PATH_SIZE];
    std::uint32_t size; // as announced
    mode_t permission;
};

// Adds a file to the announcement; false for one that cannot be announced.
bool announce(const char* named, download_file& file, UT_string* body) {
    struct stat info;
    if (!agt::env2str(named, file.path, sizeof file.path) ||
        agt::is_file_exist(file.path) != agt::FILE_REGULAR || stat(file.path, &info) != 0 ||
        info.st_size > std::numeric_limits<std::uint32_t>::max())
        return false;
    file.size = static_cast<std::uint32_t>(info.st_size);
    file.permission = info.st_mode;
    ST_FILE_INFO row = {htonl(file.size), htonl(info.st_mode), {}};
    agt::copy_text(row.name, agt::get_procname(file.path));
    utstring_bincpy(body, &row, sizeof row);
    return true;
}

// Names the first file that cannot be announced; empty when all can.
std::string announce_all(char* (&items)[EXT_ITEM_MAX], int count, download_file* files,
                         UT_string* body) {
    const std::uint32_t on_wire = htonl(static_cast<std::uint32_t>(count));
    utstring_bincpy(body, &on_wire, sizeof on_wire);
    for (int i = 0; i < count; ++i) {
        if (!announce(items[i], files[i], body))
            return text_of("invliad file=|%s|", items[i]);
    }
    return {};
}

bool send_announcement(int sockfd, const UT_string* body) {
    const auto length = static_cast<int>(utstring_len(body));
    int slen = send_accepted(sockfd, static_cast<std::uint32_t>(length));
    if (slen < 1) {
        agt::log_printf("%s(): send fail for mb len=(%d)", "file_download", slen);
        return false;
    }
    slen = agt::send_tcp_data(sockfd, utstring_body(body), length);
    if (slen < 1)
        agt::log_printf("%s(): send fail for body len=(%d)", "file_download", slen);
    return slen > 0;
}

// Sends at most the announced size; `sent` is what the file gave. False when the peer did not take
// it.
bool send_content(int sockfd, int fd, const download_file& file, char* buffer,
                  std::uint32_t& sent) {
    for (sent = 0; sent < file.size;) {
        const auto piece = static_cast<int>(std::min<std::uint32_t>(file.size - sent, PIECE_BYTES));
        const int got = agt::send_tcp_file(sockfd, fd, sent, buffer, piece);
        if (got < 1)
            return got == 0;
        sent += static_cast<std::uint32_t>(got);
        figure_add(figures->file_bytes_sent, got);
    }
    return true;
}

// False when the file cannot be opened, which ends the transfer. A failed send ends the connection
// too: a peer that wakes up later must not take the next file's bytes for the rest of this one.
bool send_file(int sockfd, const download_file& file, int number, int count, char* buffer) {
    const agt::printable shown(file.path);
    agt::log_printf("(i) (%d/%d) start send file=|%s|", number, count, shown.c_str());
    const agt::unique_fd fd = open_regular(file.path, O_RDONLY);
    std::uint32_t sent = 0;
    const bool taken = fd.valid() && send_content(sockfd, fd.get(), file, buffer, sent);
    figure_add(taken ? figures->files_sent : figures->file_failures);
    audit_file("download", taken, sent, file.permission, file.path);
    if (!fd.valid()) {
        agt::log_printf("<!> fopen error.... |%s|", shown.c_str());
        return false;
    }
    if (!taken) {
        agt::log_printf("<!> error for send file data.... |%s|", shown.c_str());
        shutdown(sockfd, SHUT_RDWR);
        return true;
    }
    agt::say("read_len = %u\n", sent);
    agt::log_printf("(i) (%d/%d) ok    send file=|%s|, size=|%u|", number, count, shown.c_str(),
                    sent);
    return true;
}

void wait_acknowledgement(int sockfd) {
    char byte;
    agt::recv_tcp_data_timeout(sockfd, &byte, sizeof byte, ACK_TIMEOUT_SEC);
}

} // namespace

void file_upload(int sockfd, char* data, int length) {
    std::string error;
    upload_target target;
    const piece_buffer buffer = make_piece_buffer(error);
    if (buffer == nullptr || !take_target(data, length, target, error)) {
        figure_add(figures->file_failures);
        refuse(sockfd, error);
        return;
    }
    setsockopt(sockfd, SOL_SOCKET, SO_RCVTIMEO, &NO_RECEIVE_LIMIT, sizeof NO_RECEIVE_LIMIT);
    if (send_accepted(sockfd, 0) < 1) {
        agt::log_printf("<!> send_tcp_data for response");
        return;
    }
    for (int number = 1; number <= target.file_count; ++number) {
        if (!receive_file(sockfd, file_of(target, number), buffer.get(), error)) {
            refuse(sockfd, error);
            return;
        }
    }
}

void file_download(int sockfd, char* data, int length) {
    std::string error;
    char* items[EXT_ITEM_MAX];
    download_file files[EXT_ITEM_MAX];
    UT_string* new_body = nullptr;
    utstring_new(new_body);
    const body_ptr body(new_body);
    const piece_buffer buffer = make_piece_buffer(error);
    const int count = split_items(data, length, items);
    if (buffer != nullptr)
        error = announce_all(items, count, files, body.get());
    if (!error.empty()) {
        figure_add(figures->file_failures);
        refuse(sockfd, error);
        return;
    }
    if (!send_announcement(sockfd, body.get()))
        return;
    agt::log_printf("(i) send file count(%d)", count);
    for (int i = 0; i < count && send_file(sockfd, files[i], i, count, buffer.get()); ++i)
        continue;
    wait_acknowledgement(sockfd);
}

} // namespace kessard
