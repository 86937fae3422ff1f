// Where the agents of a host have their files.
#include "host/agent_place.h"

#include <cstdlib>
#include <filesystem>

namespace kessctl {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t LONGEST_NAME = 64;
constexpr char NAME_CHARACTERS[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";

std::string root() {
    const char* path = std::getenv("KESSARD_ROOT");
    return path == nullptr ? "" : path;
}

} // namespace

agent_place place_of(const std::string& name) {
    const std::string in_etc = name.empty() ? "" : "/" + name;
    const std::string in_var = name.empty() ? "" : "/agents/" + name;
    return {root() + "/etc/kessard" + in_etc + "/agt.cfg", root() + "/var/lib/kessard" + in_var,
            root() + "/var/log/kessard" + in_var};
}

// A service unit carries the name as it is.
std::string agent_name_fault(const std::string& name) {
    const bool usable = !name.empty() && name.size() <= LONGEST_NAME &&
                        name.find_first_not_of(NAME_CHARACTERS) == name.npos &&
                        !name.starts_with('.') && !name.starts_with('-');
    return usable ? ""
                  : "a name of an agent has up to " + std::to_string(LONGEST_NAME) +
                        " letters, digits, '_', '.' and '-', and begins with none of the last two";
}

std::vector<std::string> agents_files() {
    std::vector<std::string> found;
    std::error_code error;
    const auto take = [&](const std::string& file) {
        if (fs::exists(file, error))
            found.push_back(file);
    };
    const fs::path own = place_of("").cfg_file;
    take(own);
    for (fs::directory_iterator at(own.parent_path(), error), end; !error && at != end;
         at.increment(error))
        take(at->path() / own.filename());
    return found;
}

} // namespace kessctl
