// Times and sizes as people read them.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

namespace kessctl {

// "3 d 4 h", "12 min 5 s": the two largest units.
std::string duration(long long sec);

// "1 try", "2 tries".
std::string counted(long long number, const char* one, const char* several);

// "604.2 MiB".
std::string size_text(std::size_t bytes);

// "2026-11-23 09:12:40", local; "-" for a time that is none.
std::string clock_text(time_t when);

// The same of a moment before `now`, without the date when that is less than a day ago.
std::string since_text(time_t when, time_t now);

// The text in lines of `room` bytes, broken at blanks; a longer word stays whole.
std::vector<std::string> wrap(std::string text, std::size_t room);

} // namespace kessctl
