// A configuration file as the reader sees it.
#include "config_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "read_cfg.h"
#include "util.h"

namespace agt {
namespace {

constexpr char BLANKS[] = " \t\n\v\f\r";

// Cut where the reader's buffer cuts.
std::vector<cfg_piece> cut(const std::string& bytes) {
    std::vector<cfg_piece> pieces;
    int line = 1;
    for (std::size_t at = 0; at < bytes.size(); at += pieces.back().text.size()) {
        const std::size_t end = std::min(bytes.find('\n', at), bytes.size() - 1) + 1;
        pieces.push_back({bytes.substr(at, std::min(end - at, CFG_LINE_SIZE - 1)), line});
        line += pieces.back().text.ends_with('\n') ? 1 : 0;
    }
    return pieces;
}

} // namespace

std::string config_file::open(const std::string& path) {
    path_ = path;
    bytes_.clear();
    const std::unique_ptr<std::FILE, closer> file(open_text_file(path.c_str()));
    struct stat about {};
    if (file == nullptr || fstat(fileno(file.get()), &about) != 0)
        return path + ": " + std::strerror(errno);
    if (!S_ISREG(about.st_mode)) {
        errno = EINVAL;
        return path + ": not a regular file";
    }
    char buffer[4096];
    for (std::size_t got = 0; (got = std::fread(buffer, 1, sizeof buffer, file.get())) > 0;)
        bytes_.append(buffer, got);
    if (std::ferror(file.get()) != 0)
        return path + ": " + std::strerror(errno);
    stream_.reset(fmemopen(bytes_.data(), bytes_.size(), "r"));
    if (stream_ == nullptr)
        return path + ": " + std::strerror(errno);
    pieces_ = cut(bytes_);
    return "";
}

int config_file::header_of(const char* section) const {
    const int number = find_line_in_section(stream_.get(), section, nullptr, nullptr);
    return number > 0 ? number - 1 : -1;
}

int config_file::entry_of(const config_key& key) const {
    char value[CFG_LINE_SIZE];
    const int number = find_line_in_section(stream_.get(), key.section, key.keyword, value);
    return number > 0 ? number - 1 : -1;
}

std::string config_file::word_of(const config_key& key, int n) const {
    char value[CFG_LINE_SIZE] = "";
    find_line_in_section(stream_.get(), key.section, key.keyword, value);
    return std::string(nth_word(value, n));
}

std::string config_file::value_of(const config_key& key) const {
    if (key.word != ALL_WORDS)
        return word_of(key, key.word);
    std::string all;
    for (int n = 1; n <= CFG_WORD_MAX; ++n)
        if (const std::string word = word_of(key, n); !word.empty())
            all += (all.empty() ? "" : ",") + word;
    return all;
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

} // namespace agt
