// Reader of the agent's sectioned text configuration file.
//
//     [SECTION]                    a line that starts with '['; the name ends at the first ']'
//     KEYWORD = word word ...      a blank must stand before the '='; at most 16 words
//     # comment                    only in the first column
//
// Lines are read in pieces of at most 255 characters, each of which counts as a line. The file is
// opened and closed by every lookup, so an edit is seen by the next one. Reentrant: every call has
// buffers of its own.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string_view>

namespace agt {

inline constexpr int CFG_WORD_MAX = 16;                     // words of a value
inline constexpr std::size_t CFG_LINE_SIZE = 256;           // bytes of a line with its terminator
inline constexpr std::size_t CFG_WORD_SIZE = CFG_LINE_SIZE; // a word may fill its line

// Copies word `n` (from 1) of the value of `keyword` in `section` of the file `fname` into
// `string`, which must hold CFG_WORD_SIZE bytes. 1 on success. -1 when the file, the section, the
// keyword or the word is missing; `string` is untouched then and the reason stands on standard
// error.
int get_nth_token_in_file_section(const char* fname, const char* section, const char* keyword,
                                  int n, char* string);

// The same without a word on standard error, for keys that may be absent.
int find_nth_token_in_file_section(const char* fname, const char* section, const char* keyword,
                                   int n, char* string);

// The number (from 1) of the line that the lookups above read for `keyword` in `section`, whose
// value text, line end included, goes into `value` (CFG_LINE_SIZE bytes); or that of the section's
// header for a null keyword. -1 without one. Nothing on standard error. Pieces of a long line count
// as lines.
int find_line_in_section(std::FILE* fp, const char* section, const char* keyword, char* value);

// Word `n` (from 1) of a value text; empty when there are fewer.
std::string_view nth_word(const char* value, int n);

// Positions `fp` behind the header of `section`, searching from its start. The line number of the
// header (from 1), or -1 with a line on standard error.
// Nothing in the programs calls it.
int seek_section(std::FILE* fp, const char* section);

// Finds the entry of `keyword` from the current position to the end of the section and copies its
// value text, line end included, into `string` (CFG_LINE_SIZE bytes). The number of lines read, or
// -1 with a line on standard error.
// Nothing in the programs calls it.
int get_string_in_section(std::FILE* fp, const char* keyword, char* string);

} // namespace agt
