// A configuration file as its writer meant it.
#include "config_lines.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace agt {
namespace {

constexpr char BLANKS[] = " \t\n\v\f\r";
constexpr char BRACKETS[] = "[](){}<>";

bool is_word_byte(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

std::string_view trimmed(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    return text.substr(0, text.find_last_not_of(BLANKS) + 1);
}

// Without what may stand in front of a word by mistake: quotes, a byte order mark.
std::string_view from_word(std::string_view text) {
    const auto* start =
        std::find_if(text.begin(), text.end(), [](char c) { return is_word_byte(c) || c == '#'; });
    return {start, text.end()};
}

// In capitals with '_' for blank and '-', without control bytes; a character of several bytes is
// one.
std::string folded(std::string_view text) {
    std::string plain;
    for (const char c : trimmed(text)) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == ' ' || c == '\t' || c == '-')
            plain += '_';
        else if (byte >= ' ' && (byte & 0xC0) != 0x80)
            plain += static_cast<char>(std::toupper(byte));
    }
    return plain;
}

// The name of a line that is or was meant for a section's header; empty for any other line.
std::string header_name(std::string_view text) {
    text = trimmed(text);
    if (text.starts_with('['))
        return std::string(trimmed(text.substr(1, text.find_first_of("])}>#", 1) - 1)));
    if (text.find('=') != text.npos || text.find_first_of(BRACKETS) == text.npos)
        return {};
    const std::string_view name = from_word(text);
    const std::string inner(name.substr(0, name.find_first_of(BRACKETS)));
    const auto sections = config_sections();
    const bool known = std::any_of(sections.begin(), sections.end(),
                                   [&](const char* section) { return is_near(inner, section); });
    return known ? inner : "";
}

struct known_section {
    const char* name;
    int header; // piece that the reader takes for it, -1: none
};

std::vector<known_section> sections_of(const config_file& file) {
    std::vector<known_section> all;
    for (const char* name : config_sections())
        all.push_back({name, file.header_of(name)});
    return all;
}

// Finds the section that a header stands for. The reader takes other names too when the section's
// stands behind the bracket; for TLS they do not count, or another program's section became it.
void find_section(const std::vector<known_section>& sections, cfg_line& header) {
    const auto take = [&](cfg_place place, auto accepts) {
        const auto found = std::find_if(sections.begin(), sections.end(), accepts);
        if (found == sections.end())
            return false;
        header.place = place;
        header.section = found->name;
        return true;
    };
    const auto is_read = [&](const known_section& one) { return one.header == header.piece; };
    const auto is_named = [&](const known_section& one) {
        return header.text.starts_with("[" + std::string(one.name) + "]") && header.piece >= 0;
    };
    if (take(cfg_place::own, [&](const auto& s) { return is_read(s) && is_named(s); }) ||
        take(cfg_place::own,
             [&](const auto& s) { return is_read(s) && std::strcmp(s.name, "TLS") != 0; }) ||
        take(cfg_place::second, is_named) ||
        take(cfg_place::near, [&](const auto& s) { return is_near(header.name, s.name); }))
        return;
    header.place = cfg_place::foreign;
    header.section = nullptr;
}

cfg_line started(int line, int piece) {
    cfg_line one;
    one.line = line;
    one.piece = piece;
    return one;
}

// The lines of the file, nothing being said of their sections.
std::vector<cfg_line> split(const config_file& file) {
    std::vector<cfg_line> lines;
    for (int i = 0; i < static_cast<int>(file.pieces().size()); ++i) {
        const cfg_piece& piece = file.at(i);
        if (i == 0 || file.at(i - 1).line != piece.line)
            lines.push_back(started(piece.line, i));
        else
            lines.back().whole = false;
        for (const char c : piece.text) {
            if (c == '\r')
                lines.push_back(started(piece.line, -1));
            else if (c != '\n')
                lines.back().text += c;
        }
    }
    return lines;
}

} // namespace

bool cfg_line::is_remark() const {
    const std::string_view shown = trimmed(text);
    return shown.empty() || shown.starts_with('#');
}

std::vector<cfg_line> lines_of(const config_file& file) {
    const std::vector<known_section> sections = sections_of(file);
    std::vector<cfg_line> lines = split(file);
    const cfg_line* header = nullptr;
    for (cfg_line& line : lines) {
        line.name = line.is_remark() ? "" : header_name(line.text);
        line.is_header = !line.name.empty() || line.text.starts_with('[');
        if (line.is_header) {
            find_section(sections, line);
            header = &line;
        } else if (header != nullptr) {
            line.name = header->name;
            line.section = header->section;
            line.place = header->place;
        }
    }
    return lines;
}

std::vector<const char*> config_sections() {
    std::vector<const char*> all;
    for (const config_key& key : CONFIG_KEYS)
        if (std::none_of(all.begin(), all.end(),
                         [&](const char* one) { return std::strcmp(one, key.section) == 0; }))
            all.push_back(key.section);
    return all;
}

bool is_near(std::string_view written, std::string_view known) {
    const std::string a = folded(written);
    const std::string b = folded(known);
    const auto [u, v] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    const std::string_view x(u, a.end());
    const std::string_view y(v, b.end());
    const auto behind = [](std::string_view text, std::size_t n) {
        return text.substr(std::min(n, text.size()));
    };
    return behind(x, 1) == behind(y, 1) || behind(x, 1) == y || x == behind(y, 1) ||
           (x.size() > 1 && y.size() > 1 && x[0] == y[1] && x[1] == y[0] &&
            behind(x, 2) == behind(y, 2));
}

bool is_meant_for(std::string_view line, std::string_view keyword) {
    const std::string_view text = from_word(line);
    const auto is_inside = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return is_word_byte(c) || c == '-' || byte > '~' ||
               (std::iscntrl(byte) != 0 && std::isspace(byte) == 0);
    };
    const auto* word_end = std::find_if_not(text.begin(), text.end(), is_inside);
    return is_near({text.begin(), word_end}, keyword) ||
           is_near(text.substr(0, text.find_first_of("=:")), keyword);
}

} // namespace agt
