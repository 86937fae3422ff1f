// The keys of the configuration file.
#include "config_keys.h"

#include <climits>

namespace agt {
namespace {

using enum key_kind;

std::string number_text(const config_key& key) {
    std::string span = "a number";
    if (key.least > INT_MIN)
        span += " from " + std::to_string(key.least);
    span += (key.least > INT_MIN ? " to " : " up to ") + std::to_string(key.most);
    return *key.unit == '\0' ? span : span + " " + key.unit;
}

std::string text_length(const config_key& key) {
    const std::string most =
        std::to_string(key.most) + (key.most == 1 ? " character" : " characters");
    return key.least == key.most ? most : "up to " + most;
}

std::string choice_text(std::string words) {
    const std::size_t last = words.rfind(' ');
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i)
        text += words[i] != ' ' ? std::string(1, words[i]) : i == last ? " or " : ", ";
    return text;
}

std::string path_text(const char* what, const config_key& key) {
    return std::string(what) + ", with TRAN_AGT_HOME " + text_length(key);
}

} // namespace

std::string key_name(const config_key& key) {
    return std::string(key.section) + "/" + key.keyword;
}

std::string allowed_text(const config_key& key) {
    switch (key.kind) {
    case number:
    case port:
        return number_text(key);
    case segment_key:
        return number_text(key) + " that no other segment has";
    case semaphore_key:
        return number_text(key) + " that no other semaphore set has";
    case text:
        return text_length(key);
    case choice:
        return choice_text(key.unit);
    case time_of_day:
        return "HHMM from 0000 to 2359, or ----";
    case yes_no:
        return "Y or N";
    case own_address:
        return "a dotted IPv4 address of this host, or 0.0.0.0";
    case host:
        return "a host name or dotted IPv4 address, " + text_length(key);
    case addresses:
        return "IPv4 addresses or blocks such as 10.0.0.0/8, separated by commas";
    case names:
        return "up to " + std::to_string(key.most) + " names of up to " +
               std::to_string(LENGTH_OF<skipped_name_text>) + " characters, separated by commas";
    case log_directory:
        return path_text("a directory with a writable proc/kessard", key);
    case script:
        return path_text("an executable file", key);
    case file:
        return path_text("a file in an existing directory", key);
    case existing_file:
        return path_text("a readable file", key);
    case peer_names:
        return "names separated by commas";
    }
    return {};
}

} // namespace agt
