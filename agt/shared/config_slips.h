// What ends a start although a shorter look would pass over it: slips in the keys that protect.
//
// A key that protects and is absent changes nothing; one that somebody wrote and the reader does
// not find would leave the agent open. So each line that begins with such a keyword, or nearly so,
// in a section of the table or one of nearly that name, must be the line that the reader takes for
// the key, whole and with a value that is understood. Other programs' sections are theirs.
#pragma once

#include <string>
#include <vector>

#include "config_file.h"

namespace agt {

struct config_slip {
    int line;
    const config_key* key;
    std::string what;
};

// The slips of a file, in the order of their lines.
std::vector<config_slip> find_slips(const config_file& file);

// Why a value cannot be one of the key; empty when it can, or when the key's kind needs this host
// to be judged.
std::string value_fault(const config_key& key, const std::string& value);

// Why a line that is meant for a key, by its first word, is none; empty when it is.
std::string keyword_fault(const std::string& text, const config_key& key);

// Whether the file has the section TLS.
bool has_tls_section(const config_file& file);

// What the keys that protect say, defaults included, in one line; empty when none of them stands.
std::string policy_text(const config_file& file);

} // namespace agt
