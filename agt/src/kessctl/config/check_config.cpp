// The check of a configuration file.
//
// The reader decides what the daemon sees; what it passes over is looked for only to say so. First
// the lines and the sections, then every key by itself, then what ends a start, the words that are
// no keys, and what concerns several keys and the running system.
#include "config/check_config.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "config_lines.h"
#include "config_slips.h"
#include "host/daemon_process.h"
#include "host/listener.h"
#include "host/shared_view.h"
#include "host/tls_files.h"
#include "read_cfg.h"
#include "unique_fd.h"
#include "wire/text.h"

namespace kessctl {
namespace {

using agt::config_key_of;
using agt::key_reader;

struct checker {
    const config_file& file;
    const std::string& home;
    std::vector<finding> found;

    void add(int line, severity level, const std::string& key, const std::string& what) {
        found.push_back({line, level, key, what, ""});
    }
    void add(int line, severity level, const config_key& key, const std::string& what) {
        found.push_back({line, level, key_name(key), what, allowed_text(key)});
    }
};

// The line of a key's entry, 0 without one.
int line_of(const config_file& file, const config_key& key) {
    const int entry = file.entry_of(key);
    return entry < 0 ? 0 : file.at(entry).line;
}

void check_section(checker& check, const std::string& section) {
    const std::string written = "[" + section + "]";
    const int header = check.file.header_of(section.c_str());
    for (int i = header + 1; header >= 0 && i < static_cast<int>(check.file.pieces().size()); ++i)
        if (check.file.at(i).text.starts_with(written))
            check.add(check.file.at(i).line, severity::error, written,
                      "not read: line " + std::to_string(check.file.at(header).line) +
                          " counts as its header");
    if (header >= 0 && !check.file.at(header).text.starts_with(written))
        check.add(check.file.at(header).line, severity::warning, written,
                  "this line counts as its header: a name of the same length in the brackets, and "
                  "the section's name "
                  "anywhere in the line");
}

std::string missing_text(const config_key& key) {
    return key.may_be_absent() ? ", the daemon goes on with " + std::string(key.otherwise)
           : key.reader == key_reader::watchdog ? ", the worker watchdog does not run without it"
                                                : ", the daemon does not start without it";
}

// A key without an entry: one that may be absent is reported only when a line looks like it.
void check_absent(checker& check, const config_key& key) {
    const int header = check.file.header_of(key.section);
    if (header < 0) {
        if (!key.may_be_absent())
            check.add(check.file.last_line(), severity::error, key,
                      std::string("missing: there is no section [") + key.section + "]" +
                          missing_text(key));
        return;
    }
    const auto [first, end] = check.file.body_of(header);
    for (int i = first; i < end; ++i)
        if (!check.file.at(i).text.starts_with('#') &&
            agt::is_meant_for(check.file.at(i).text, key.keyword)) {
            check.add(check.file.at(i).line, severity::error, key,
                      "missing: " + agt::keyword_fault(check.file.at(i).text, key) +
                          missing_text(key));
            return;
        }
    if (!key.may_be_absent())
        check.add(check.file.at(header).line, severity::error, key,
                  "missing in this section" + missing_text(key));
}

void check_repeated(checker& check, const config_key& key, int entry) {
    const auto [first, end] = check.file.body_of(check.file.header_of(key.section));
    for (int i = entry + 1; i < end; ++i)
        if (agt::first_word(check.file.at(i).text) == key.keyword)
            check.add(check.file.at(i).line, severity::warning, key,
                      "not read: the value of line " + std::to_string(check.file.at(entry).line) +
                          " counts");
}

// A word behind the one that counts, unless it starts a remark.
void check_rest(checker& check, const config_key& key, int line) {
    const std::string next = check.file.word_of(key, key.word + 1);
    if (!next.empty() && !next.starts_with('#') && key.word == 1)
        check.add(line, severity::warning, key,
                  "'" + next + "' is not read, only the first word counts");
}

void check_key(checker& check, const config_key& key) {
    const int entry = check.file.entry_of(key);
    if (entry < 0)
        return check_absent(check, key);
    const int line = check.file.at(entry).line;
    const std::string word = check.file.value_of(key);
    check_repeated(check, key, entry);
    if (word.empty() && key.word != agt::ALL_WORDS) {
        if (!key.may_be_absent())
            check.add(line, severity::error, key,
                      "missing: the value has no word " + std::to_string(key.word) +
                          missing_text(key));
        return;
    }
    check_rest(check, key, line);
    const verdict judged = check_value(key, word, check.home);
    if (!judged.what.empty())
        check.add(line, judged.level, key, judged.what);
}

bool watchdog_is_off(const config_file& file) {
    const std::string word = file.word_of(config_key_of("KESSARD", "WORKER_CHECK_INTERVAL"), 1);
    return !word.empty() && number_read(word) == 0;
}

void check_keys(checker& check) {
    const bool off = watchdog_is_off(check.file);
    for (const char* section : agt::config_sections())
        for (const config_key& key : agt::CONFIG_KEYS)
            if (key.section == std::string(section) &&
                (!off || key.reader != key_reader::watchdog || check.file.entry_of(key) >= 0))
                check_key(check, key);
}

// What ends a start takes the place of what has been said of its line.
void check_slips(checker& check) {
    for (const agt::config_slip& slip : agt::find_slips(check.file)) {
        std::erase_if(check.found, [&](const finding& one) {
            return one.line == slip.line && one.key == key_name(*slip.key);
        });
        check.add(slip.line, severity::error, *slip.key, slip.what + "; the daemon does not start");
    }
}

// A comment counts too: its rest is no comment.
void check_length(checker& check, const agt::cfg_line& line) {
    const bool entry = line.place == agt::cfg_place::own && !line.is_remark();
    const std::size_t rest = std::min(line.text.size(), agt::CFG_LINE_SIZE - 1);
    if (!line.whole)
        check.add(line.line, entry ? severity::error : severity::warning, "line",
                  "longer than 255 characters, the rest '" +
                      printable(agt::first_word(line.text.substr(rest))) +
                      " ...' is read as a line of its own");
}

// A header that is none of the daemon's.
void check_header(checker& check, const agt::cfg_line& line) {
    const std::string written = "[" + printable(line.name) + "]";
    if (line.place == agt::cfg_place::near)
        check.add(line.line, severity::error, written,
                  "not read, nearest is [" + std::string(line.section) + "]");
    else if (line.place == agt::cfg_place::foreign)
        check.add(line.line, severity::warning, written, "unknown to the daemon");
}

// A line of one of the daemon's sections: what is wrong with its keyword. An unknown one is
// nobody's error, unless it is nearly a known one or belongs elsewhere.
finding judge_word(const agt::cfg_line& line) {
    const std::string word = agt::first_word(line.text);
    const std::string shown = std::string(line.section) + "/" + printable(word);
    const auto all = agt::CONFIG_KEYS;
    const auto in_section = [&](const config_key& key) {
        return key.section == std::string(line.section);
    };
    const auto find = [&](auto accepts) { return std::find_if(all.begin(), all.end(), accepts); };
    const bool known =
        find([&](const auto& key) { return in_section(key) && word == key.keyword; }) != all.end();
    const auto meant = find([&](const auto& key) {
        return in_section(key) && agt::is_meant_for(line.text, key.keyword);
    });
    const auto elsewhere = find([&](const auto& key) { return word == key.keyword; });
    if (!known && meant != all.end())
        return {line.line, severity::error, shown,
                "not read, nearest is " + std::string(meant->keyword), ""};
    if (!known && elsewhere != all.end())
        return {line.line, severity::error, shown,
                "not read, belongs into [" + std::string(elsewhere->section) + "]", ""};
    if (line.text.find('=') == line.text.npos)
        return {line.line, severity::error, shown, "has no '='", ""};
    return {line.line, severity::warning, shown, known ? "" : "unknown to the daemon", ""};
}

void check_words(checker& check) {
    for (const agt::cfg_line& line : agt::lines_of(check.file)) {
        const bool judged =
            std::any_of(check.found.begin(), check.found.end(), [&](const finding& one) {
                return one.line == line.line && one.level == severity::error;
            });
        if (judged)
            continue;
        check_length(check, line);
        if (line.is_header)
            check_header(check, line);
        else if (line.place == agt::cfg_place::own && !line.is_remark())
            if (const finding one = judge_word(line); !one.what.empty())
                check.found.push_back(one);
    }
}

// Keys of one kind that the daemon reads as the same number.
void check_collisions(checker& check, key_kind kind) {
    std::map<int, const config_key*> first;
    for (const config_key& key : agt::CONFIG_KEYS) {
        const std::string word = key.kind == kind ? check.file.word_of(key, key.word) : "";
        if (word.empty())
            continue;
        const auto [other, is_new] = first.insert({number_read(word), &key});
        if (!is_new)
            check.add(line_of(check.file, key), severity::error, key,
                      word + " is the key of " + other->second->keyword + " too, in line " +
                          std::to_string(line_of(check.file, *other->second)));
    }
}

void check_objects(checker& check) {
    for (const agt::shared_object* object : agt::SHARED_OBJECTS) {
        const object_state now = find_object(check.file.path(), *object);
        const config_key& key = object->key();
        if (now.exists() && now.size != 0 && now.size != object->size)
            check.add(line_of(check.file, key), severity::warning, key,
                      "an object of that key exists with " + std::to_string(now.size) +
                          " instead of " + std::to_string(object->size) + " " + object->unit() +
                          (now.size < object->size ? ": the daemon cannot use it"
                                                   : ": it may be another program's"));
    }
}

// Settings that exist are kept by every start, whatever QUE_CNT says.
void check_settings(checker& check) {
    constexpr const config_key& key = config_key_of("TRAN_LOGF", "QUE_CNT");
    TRAN_LOGF_QUE_INFO settings;
    if (read_settings(check.file.path(), &settings).empty() && settings.qcnt < 1)
        check.add(
            line_of(check.file, key), severity::warning, key,
            "the settings that exist name " + std::to_string(settings.qcnt) +
                " log queues and would be kept: run kessctl clean while the agent is stopped");
}

void report_used_port(checker& check, int port) {
    const config_key& key = config_key_of("TRAN_AGENT", "CMD_PORT");
    const int line = line_of(check.file, key);
    const std::vector<pid_t> holders = listeners_of(port);
    const std::vector<pid_t> daemons = daemons_of(check.file.path());
    const auto own =
        std::find_first_of(daemons.begin(), daemons.end(), holders.begin(), holders.end());
    const std::string number = "port " + std::to_string(port);
    if (own != daemons.end())
        check.add(line, severity::note, key_name(key),
                  number + " is held by the running agent of this configuration, " +
                      process_text(*own));
    else
        check.add(line, severity::warning, key_name(key),
                  number + " is in use" + (holders.empty() ? "" : " by " + process_texts(holders)) +
                      "; an agent with another configuration may be running");
}

// Whether a connection to the server would be one to the agent itself.
void check_endpoints(checker& check) {
    const config_key& key = config_key_of("TRAN_SERVER", "CMD_PORT");
    const std::string own = check.file.word_of(config_key_of("TRAN_AGENT", "IP_ADDRESS"), 1);
    const std::string port = check.file.word_of(key, 1);
    std::string server = check.file.word_of(config_key_of("TRAN_SERVER", "IP_ADDRESS"), 1);
    if (server == "localhost")
        server = "127.0.0.1";
    const bool any =
        inet_addr(own.c_str()) == INADDR_ANY &&
        check_value(config_key_of("TRAN_AGENT", "IP_ADDRESS"), server, "").what.empty();
    if ((any || own == server) && number_read(port) > 0 &&
        number_read(port) ==
            number_read(check.file.word_of(config_key_of("TRAN_AGENT", "CMD_PORT"), 1)))
        check.add(line_of(check.file, key), severity::error, key,
                  "the agent takes its own commands on port " + port + " of that address");
}

void check_port(checker& check) {
    const config_key& key = config_key_of("TRAN_AGENT", "CMD_PORT");
    const std::string address = check.file.word_of(config_key_of("TRAN_AGENT", "IP_ADDRESS"), 1);
    const int port = number_read(check.file.word_of(key, 1));
    if (address.empty() || port < key.least || port > key.most)
        return;
    const int refused = try_port(address.c_str(), port);
    if (refused == EADDRINUSE)
        report_used_port(check, port);
    else if (refused == EACCES)
        check.add(line_of(check.file, key), severity::warning, key,
                  "this user may not listen on that port");
}

// The script runs only when that is switched on. One with shell characters is more than a path.
void check_script(checker& check) {
    const config_key& key = config_key_of("SERVICE_HASH", "DAILY_UPDATE_SCRIPT");
    const std::string word = check.file.word_of(key, 1);
    if (check.file.word_of(config_key_of("SERVICE_HASH", "DAILY_UPDATE_YN"), 1) != "Y")
        return;
    const std::string path = full_path(word, check.home);
    if (word.empty())
        check.add(line_of(check.file, config_key_of("SERVICE_HASH", "DAILY_UPDATE_YN")),
                  severity::error, key, "missing, and the daily update is on");
    else if (word.find_first_of("$`'\"|&;<>()*?~") == word.npos && access(path.c_str(), X_OK) != 0)
        check.add(line_of(check.file, key), severity::error, key,
                  path + ": " + std::strerror(errno));
}

// What the daemon makes of the files of section [TLS], once nothing else is wrong with its keys.
void check_tls(checker& check) {
    const std::optional<agt::tls_files> files = tls_section(check.file, check.home.c_str());
    const bool judged = std::any_of(check.found.begin(), check.found.end(), [](const auto& one) {
        return one.level == severity::error && one.key.starts_with("TLS/");
    });
    if (!files || judged)
        return;
    const std::string fault = agt::tls_identity().open(*files);
    if (!fault.empty())
        check.add(check.file.at(check.file.header_of("TLS")).line, severity::error, "[TLS]",
                  fault + "; the daemon does not start");
}

} // namespace

std::vector<finding> check_config(const config_file& file, const std::string& home) {
    checker check{file, home, {}};
    for (const char* section : agt::config_sections())
        check_section(check, section);
    check_keys(check);
    check_slips(check);
    check_words(check);
    check_collisions(check, key_kind::segment_key);
    check_collisions(check, key_kind::semaphore_key);
    check_objects(check);
    check_settings(check);
    check_endpoints(check);
    check_port(check);
    check_script(check);
    check_tls(check);
    std::stable_sort(check.found.begin(), check.found.end(),
                     [](const finding& a, const finding& b) { return a.line < b.line; });
    return check.found;
}

} // namespace kessctl
