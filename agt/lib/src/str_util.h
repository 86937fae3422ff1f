// String tokenisers. All strings end in NUL; the splitters write NULs into the string they split
// and return pointers into it.
#pragma once

namespace agt {

// Splits at runs of the characters in `p_delimeter_` (no empty words) and stores up to 100 words in
// `buf_`; returns the number stored.
// Nothing in the programs calls it.
int tran_str_token(char* p_pattern_, const char* p_delimeter_, char** buf_);

// The same, stopping after `max_token_` words.
// Nothing in the programs calls it.
int tran_str_n_token(char* p_pattern_, const char* p_delimeter_, char** buf_, int max_token_);

// Splits at every single delimiter: returns the next field, empty when two delimiters meet, and
// null at the end (a trailing delimiter yields no last empty field). A non-null `p_pattern_` starts
// a new string, null continues. Keeps its place per thread.
char* tran_str_token_single(char* p_pattern_, const char* p_delimeter_);

// Splits with tran_str_token_single into at most `max_token_` fields, storing null for an empty
// one; returns the number stored.
int tran_str_n_token_single(char* p_pattern_, const char* p_delimeter_, char** buf_,
                            int max_token_);

// 0 when one of the `dst_cnt_` strings of `dst_` occurs in `src_`, else -1.
// Nothing in the programs calls it.
int tran_str_search(const char* src_, const char* const* dst_, int dst_cnt_);

// Removes every whitespace character of `buf` in place. 0, or -1 for a null or empty string.
// Nothing in the programs calls it.
int tran_a_trim(char* buf);

// 1 when `buf` starts with '#'; otherwise cuts it at its first '#', if it has one, and returns 0.
// Nothing in the programs calls it.
int tran_is_comment(char* buf);

} // namespace agt
