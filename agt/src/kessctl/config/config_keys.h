// The keys of the configuration file that the daemon reads, and what each may hold.
#pragma once

#include <span>
#include <string>

namespace kessctl {

enum class key_kind {
    number,        // least..most, in `unit`
    port,          // least..most
    segment_key,   // System V key of a segment, no two alike
    semaphore_key, // System V key of a semaphore set, no two alike
    text,          // least..most characters
    choice,        // one of the words of `unit`
    time_of_day,   // HHMM, or ---- for never
    yes_no,        // Y or N
    own_address,   // dotted address of this host
    host,          // name or dotted address, up to `most` characters
    addresses,     // dotted addresses and blocks, separated by commas
    names,         // up to `most` names, separated by commas
    log_directory, // with TRAN_AGT_HOME up to `most` characters, as are the next two
    script,
    file,
};

enum class key_need { start, watchdog, never }; // what does not go without the key

struct config_key {
    const char* section;
    const char* keyword;
    int word; // of the value
    key_kind kind;
    long least;
    long most;
    const char* unit;
    key_need need;
    const char* otherwise; // what holds without the key; empty for one that is needed
    const char* help;
};

inline constexpr std::size_t SKIPPED_NAME_MAX = 30; // characters of one of the `names`

// All of them, in the order of the sample configuration.
std::span<const config_key> config_keys();

// "SECTION/KEYWORD", as findings name a key.
std::string key_name(const config_key& key);

// What the key may hold, for people.
std::string allowed_text(const config_key& key);

} // namespace kessctl
