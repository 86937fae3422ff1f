// String tokenisers.
#include "str_util.h"

#include <cctype>
#include <cstring>

namespace agt {

int tran_str_token(char* p_pattern_, const char* p_delimeter_, char** buf_) {
    return tran_str_n_token(p_pattern_, p_delimeter_, buf_, 100);
}

int tran_str_n_token(char* p_pattern_, const char* p_delimeter_, char** buf_, int max_token_) {
    char* place = nullptr;
    int count = 0;
    char* word = p_pattern_;
    while (count < max_token_ &&
           (word = strtok_r(count == 0 ? p_pattern_ : nullptr, p_delimeter_, &place)) != nullptr)
        buf_[count++] = word;
    return count;
}

char* tran_str_token_single(char* p_pattern_, const char* p_delimeter_) {
    static thread_local char* src = nullptr;
    if (p_pattern_ != nullptr)
        src = p_pattern_;
    if (src == nullptr)
        return nullptr;
    char* field = src;
    char* delimiter = std::strpbrk(src, p_delimeter_);
    if (delimiter != nullptr) {
        *delimiter = '\0';
        src = delimiter + 1;
        return field;
    }
    if (*field == '\0')
        return nullptr;
    src = nullptr;
    return field;
}

int tran_str_n_token_single(char* p_pattern_, const char* p_delimeter_, char** buf_,
                            int max_token_) {
    int count = 0;
    char* field = nullptr;
    while (count < max_token_ && (field = tran_str_token_single(count == 0 ? p_pattern_ : nullptr,
                                                                p_delimeter_)) != nullptr)
        buf_[count++] = *field == '\0' ? nullptr : field;
    return count;
}

int tran_str_search(const char* src_, const char* const* dst_, int dst_cnt_) {
    for (int i = 0; i < dst_cnt_; ++i) {
        if (std::strstr(src_, dst_[i]) != nullptr)
            return 0;
    }
    return -1;
}

int tran_a_trim(char* buf) {
    if (buf == nullptr || *buf == '\0')
        return -1;
    const std::size_t length = std::strlen(buf);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < length; ++i) {
        if (std::isspace(static_cast<unsigned char>(buf[i])) == 0)
            buf[kept++] = buf[i];
    }
    buf[kept] = '\0';
    // The byte behind the new end is cleared as well, as long as it belonged to the string.
    if (kept + 1 <= length)
        buf[kept + 1] = '\0';
    return 0;
}

int tran_is_comment(char* buf) {
    if (*buf == '#')
        return 1;
    char* hash = std::strchr(buf, '#');
    if (hash != nullptr)
        *hash = '\0';
    return 0;
}

} // namespace agt
