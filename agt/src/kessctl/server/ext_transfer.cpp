// File transfer to and from the agent's host.
#include "server/ext_transfer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <regex>

#include "host/new_file.h"
#include "tls.h"
#include "unique_fd.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr std::size_t PIECE_BYTES = std::size_t{1024} * 1024;
constexpr int SLOW_MS = 1000; // without a byte of a file, the agent may be unable to send it
constexpr mode_t PERMISSION_BITS = 0777;
constexpr char SEPARATOR = static_cast<char>(EXT_SEPARATOR);

ext_result failed(const std::string& about) {
    return {ext_result::failed, about};
}

ext_result failed_call(const std::string& path) {
    return failed(path + ": " + std::strerror(errno));
}

std::string base_name(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// A text whose references to variables, as the agent finds them (a bracket, a name, a bracket), are
// written by `of_reference` and the rest by `of_plain`.
template <class Plain, class Reference>
std::string with_references(const std::string& text, Plain of_plain, Reference of_reference) {
    static const std::regex reference(R"(\$[{(]?([a-zA-Z0-9_]+)[)}]?)");
    std::string out;
    std::string rest = text;
    for (std::smatch at; std::regex_search(rest, at, reference); rest = at.suffix().str())
        out += of_plain(at.prefix().str()) + of_reference(at[0], at[1]);
    return out + of_plain(rest);
}

// ---- upload

enum class verdict { none, taken, spoken };

// What the agent has done once something is to be read: closed the connection, which says that it
// has everything, or sent another header.
verdict look_at_answer(const command_client& client, int limit_ms) {
    char byte = 0;
    if (agt::wait_data(client.fd(), limit_ms) != agt::wait_result::ready)
        return verdict::none;
    return agt::recv_now(client.fd(), &byte, sizeof byte, MSG_PEEK) == 0 ? verdict::taken
                                                                         : verdict::spoken;
}

// Why an upload stopped: the agent's text when it has sent one, else `otherwise`.
ext_result stopped(command_client& client, int limit_ms, const std::string& otherwise) {
    std::uint32_t length = 0;
    const ext_result answer = receive_header(client, limit_ms, &length);
    return answer.outcome == ext_result::refused ? answer : failed(otherwise);
}

ext_result send_file(command_client& client, const local_file& file, int limit_ms,
                     const transfer_observer& observe) {
    const agt::unique_fd fd(open(file.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd.valid())
        return failed_call(file.path);
    std::vector<char> piece(std::min<std::size_t>(file.size, PIECE_BYTES));
    observe(file.name, 0, file.size);
    for (std::uint64_t done = 0; done < file.size;) {
        const ssize_t got =
            read(fd.get(), piece.data(), std::min<std::uint64_t>(file.size - done, piece.size()));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 1)
            return got < 0 ? failed_call(file.path)
                           : failed(file.path + ": became shorter while it was sent");
        if (look_at_answer(client, 0) != verdict::none)
            return stopped(client, limit_ms,
                           "the agent closed the connection before it had " + file.path);
        if (!client.send_bytes(piece.data(), static_cast<std::size_t>(got), limit_ms))
            return stopped(client, limit_ms, client.error());
        done += static_cast<std::uint64_t>(got);
        observe(file.name, done, file.size);
    }
    return {};
}

// For pairs of words, moves the file of the second name in the directory to the first; what it
// cannot move it removes.
constexpr char PLACE_ALL[] =
    R"(&&r=0&&while [ $# -gt 0 ];do t=$(readlink -nf "./$1"&&echo x)&&t=${t%x})"
    R"(&&{ [ ! -e "$t" ]||{ [ -f "$t" ]&&[ -w "$t" ])"
    R"(&&{ chown --reference="$t" "./$2";:;} 2>/dev/null;};})"
    R"(&&mv -fT "./$2" "$t"||{ rm -f "./$2";echo "cannot replace $1";r=1;})"
    R"(;shift 2;done&&exit $r)";

std::string in_shell_quotes(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// A path as the shell says it; a variable that is not set stays as it is written, as with the
// agent.
std::string shell_path(const std::string& path) {
    const auto reference = [](const std::string& whole, const std::string& name) {
        std::string kept;
        for (const char c : whole)
            kept += c == '$' || c == '}' ? std::string("\\") + c : std::string(1, c);
        return "\"${" + name + "-" + kept + "}\"";
    };
    return (path.starts_with('-') ? "./" : "") + with_references(path, in_shell_quotes, reference);
}

std::string unique_text() {
    std::random_device source;
    char text[20];
    std::snprintf(text, sizeof text, "%08x%08x", source(), source());
    return text;
}

// ---- download

std::string announced_name(const ST_FILE_INFO& info) {
    return std::string(info.name, strnlen(info.name, sizeof info.name));
}

std::string name_pattern(const std::string& name) {
    const auto plain = [](const std::string& text) {
        std::string pattern;
        for (const char c : text)
            pattern += {'\\', c};
        return pattern;
    };
    return with_references(name, plain, [](const std::string&, const std::string&) { return "*"; });
}

// The name of a file that was asked for, as a pattern: a variable stands for what the agent's
// environment has, which is not known here.
std::string asked_pattern(const std::string& path) {
    const std::string name = base_name(path);
    if (name.find('$') == name.npos && name.size() >= sizeof ST_FILE_INFO::name)
        return name_pattern(name.substr(0, sizeof ST_FILE_INFO::name - 1)); // announced cut
    return name_pattern(name);
}

bool is_plain_name(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

ext_result receive_announcement(command_client& client, std::size_t count, int limit_ms,
                                std::vector<ST_FILE_INFO>* infos) {
    std::uint32_t length = 0;
    std::uint32_t announced = 0;
    infos->resize(count);
    const ext_result answer = receive_header(client, limit_ms, &length);
    if (!answer.ok())
        return answer;
    if (length != sizeof announced + count * sizeof(ST_FILE_INFO))
        return failed("the agent announces another number of files than were asked for");
    if (!client.receive_bytes(&announced, sizeof announced, limit_ms) ||
        !client.receive_bytes(infos->data(), count * sizeof(ST_FILE_INFO), limit_ms))
        return failed(client.error());
    if (ntohl(announced) != count)
        return failed("the agent announces another number of files than were asked for");
    return {};
}

// Whether the agent begins to send a file. One that cannot open it waits for the byte that ends the
// transfer; given it, it closes the connection, while one that is only slow goes on.
bool begins(command_client& client, int limit_ms) {
    char byte = 0;
    if (agt::wait_data(client.fd(), std::min(limit_ms, SLOW_MS)) != agt::wait_result::ready &&
        (!client.send_bytes("", 1, limit_ms) ||
         agt::wait_data(client.fd(), limit_ms) != agt::wait_result::ready))
        return false;
    return agt::recv_now(client.fd(), &byte, sizeof byte, MSG_PEEK) > 0;
}

ext_result receive_file(command_client& client, const ST_FILE_INFO& info, new_file& file,
                        int limit_ms, const transfer_observer& observe) {
    const std::string name = announced_name(info);
    const std::uint64_t size = ntohl(info.size);
    std::vector<char> piece(std::min<std::uint64_t>(size, PIECE_BYTES));
    bool stored = true;
    const auto store = [&](std::string_view part) {
        return stored = file.write(part.data(), part.size());
    };
    observe(name, 0, size);
    for (std::uint64_t done = 0; done < size;) {
        const auto length =
            static_cast<std::size_t>(std::min<std::uint64_t>(size - done, piece.size()));
        if (done == 0 && !begins(client, limit_ms))
            return failed("the agent announces " + printable(name) +
                          " and does not send it: most likely it may not read it");
        if (!client.receive_parts(piece.data(), length, store, limit_ms))
            return stored ? failed(printable(name) + " did not come whole: " + client.error())
                          : failed_call(file.path());
        done += length;
        observe(name, done, size);
    }
    return file.finish(ntohl(info.perm)) ? ext_result{} : failed_call(file.path());
}

} // namespace

std::string describe_file(const std::string& path, local_file* out) {
    const agt::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat info;
    if (!fd.valid() || fstat(fd.get(), &info) != 0)
        return path + ": " + std::strerror(errno);
    if (!S_ISREG(info.st_mode))
        return path + ": not a regular file";
    if (info.st_size > std::numeric_limits<std::uint32_t>::max())
        return path + ": too large, a transfer carries files of up to 4294967295 bytes";
    *out = {path, base_name(path), base_name(path), static_cast<std::uint32_t>(info.st_size),
            info.st_mode & PERMISSION_BITS};
    return check_item(out->name);
}

std::string plan_placing(const std::string& directory, std::vector<local_file>* files,
                         placing* out) {
    const std::string enter = "CDPATH= cd -- " + shell_path(directory);
    const std::string rest = ";" + enter + PLACE_ALL;
    const std::string stem = ".kessctl-" + unique_text() + "-";
    const std::string start = "set --"; // the names come first: who reads the audit sees its start
    const std::size_t fixed = reporting(command_form(0), "").size() + rest.size();
    const std::size_t room = EXT_DATA_MAX - std::min(EXT_DATA_MAX, fixed);
    for (local_file& file : *files) {
        file.sent_name = stem + std::to_string(&file - files->data());
        const std::string pair = " " + in_shell_quotes(file.name) + " " + file.sent_name;
        if (start.size() + pair.size() > room)
            return "the names of " + directory + " and '" + file.name +
                   "' are too long to put the file in place by a command: use --direct";
        if (out->commands.empty() || out->commands.back().size() + pair.size() > room)
            out->commands.push_back(start);
        out->commands.back() += pair;
    }
    for (std::string& command : out->commands)
        command += rest;
    out->remove = enter + "&&rm -f ./" + stem + "*";
    return {};
}

std::string upload_item(const local_file& file) {
    return file.sent_name + SEPARATOR + std::to_string(file.size) + SEPARATOR +
           std::to_string(file.permission);
}

ext_result upload_files(command_client& client, const ext_request& request,
                        const std::vector<local_file>& files, int limit_ms,
                        const transfer_observer& observe) {
    std::uint32_t length = 0;
    if (!send_request(client, request, limit_ms))
        return failed(client.error());
    ext_result result = receive_header(client, limit_ms, &length);
    for (std::size_t i = request.first; result.ok() && i < request.first + request.count; ++i)
        result = send_file(client, files[i], limit_ms, observe);
    if (!result.ok())
        return result;
    switch (look_at_answer(client, limit_ms)) {
    case verdict::taken:
        return {};
    case verdict::spoken:
        return stopped(client, limit_ms, "the agent broke the connection off");
    default:
        return failed("the agent does not say that it has the files within the time limit");
    }
}

ext_result download_files(command_client& client, const ext_request& request,
                          const std::vector<std::string>& paths, const std::string& directory,
                          int limit_ms, const transfer_observer& observe,
                          std::set<std::string>* taken) {
    std::vector<ST_FILE_INFO> infos;
    std::vector<new_file> files;
    if (!send_request(client, request, limit_ms))
        return failed(client.error());
    const ext_result announced = receive_announcement(client, request.count, limit_ms, &infos);
    if (!announced.ok())
        return announced;
    for (std::size_t i = 0; i < infos.size(); ++i) {
        const ST_FILE_INFO& info = infos[i];
        const std::string name = announced_name(info);
        if (!is_plain_name(name) ||
            fnmatch(asked_pattern(paths[request.first + i]).c_str(), name.c_str(), FNM_PERIOD) != 0)
            return failed("the agent sends a file named '" + printable(name) +
                          "', which was not asked for");
        if (!taken->insert(name).second)
            return failed("two of the files are named '" + printable(name) + "'");
        files.emplace_back(directory + "/" + name);
        if (!files.back().valid())
            return failed_call(files.back().path());
        const ext_result received = receive_file(client, info, files.back(), limit_ms, observe);
        if (!received.ok())
            return received;
    }
    client.send_bytes(
        "", 1,
        limit_ms); // the agent waits for a byte; the files are here whether or not it gets one
    for (new_file& file : files) {
        if (!file.take_name())
            return failed_call(file.path());
    }
    return {};
}

} // namespace kessctl
