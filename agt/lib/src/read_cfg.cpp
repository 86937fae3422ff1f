// Configuration lookups.
#include "read_cfg.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <string_view>

#include "util.h"

namespace agt {
namespace {

struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using file_handle = std::unique_ptr<std::FILE, file_closer>;

constexpr std::string_view BLANKS = " \t\n\v\f\r";

// Takes the next whitespace-delimited word off the front of `text`; empty at the end.
std::string_view take_word(std::string_view& text) {
    const std::size_t start = text.find_first_not_of(BLANKS);
    if (start == std::string_view::npos)
        return {};
    text.remove_prefix(start);
    const std::string_view word = text.substr(0, text.find_first_of(BLANKS));
    text.remove_prefix(word.size());
    return word;
}

// The name between '[' and ']' has the section's length and the section stands somewhere in the
// line: both tests together are the rule, so "[ABD] ABC" is a header of ABC.
bool is_header_of(const char* line, const char* section) {
    const char* close = std::strchr(line, ']');
    return close != nullptr && static_cast<std::size_t>(close - line - 1) == std::strlen(section) &&
           std::strstr(line, section) != nullptr;
}

// Line number of the header, or -1.
int find_section(std::FILE* fp, const char* section) {
    char line[CFG_LINE_SIZE] = "";
    std::rewind(fp);
    for (int count = 1; std::fgets(line, sizeof line, fp) != nullptr; ++count) {
        if (line[0] == '[' && is_header_of(line, section))
            return count;
    }
    return -1;
}

// The value text of an entry line: what follows its first '=' and the blanks behind it; empty
// without one.
const char* value_of(const char* line) {
    const char* equals = std::strchr(line, '=');
    return equals == nullptr ? "" : equals + 1 + std::strspn(equals + 1, BLANKS.data());
}

// Lines read to reach the entry, or -1.
int find_entry(std::FILE* fp, const char* keyword, char* string) {
    char line[CFG_LINE_SIZE] = "";
    for (int count = 1; std::fgets(line, sizeof line, fp) != nullptr && line[0] != '['; ++count) {
        if (line[0] == '#' || line[0] == '\n')
            continue;
        std::string_view text = line;
        if (take_word(text) == keyword) {
            std::strcpy(string, value_of(line));
            return count;
        }
    }
    return -1;
}

// Writes a diagnostic to standard error unless the key may be absent; -1. errno is kept: a standard
// error that takes nothing says nothing about the file.
[[gnu::format(printf, 2, 3)]] int complain(bool quiet, const char* fmt, ...) {
    if (!quiet) {
        const int error = errno;
        va_list args;
        va_start(args, fmt);
        std::vfprintf(stderr, fmt, args);
        va_end(args);
        errno = error;
    }
    return -1;
}

int no_section(bool quiet, const char* section) {
    return complain(quiet, "[seek_section] not found section[%s]\n", section);
}

int no_keyword(bool quiet, const char* keyword) {
    return complain(quiet, "[get_string_in_section] not found keyword[%s]\n", keyword);
}

struct lookup {
    const char* fname;
    const char* section;
    const char* keyword;
    int n;
    bool quiet;
};

// The absolute line number of the entry, its value text in `value`; -1 when it is not there.
int find_value(const lookup& want, char* value) {
    const file_handle fp(open_text_file(want.fname));
    if (fp == nullptr)
        return complain(want.quiet,
                        "[get_nth_token_in_file_section] fopen fail[%s]; errno=%d(%s)\n",
                        want.fname, errno, std::strerror(errno));
    const int header = find_section(fp.get(), want.section);
    if (header < 0) {
        no_section(want.quiet, want.section);
        return complain(want.quiet, "[seek_section] not found section[%s] in file[%s]\n",
                        want.section, want.fname);
    }
    const int entry = find_entry(fp.get(), want.keyword, value);
    if (entry < 0) {
        no_keyword(want.quiet, want.keyword);
        return complain(want.quiet,
                        "[get_string_in_section] not found keyword[%s]; file=%s, section=%s\n",
                        want.keyword, want.fname, want.section);
    }
    return header + entry;
}

int look_up(const lookup& want, char* string) {
    char value[CFG_LINE_SIZE] = "";
    const int lnum = find_value(want, value);
    if (lnum < 0)
        return -1;
    const std::string_view word = nth_word(value, want.n);
    if (word.empty())
        return complain(want.quiet,
                        "[get_nth_token_in_file_section] can't found nth(%d) token; file=%s, "
                        "section=%s, keyword=%s, "
                        "lnum=%d\n",
                        want.n, want.fname, want.section, want.keyword, lnum);
    std::memcpy(string, word.data(), word.size());
    string[word.size()] = '\0';
    return 1;
}

} // namespace

int seek_section(std::FILE* fp, const char* section) {
    const int line = find_section(fp, section);
    return line < 0 ? no_section(false, section) : line;
}

int get_string_in_section(std::FILE* fp, const char* keyword, char* string) {
    const int lines = find_entry(fp, keyword, string);
    return lines < 0 ? no_keyword(false, keyword) : lines;
}

int get_nth_token_in_file_section(const char* fname, const char* section, const char* keyword,
                                  int n, char* string) {
    return look_up({fname, section, keyword, n, false}, string);
}

int find_nth_token_in_file_section(const char* fname, const char* section, const char* keyword,
                                   int n, char* string) {
    return look_up({fname, section, keyword, n, true}, string);
}

int find_line_in_section(std::FILE* fp, const char* section, const char* keyword, char* value) {
    const int header = find_section(fp, section);
    if (header < 0 || keyword == nullptr)
        return header;
    const int entry = find_entry(fp, keyword, value);
    return entry < 0 ? -1 : header + entry;
}

std::string_view nth_word(const char* value, int n) {
    std::string_view text = value;
    std::string_view word;
    if (n < 1 || n > CFG_WORD_MAX)
        return {};
    for (int i = 0; i < n; ++i)
        word = take_word(text);
    return word;
}

} // namespace agt
