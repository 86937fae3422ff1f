// A configuration file as its writer meant it: lines with the section that they stand in, or would
// stand in but for a slip, and the keywords that a line nearly begins with.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "config_file.h"

namespace agt {

enum class cfg_place {
    front,   // before the first section
    own,     // a section of the table that the reader finds
    second,  // another one of that name
    near,    // a name that is nearly one of the table's
    foreign, // another program's
};

struct cfg_line {
    int line = 0;      // of the file, from 1
    int piece = -1;    // that it begins with; -1 when it begins in the middle of one
    bool whole = true; // not longer than what the reader takes for a line
    std::string text;
    bool is_header = false;
    std::string name;              // of its section, as written
    const char* section = nullptr; // of the table; null in front and in another program's
    cfg_place place = cfg_place::front;

    // Whether it is blank, or somebody's remark.
    bool is_remark() const;
};

// All lines of a file in their order, a carriage return counting as the end of one.
std::vector<cfg_line> lines_of(const config_file& file);

// The sections of the table of keys, each once.
std::vector<const char*> config_sections();

// Whether a word is another one but for capitals, for a blank or '-' in place of '_', and for one
// character that is wrong, missing, too many or exchanged with the next.
bool is_near(std::string_view written, std::string_view known);

// Whether a line begins with a keyword or nearly so, whatever stands between it and its value.
bool is_meant_for(std::string_view line, std::string_view keyword);

} // namespace agt
