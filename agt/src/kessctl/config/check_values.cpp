// Values of configuration keys.
#include "config/check_values.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "config_slips.h"
#include "host_address.h"
#include "unique_fd.h"

namespace kessctl {
namespace {

constexpr char DECIMAL[] = "0123456789";
constexpr char ADDRESS_CHARACTERS[] = "0123456789.";

std::string in_quotes(const std::string& word) {
    return "'" + word + "'";
}

bool all_of(const std::string& text, const char* characters) {
    return !text.empty() && text.find_first_not_of(characters) == text.npos;
}

// The pieces between commas, empty ones too.
std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> pieces(1);
    for (const char c : text)
        if (c == ',')
            pieces.emplace_back();
        else
            pieces.back() += c;
    return pieces;
}

verdict check_number(const config_key& key, const std::string& word) {
    const std::string digits = word.substr(word.starts_with('+') || word.starts_with('-') ? 1 : 0);
    if (!all_of(digits, DECIMAL))
        return {in_quotes(word) + " is not a number; the daemon reads " +
                std::to_string(number_read(word))};
    long number = 0;
    const char* start = word.data() + (word.starts_with('+') ? 1 : 0);
    const auto read = std::from_chars(start, word.data() + word.size(), number);
    if (read.ec != std::errc() || number < key.least || number > key.most)
        return {word + " is out of range"};
    return {};
}

verdict check_length(const config_key& key, const std::string& word) {
    const auto length = static_cast<long>(word.size());
    if (length > key.most)
        return {in_quotes(word) + " is too long; the daemon keeps " +
                in_quotes(word.substr(0, static_cast<std::size_t>(key.most)))};
    return {length < key.least ? in_quotes(word) + " is too short" : ""};
}

verdict check_choice(const config_key& key, const std::string& word) {
    const std::string choices = std::string(" ") + key.unit + " ";
    return {choices.find(" " + word + " ") == choices.npos
                ? in_quotes(word) + " is none of its values"
                : ""};
}

verdict check_time_of_day(const config_key& key, const std::string& word) {
    if (const verdict length = check_length(key, word); !length.what.empty())
        return length;
    const bool time = all_of(word, DECIMAL) && word.substr(0, 2) < "24" && word.substr(2) < "60";
    return {time || word == "----" ? "" : in_quotes(word) + " is no time of day"};
}

bool is_dotted(const std::string& word, in_addr* out) {
    return inet_pton(AF_INET, word.c_str(), out) == 1;
}

// Whether this host has the address, by binding a port of the system's choice.
bool is_own(in_addr address) {
    const agt::unique_fd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr = address;
    return bind(probe.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0 ||
           errno != EADDRNOTAVAIL;
}

verdict check_own_address(const std::string& word) {
    in_addr address{};
    if (!is_dotted(word, &address))
        return {in_quotes(word) + " is no dotted IPv4 address"};
    return {is_own(address) ? "" : word + " is no address of this host"};
}

verdict check_host(const config_key& key, const std::string& word) {
    in_addr address{};
    if (all_of(word, ADDRESS_CHARACTERS) && !is_dotted(word, &address))
        return {in_quotes(word) + " is no dotted IPv4 address"};
    if (word.find_first_of(":[]/") != word.npos)
        return {in_quotes(word) + " is no host name and no IPv4 address, others are not spoken"};
    return check_length(key, word);
}

// An empty name ends the list; one at its end does no harm.
verdict check_names(const config_key& key, const std::string& word) {
    std::vector<std::string> all = split(word);
    const auto empty = std::find(all.begin(), all.end(), "");
    const auto lost =
        std::find_if(empty, all.end(), [](const std::string& name) { return !name.empty(); });
    if (lost != all.end())
        return {"an empty name ends the list in front of " + in_quotes(*lost)};
    all.erase(empty, all.end());
    for (const std::string& name : all)
        if (name.size() > agt::LENGTH_OF<agt::skipped_name_text>)
            return {in_quotes(name) + " is too long; it never matches a program"};
    return {static_cast<long>(all.size()) > key.most
                ? std::to_string(all.size()) + " names are too many"
                : ""};
}

// Why the directory is of no use; empty when files can be made and removed in it.
std::string directory_fault(const std::string& directory) {
    struct stat about {};
    if (stat(directory.c_str(), &about) != 0)
        return directory + ": " + std::strerror(errno);
    if (!S_ISDIR(about.st_mode))
        return directory + ": not a directory";
    return access(directory.c_str(), W_OK | X_OK) == 0 ? "" : directory + ": not writable";
}

verdict check_path(const config_key& key, const std::string& word, const std::string& home) {
    if (home.empty() && !word.starts_with('/'))
        return {in_quotes(word) + " is relative and TRAN_AGT_HOME is not set", severity::warning};
    const std::string path = full_path(word, home);
    if (static_cast<long>(path.size()) > key.most)
        return {in_quotes(path) + " is too long"};
    if (key.kind == key_kind::log_directory)
        return {directory_fault(path + agt::LOG_SUBDIRECTORY)};
    if (key.kind == key_kind::file)
        return {directory_fault(path.substr(0, path.rfind('/') + 1)), severity::warning};
    if (key.kind == key_kind::existing_file && access(path.c_str(), R_OK) != 0)
        return {path + ": " + std::strerror(errno)};
    return {};
}

} // namespace

verdict check_value(const config_key& key, const std::string& word, const std::string& home) {
    switch (key.kind) {
    case key_kind::number:
    case key_kind::port:
    case key_kind::segment_key:
    case key_kind::semaphore_key:
        return check_number(key, word);
    case key_kind::text:
        return check_length(key, word);
    case key_kind::choice:
        return check_choice(key, word);
    case key_kind::time_of_day:
        return check_time_of_day(key, word);
    case key_kind::own_address:
        return check_own_address(word);
    case key_kind::host:
        return check_host(key, word);
    case key_kind::names:
        return check_names(key, word);
    case key_kind::log_directory:
    case key_kind::script:
    case key_kind::file:
    case key_kind::existing_file:
        return check_path(key, word, home);
    case key_kind::yes_no:
    case key_kind::addresses:
    case key_kind::peer_names:
        return {agt::value_fault(key, word)};
    }
    return {};
}

bool is_foreign_address(const std::string& word) {
    in_addr address{};
    return is_dotted(word, &address) && !is_own(address);
}

std::string full_path(const std::string& word, const std::string& home) {
    return word.starts_with('/') ? word : home + "/" + word;
}

int number_read(const std::string& word) {
    return static_cast<int>(std::strtol(word.c_str(), nullptr, 10));
}

} // namespace kessctl
