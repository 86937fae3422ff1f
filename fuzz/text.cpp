// Text and path helpers. The first byte of the input is a length, the line behind it is delimiters
// or a directory, the rest is the text. What the splitters do is compared with a plain way to do
// it.
#include <sys/types.h>

#include <cctype>
#include <climits>
#include <vector>

#include "field.h"
#include "harness.h"
#include "hash.h"
#include "str_util.h"
#include "tran_logf_que_info.h"
#include "usrutil.h"
#include "util.h"

extern "C" int __wrap_mkdir(const char* path, mode_t mode);

namespace {

using fuzz::exact_text;
using fuzz::require;

constexpr int MOST_PIECES = 16;
using pieces = std::vector<std::string>;

// The pieces between single delimiters, the last one with the rest.
pieces split_plainly(std::string text, const std::string& delimiters, std::size_t most) {
    pieces all;
    while (all.size() + 1 < most && text.find_first_of(delimiters) != text.npos) {
        const std::size_t at = text.find_first_of(delimiters);
        all.push_back(text.substr(0, at));
        text.erase(0, at + 1);
    }
    all.push_back(text);
    return all;
}

pieces stored(char* const* found, int count) {
    pieces all;
    for (int i = 0; i < count; ++i)
        all.emplace_back(found[i] != nullptr ? found[i] : "");
    return all;
}

void check_split(const std::string& text, const std::string& delimiters, int most) {
    const exact_text copy(text);
    char* found[MOST_PIECES] = {};
    const int count = agt::str_split(copy.get(), delimiters.c_str(), found, most);
    const bool nothing = text.empty() || delimiters.empty() || most < 1;
    const pieces wanted =
        nothing ? pieces() : split_plainly(text, delimiters, static_cast<std::size_t>(most));
    require(stored(found, count) == wanted, "str_split");
}

// Every field, but no empty one at the end.
void check_fields(const std::string& text, const std::string& delimiters, int most) {
    const exact_text copy(text);
    char* found[MOST_PIECES] = {};
    const int count = agt::tran_str_n_token_single(copy.get(), delimiters.c_str(), found, most);
    pieces wanted = split_plainly(text, delimiters, SIZE_MAX);
    if (wanted.back().empty())
        wanted.pop_back();
    wanted.resize(std::min(wanted.size(), static_cast<std::size_t>(most)));
    require(stored(found, count) == wanted, "tran_str_n_token_single");
}

void check_words(const std::string& text, const std::string& delimiters, int most) {
    const exact_text copy(text);
    char* found[MOST_PIECES] = {};
    const int count = agt::tran_str_n_token(copy.get(), delimiters.c_str(), found, most);
    pieces wanted = split_plainly(text, delimiters, SIZE_MAX);
    std::erase(wanted, "");
    wanted.resize(std::min(wanted.size(), static_cast<std::size_t>(most)));
    require(stored(found, count) == wanted, "tran_str_n_token");
}

void check_trim(const std::string& text) {
    const exact_text copy(text);
    std::string wanted = text;
    std::erase_if(wanted, [](unsigned char c) { return std::isspace(c) != 0; });
    require(agt::tran_a_trim(copy.get()) == (text.empty() ? -1 : 0) && wanted == copy.get(),
            "tran_a_trim");
}

void check_comment(const std::string& text) {
    const exact_text copy(text);
    const bool comment = text.starts_with('#');
    require(agt::tran_is_comment(copy.get()) == (comment ? 1 : 0), "tran_is_comment");
    require(comment || text.substr(0, text.find('#')) == copy.get(), "tran_is_comment");
}

void check_search(const std::string& text, const std::string& part) {
    const char* parts[] = {"no part of anything", part.c_str()};
    const bool found = text.find(part) != text.npos || text.find(parts[0]) != text.npos;
    require(agt::tran_str_search(text.c_str(), parts, 2) == (found ? 0 : -1), "tran_str_search");
}

void check_paths(const std::string& text, const std::string& home, std::size_t size) {
    const std::unique_ptr<char[]> out(new char[size]);
    const exact_text path(text);
    const std::string whole = text.starts_with('/') ? text : home + "/" + text;
    require(agt::resolve_path(out.get(), size, home.c_str(), path.get()) == (whole.size() < size) &&
                whole.substr(0, size - 1) == out.get(),
            "resolve_path");
    require(agt::env2str(path.get(), out.get(), size) ? std::strlen(out.get()) < size
                                                      : out[0] == '\0',
            "env2str");
    require(std::string(agt::get_procname(path.get())) == text.substr(text.rfind('/') + 1),
            "get_procname");
    agt::makedir(path.get(), 0);
}

// A field of any bytes, of which one is none too many.
template <std::size_t N> struct field {
    std::unique_ptr<char[][N]> memory{new char[1][N]};
    char (&bytes)[N] = memory[0];

    bool full() const { return strnlen(bytes, N) == N - 1; }
};

template <std::size_t N> void check_field(const std::string& text) {
    field<N> one;
    std::memset(one.bytes, '9', N);
    std::memcpy(one.bytes, text.data(), std::min(N, text.size()));
    const long value = agt::get_long(one.bytes);
    agt::get_number(one.bytes);
    agt::put_number(one.bytes, value);
    require(one.full(), "put_number");
    const std::string digits = std::to_string(value);
    require(digits.size() > N - 1 || value < 0 || agt::get_long(one.bytes) == value, "get_long");
    agt::put_text(one.bytes, text.c_str());
    require(one.full(), "put_text");
    agt::copy_text(one.bytes, text.c_str());
    require(text.substr(0, N - 1) == one.bytes, "copy_text");
    double number = 0;
    std::memcpy(&number, text.data(), std::min(sizeof number, text.size()));
    agt::put_percent(one.bytes, number);
    require(one.full(), "put_percent");
    agt::put_decimal(one.bytes, number, static_cast<int>(N) - 1, static_cast<int>(N) - 1);
    require(one.full(), "put_decimal");
}

void check_settings(const std::string& text) {
    using namespace kessard;
    const unsigned char flags = get_log_flag_set_char(text.c_str());
    require(get_log_flag_set_char(get_log_flag_set_str(flags)) == flags, "get_log_flag_set_str");
    *que_info = {};
    set_fst_err_rc_set(text.c_str());
    for (const char setting : que_info->fst_err_rc_set)
        require(setting >= 0 && setting <= 2, "set_fst_err_rc_set");
}

} // namespace

// Nothing is made.
int __wrap_mkdir(const char*, mode_t) {
    return 0;
}

void fuzz::set_up() {
    setenv("D", "/d", 1);
    setenv("LONG", std::string(300, 'x').c_str(), 1);
    kessard::que_info = make_segment<TRAN_LOGF_QUE_INFO>();
}

void fuzz::run(std::string_view input) {
    reader from(input);
    const std::size_t length = from.number<std::uint8_t>();
    const std::string line =
        std::string(from.text_until('\n')).c_str(); // up to the first NUL, as the rest
    const std::string text = std::string(from.rest()).c_str();
    const int most = static_cast<int>(length % MOST_PIECES) + 1;
    check_split(text, line, most);
    check_fields(text, line, most);
    check_words(text, line, most);
    check_trim(text);
    check_comment(text);
    check_search(text, line);
    check_paths(text, line, length + 1);
    check_field<2>(text);
    check_field<4>(text);
    check_field<11>(text);
    check_field<31>(text);
    check_settings(text);
    agt::get_hash_code(text.data(), text.size());
}
