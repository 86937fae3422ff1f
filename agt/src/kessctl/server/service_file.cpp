// Services written as text.
#include "server/service_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "wire/text.h"

namespace kessctl {
namespace {

struct key {
    const char* name;
    std::size_t at;
    std::size_t size;
    bool number;
};

#define KEY(word, member, number)                                                                  \
    { word, offsetof(SERVICE_ELEMENT, member), sizeof(SERVICE_ELEMENT::member), number }
const key KEYS[] = {
    KEY("host", host_name, false),
    KEY("server", server_id, false),
    KEY("limit", limit, true),
    KEY("depth", call_trc_depth, true),
    KEY("call_limit", call_trc_limit, true),
    KEY("dbio_limit", dbio_trc_limit, true),
    KEY("sql_limit", sql_trc_limit, true),
    KEY("flags", uflag_set, false),
    KEY("tflag", tflag, true),
    KEY("mode", update_mode, false),
};
#undef KEY

std::string set_value(const std::string& word, SERVICE_ELEMENT* out) {
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos)
        return "'" + word + "' is not of the form key=value";
    const std::string name = word.substr(0, equals);
    const std::string value = word.substr(equals + 1);
    const auto found = std::find_if(std::begin(KEYS), std::end(KEYS),
                                    [&](const key& row) { return name == row.name; });
    if (found == std::end(KEYS))
        return "there is no key '" + name + "'";
    const std::string wrong = field_fault(value, found->size, found->number);
    if (!wrong.empty())
        return "'" + word + "'" + wrong;
    put_field(reinterpret_cast<char*>(out) + found->at, found->size, value);
    return {};
}

} // namespace

SERVICE_ELEMENT make_service(std::string_view service_id) {
    SERVICE_ELEMENT service{};
    for (const key& row : KEYS)
        put_field(reinterpret_cast<char*>(&service) + row.at, row.size, row.number ? "0" : "");
    put_field(service.service_id, sizeof service.service_id, service_id);
    service.update_mode[0] = 'A';
    return service;
}

std::string parse_service(const std::vector<std::string>& words, SERVICE_ELEMENT* out) {
    if (words.empty() || words[0].find('=') != std::string::npos)
        return "a service starts with its id";
    if (words[0].size() > sizeof out->service_id - 1)
        return "the id '" + words[0] + "' is longer than " +
               std::to_string(sizeof out->service_id - 1) + " characters";
    *out = make_service(words[0]);
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string wrong = set_value(words[i], out);
        if (!wrong.empty())
            return wrong;
    }
    return {};
}

std::string read_service_file(const std::string& path, std::vector<SERVICE_ELEMENT>* out) {
    std::ifstream file(path);
    if (!file)
        return path + ": " + std::strerror(errno);
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::vector<std::string> words =
            split_words(std::string_view(line).substr(0, line.find('#')));
        if (words.empty())
            continue;
        SERVICE_ELEMENT service;
        const std::string wrong = parse_service(words, &service);
        if (!wrong.empty())
            return path + ":" + std::to_string(number) + ": " + wrong;
        out->push_back(service);
    }
    return file.bad() ? path + ": " + std::strerror(errno) : "";
}

std::vector<std::string> split_words(std::string_view line) {
    constexpr std::string_view blanks = " \t\r\v\f";
    std::vector<std::string> words;
    for (std::size_t at = line.find_first_not_of(blanks); at != std::string_view::npos;) {
        const std::size_t end = std::min(line.find_first_of(blanks, at), line.size());
        words.emplace_back(line.substr(at, end - at));
        at = line.find_first_not_of(blanks, end);
    }
    return words;
}

} // namespace kessctl
