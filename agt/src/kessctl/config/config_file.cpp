// A configuration file as the daemon's reader sees it.
#include "config/config_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "read_cfg.h"
#include "util.h"

namespace kessctl {
namespace {

constexpr char BLANKS[] = " \t\n\v\f\r";

} // namespace

std::string config_file::open(const std::string& path) {
    path_ = path;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(agt::open_text_file(path.c_str()),
                                                               std::fclose);
    struct stat about {};
    if (file == nullptr || fstat(fileno(file.get()), &about) != 0)
        return path + ": " + std::strerror(errno);
    if (!S_ISREG(about.st_mode))
        return path + ": not a regular file";
    char buffer[agt::CFG_LINE_SIZE];
    for (int line = 1; std::fgets(buffer, sizeof buffer, file.get()) != nullptr;) {
        pieces_.push_back({buffer, line});
        line += pieces_.back().text.ends_with('\n') ? 1 : 0;
    }
    return std::ferror(file.get()) != 0 ? path + ": " + std::strerror(errno) : "";
}

int config_file::header_of(const char* section) const {
    const int number = agt::find_line_in_file_section(path_.c_str(), section, nullptr);
    return number > 0 && number <= static_cast<int>(pieces_.size()) ? number - 1 : -1;
}

int config_file::entry_of(const config_key& key) const {
    const int number = agt::find_line_in_file_section(path_.c_str(), key.section, key.keyword);
    return number > 0 && number <= static_cast<int>(pieces_.size()) ? number - 1 : -1;
}

std::string config_file::word_of(const config_key& key, int n) const {
    char word[agt::CFG_WORD_SIZE] = "";
    agt::find_nth_token_in_file_section(path_.c_str(), key.section, key.keyword, n, word);
    return word;
}

config_file::extent config_file::body_of(int header) const {
    int end = header + 1;
    while (end < static_cast<int>(pieces_.size()) && !at(end).text.starts_with('['))
        ++end;
    return {header + 1, end};
}

std::string first_word(const std::string& line) {
    const std::size_t start = line.find_first_not_of(BLANKS);
    return start == line.npos ? "" : line.substr(start, line.find_first_of(BLANKS, start) - start);
}

} // namespace kessctl
