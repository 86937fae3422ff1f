// Slips in the keys that protect.
#include "config_slips.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <string_view>

#include "config_lines.h"
#include "host_address.h"
#include "printable.h"

namespace agt {
namespace {

constexpr char TLS[] = "TLS";
constexpr std::size_t SHOWN_LENGTH = 60; // of a word

std::string in_quotes(const std::string& word) {
    return "'" + printable(word).str().substr(0, SHOWN_LENGTH) + "'";
}

std::string in_brackets(const std::string& name) {
    return "[" + printable(name).str().substr(0, SHOWN_LENGTH) + "]";
}

bool is_of(const config_key& key, const char* section) {
    return std::strcmp(key.section, section) == 0;
}

// The key that protects for which a line was meant, null without one; the one of that very name
// before others.
const config_key* meant_key(const cfg_line& line) {
    const std::string word = first_word(line.text);
    const config_key* nearest = nullptr;
    for (const config_key& key : CONFIG_KEYS) {
        if (!key.protects || !is_meant_for(line.text, key.keyword))
            continue;
        if (nearest == nullptr || word == key.keyword)
            nearest = &key;
    }
    return nearest;
}

std::string counts_instead(const config_file& file, int piece) {
    return piece < 0 ? "" : ", that of line " + std::to_string(file.at(piece).line) + " counts";
}

// Why the reader does not look for the key where the line stands; empty when it does.
std::string place_fault(const config_file& file, const cfg_line& line, const config_key& key) {
    const std::string own = in_brackets(key.section);
    switch (line.place) {
    case cfg_place::front:
        return "stands in front of the first section and belongs into " + own;
    case cfg_place::second:
        return "stands in a second section " + in_brackets(line.name) +
               counts_instead(file, file.header_of(line.section));
    case cfg_place::near:
        return "stands in " + in_brackets(line.name) + ", which is not " +
               in_brackets(line.section);
    default:
        return is_of(key, line.section)
                   ? ""
                   : "stands in " + in_brackets(line.section) + " and belongs into " + own;
    }
}

// Whether nothing but blanks stands between the keyword that the line starts with and a '='.
bool has_equals(const std::string& text) {
    const std::size_t word = text.find(first_word(text));
    const std::size_t behind = text.find_first_not_of(" \t", text.find_first_of(" \t", word));
    return behind != text.npos && text[behind] == '=';
}

// What is wrong with a line that was meant for the key; empty when the reader has its value.
std::string line_fault(const config_file& file, const cfg_line& line, const config_key& key) {
    if (!line.whole)
        return "is longer than 255 characters and would be cut";
    if (line.text.find('\0') != line.text.npos)
        return "holds a NUL byte, which ends the line";
    if (std::string fault = place_fault(file, line, key); !fault.empty())
        return fault;
    if (std::string fault = keyword_fault(line.text, key); !fault.empty())
        return fault;
    if (!has_equals(line.text))
        return "no '=' stands behind the keyword";
    const int entry = file.entry_of(key);
    if (line.piece < 0 || entry != line.piece)
        return "is not read" + counts_instead(file, entry);
    return value_fault(key, file.value_of(key));
}

struct search {
    const config_file& file;
    std::set<const config_key*> seen;
    std::vector<config_slip> slips;

    void add(int line, const config_key& key, const std::string& what) {
        slips.push_back({line, &key, what});
    }
};

// All of section TLS protects: what stands in it is one of its keys.
void look_at(search& now, const cfg_line& line) {
    const bool is_tls = line.section != nullptr && std::strcmp(line.section, TLS) == 0;
    const config_key& first = config_key_of(TLS, "CERT_FILE");
    if (line.place == cfg_place::foreign || line.is_remark())
        return;
    if (line.is_header) {
        if (is_tls && line.place == cfg_place::second)
            now.add(line.line, first, "stands in a section that is there twice");
        else if (is_tls && line.place == cfg_place::near && line.name.size() == std::strlen(TLS) &&
                 is_near(line.name, TLS) && strcasecmp(line.name.c_str(), TLS) == 0)
            now.add(line.line, first, in_brackets(line.name) + " is not [TLS]");
        return;
    }
    const config_key* key = meant_key(line);
    if (key == nullptr) {
        if (is_tls && line.place == cfg_place::own)
            now.add(line.line, first,
                    in_quotes(first_word(line.text)) + " is no key of this section");
        return;
    }
    now.seen.insert(key);
    if (const std::string fault = line_fault(now.file, line, *key); !fault.empty())
        now.add(line.line, *key, fault);
}

// Keys that the reader finds where nobody wrote them, and files that the section TLS lacks.
void look_at_rest(search& now) {
    const bool tls = has_tls_section(now.file);
    for (const config_key& key : CONFIG_KEYS) {
        if (!key.protects || now.seen.contains(&key) || (is_of(key, TLS) && !tls))
            continue;
        if (const int entry = now.file.entry_of(key); entry >= 0)
            now.add(now.file.at(entry).line, key, "is read out of the rest of a long line");
        else if (key.kind == key_kind::existing_file)
            now.add(now.file.at(now.file.header_of(TLS)).line, key, "is missing in this section");
    }
}

} // namespace

std::vector<config_slip> find_slips(const config_file& file) {
    search now{file, {}, {}};
    for (const cfg_line& line : lines_of(file))
        look_at(now, line);
    look_at_rest(now);
    std::stable_sort(now.slips.begin(), now.slips.end(),
                     [](const auto& a, const auto& b) { return a.line < b.line; });
    return now.slips;
}

std::string value_fault(const config_key& key, const std::string& value) {
    if (key.kind == key_kind::yes_no)
        return value == "Y" || value == "N" ? "" : in_quotes(value) + " is neither Y nor N";
    if (value.find_first_not_of(',') == value.npos)
        return key.kind == key_kind::addresses    ? "names no address"
               : key.kind == key_kind::peer_names ? "names nobody"
               : value.empty()                    ? "has no value"
                                                  : "";
    if (key.kind != key_kind::addresses)
        return "";
    for (std::size_t at = 0, end = 0; end != value.npos; at = end + 1) {
        end = value.find(',', at);
        const std::string item = value.substr(at, end - at);
        address_block block;
        if (!item.empty() && !parse_address_block(item.c_str(), &block))
            return in_quotes(item) + " is no address and no block of addresses";
    }
    return "";
}

std::string keyword_fault(const std::string& text, const config_key& key) {
    const std::string word = first_word(text);
    if (word == key.keyword)
        return "";
    return word.starts_with(key.keyword + std::string("="))
               ? "a blank must stand between the keyword and the '='"
               : in_quotes(word) + " is not " + key.keyword;
}

bool has_tls_section(const config_file& file) {
    const int header = file.header_of(TLS);
    return header >= 0 && file.at(header).text.starts_with("[TLS]");
}

std::string policy_text(const config_file& file) {
    const bool tls = has_tls_section(file);
    bool any = false;
    std::string text;
    for (const config_key& key : CONFIG_KEYS) {
        if (!key.protects || (is_of(key, TLS) && !tls))
            continue;
        const bool stands = file.entry_of(key) >= 0;
        any = any || stands;
        text += std::string(text.empty() ? "" : ", ") + key.keyword + " " +
                (stands ? printable(file.value_of(key)).str()
                        : std::string("absent, ") + key.otherwise);
    }
    return any ? text + (tls ? "" : ", no TLS") : "";
}

} // namespace agt
