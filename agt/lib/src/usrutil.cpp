// Splitting, environment references, directories.
#include "usrutil.h"

#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace agt {
namespace {

constexpr const char* REFERENCE = "(\\$[{(]?)([a-zA-Z0-9_]+)([)}]?)";
constexpr int REFERENCE_MAX = 10;
constexpr std::size_t VALUE_MAX = 127;
constexpr int COMPONENT_MAX = 64;
constexpr mode_t DIRECTORY_MODE = 0775;

std::string part_of(const char* text, const regmatch_t& match) {
    return std::string(text + match.rm_so, static_cast<std::size_t>(match.rm_eo - match.rm_so));
}

// Appends `text` with its references replaced to `expanded`; returns what follows the last of them.
const char* replace_references(const regex_t& reference, const char* text, std::string& expanded) {
    regmatch_t match[3]; // the whole, its opening, the name
    for (int i = 0; i < REFERENCE_MAX && regexec(&reference, text, 3, match, 0) == 0; ++i) {
        expanded.append(text, static_cast<std::size_t>(match[0].rm_so));
        const char* value = std::getenv(part_of(text, match[2]).c_str());
        expanded += value != nullptr ? std::string(value, strnlen(value, VALUE_MAX))
                                     : part_of(text, match[0]);
        text += match[0].rm_eo;
    }
    return text;
}

int make_one(const char* path, bool force) {
    const int kind = is_file_exist(path);
    if (kind == FILE_DIRECTORY)
        return 0;
    if (kind == FILE_OTHER || (kind == FILE_REGULAR && (!force || unlink(path) != 0)))
        return -1;
    // Somebody else may have made it meanwhile.
    return mkdir(path, DIRECTORY_MODE) == 0 || is_file_exist(path) == FILE_DIRECTORY ? 0 : -1;
}

} // namespace

int str_split(char* text, const char* separators, char** pieces, int max) {
    if (text == nullptr || *text == '\0' || separators == nullptr || *separators == '\0' || max < 1)
        return 0;
    int count = 0;
    pieces[count++] = text;
    while (count < max && (text = std::strpbrk(text, separators)) != nullptr) {
        *text++ = '\0';
        pieces[count++] = text;
    }
    return count;
}

bool env2str(const char* text, char* out, std::size_t size) {
    std::memset(out, 0, size);
    std::string expanded;
    regex_t reference;
    if (regcomp(&reference, REFERENCE, REG_EXTENDED) == 0) {
        text = replace_references(reference, text, expanded);
        regfree(&reference);
    }
    expanded += text;
    if (expanded.size() >= size)
        return false;
    std::memcpy(out, expanded.data(), expanded.size());
    return true;
}

const char* get_procname(const char* path) {
    if (path == nullptr)
        return "";
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

int makedir(const char* path, int force) {
    if (path == nullptr || *path == '\0')
        return -1;
    int components = 0;
    for (const char* at = path + std::strspn(path, "/"); *at != '\0'; at += std::strspn(at, "/")) {
        at += std::strcspn(at, "/");
        const std::string prefix(path, at);
        if (++components > COMPONENT_MAX || make_one(prefix.c_str(), force != 0) != 0)
            return -1;
    }
    return 0;
}

int is_file_exist(const char* path) {
    struct stat info;
    if (path == nullptr || lstat(path, &info) != 0)
        return FILE_MISSING;
    if (S_ISREG(info.st_mode))
        return FILE_REGULAR;
    return S_ISDIR(info.st_mode) ? FILE_DIRECTORY : FILE_OTHER;
}

} // namespace agt
