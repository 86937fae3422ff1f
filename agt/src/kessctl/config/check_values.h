// Whether the value of a configuration key is one that the daemon can work with.
#pragma once

#include <string>

#include "config_keys.h"

namespace kessctl {

using agt::config_key;
using agt::key_kind;

enum class severity { note, warning, error };

struct verdict {
    std::string what; // empty: nothing is wrong
    severity level = severity::error;
};

// Judges the word that the daemon reads for a key, by itself; of addresses all words, with commas
// between them. Relative paths are taken under `home`; with an empty one they cannot be judged. A
// script's own existence is not looked at.
verdict check_value(const config_key& key, const std::string& word, const std::string& home);

// Whether a word is an address that this host does not have now.
bool is_foreign_address(const std::string& word);

// The path of a value under `home`, whole.
std::string full_path(const std::string& word, const std::string& home);

// The number that the daemon makes of a word.
int number_read(const std::string& word);

} // namespace kessctl
