// The configuration of a further agent of this host.
//
// Whoever writes one holds the lock of the agents' directory, so that two that are made at once do
// not choose the same numbers.
#include "config/new_agent.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "config/check_values.h"
#include "config_file.h"
#include "host/agent_place.h"
#include "host/listener.h"
#include "host/new_file.h"
#include "unique_fd.h"

namespace kessctl {
namespace {

namespace fs = std::filesystem;

using agt::config_key;
using agt::config_key_of;
using agt::key_kind;

constexpr int HIGHEST_PORT = 65535;

struct used_numbers {
    std::set<int> keys;
    std::set<int> ports;
};

bool is_ipc_key(const config_key& key) {
    return key.kind == key_kind::segment_key || key.kind == key_kind::semaphore_key;
}

// Adds what a file names. Empty on success, else why it cannot be read.
std::string add_used(const std::string& path, used_numbers& used) {
    agt::config_file file;
    const std::string wrong = file.open(path);
    for (const config_key& key : agt::CONFIG_KEYS)
        if (wrong.empty() && (is_ipc_key(key) || key.kind == key_kind::port))
            (is_ipc_key(key) ? used.keys : used.ports).insert(number_read(file.value_of(key)));
    return wrong;
}

bool exists(key_t key) {
    return shmget(key, 0, 0) >= 0 || errno != ENOENT || semget(key, 0, 0) >= 0 || errno != ENOENT;
}

// What the new file says instead of the one that it is copied from.
std::map<const config_key*, std::string> own_values(new_agent& wanted, const used_numbers& used) {
    std::map<const config_key*, std::string> values = {
        {&config_key_of("COMMON", "LOG_HOME"), place_of(wanted.name).log_home},
        {&config_key_of("COMMON", "STATE_FILE"), "run/kessard.state"}};
    while (wanted.port <= HIGHEST_PORT &&
           (used.ports.contains(wanted.port) || try_port("0.0.0.0", wanted.port) != 0))
        ++wanted.port;
    values[&config_key_of("TRAN_AGENT", "CMD_PORT")] = std::to_string(wanted.port);
    for (const config_key& key : agt::CONFIG_KEYS)
        if (is_ipc_key(key)) {
            while (used.keys.contains(wanted.key) || exists(wanted.key))
                ++wanted.key;
            values[&key] = std::to_string(wanted.key++);
        }
    return values;
}

// A file's text with other values for the keys that it has.
std::string with_values(const agt::config_file& file,
                        const std::map<const config_key*, std::string>& values) {
    std::map<int, std::string> lines;
    for (const auto& [key, value] : values)
        lines[file.entry_of(*key)] = std::string(key->keyword) + " = " + value + "\n";
    std::string text;
    for (int i = 0; i < static_cast<int>(file.pieces().size()); ++i)
        text += lines.contains(i) ? lines[i] : file.at(i).text;
    return text;
}

std::string write_text(const std::string& path, const std::string& text) {
    std::error_code error;
    fs::create_directory(fs::path(path).parent_path(), error);
    new_file file(path);
    const bool written = file.valid() && file.write(text.data(), text.size()) &&
                         file.finish(0644) && file.take_name();
    return written ? "" : path + ": " + std::strerror(errno);
}

} // namespace

std::string write_agent(new_agent& wanted) {
    const std::string path = place_of(wanted.name).cfg_file;
    const fs::path agents = fs::path(path).parent_path().parent_path();
    const agt::unique_fd lock(open(agents.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock.valid() || flock(lock.get(), LOCK_EX) != 0)
        return agents.string() + ": " + std::strerror(errno);
    std::error_code error;
    if (fs::exists(path, error))
        return path + " is there already";
    agt::config_file source;
    std::string wrong = source.open(wanted.from);
    used_numbers used;
    for (const std::string& file : agents_files())
        if (wrong.empty())
            wrong = add_used(file, used);
    if (!wrong.empty())
        return wrong;
    const std::string text = with_values(source, own_values(wanted, used));
    return wanted.port > HIGHEST_PORT ? "no port is free" : write_text(path, text);
}

} // namespace kessctl
