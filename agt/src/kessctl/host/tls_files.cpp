// The files with which the console speaks TLS.
#include "host/tls_files.h"

#include <cstdlib>

#include "host/cfg_value.h"
#include "read_cfg.h"
#include "util.h"

namespace kessctl {
namespace {

constexpr struct {
    const agt::config_key& key;
    std::string agt::tls_files::*file;
    const char* option;
} FILES[] = {{agt::config_key_of("TLS", "CERT_FILE"), &agt::tls_files::cert, "--cert"},
             {agt::config_key_of("TLS", "KEY_FILE"), &agt::tls_files::key, "--key"},
             {agt::config_key_of("TLS", "CA_FILE"), &agt::tls_files::ca, "--ca"}};

std::string path_of(const std::string& word) {
    agt::tls_file_text path;
    const char* home = std::getenv("TRAN_AGT_HOME");
    return !word.empty() && agt::resolve_path(path, sizeof path, home, word.c_str()) ? path : word;
}

} // namespace

std::optional<agt::tls_files> tls_section(const std::string& cfg_file) {
    agt::tls_files found;
    bool any = false;
    for (const agt::config_key& key : agt::CONFIG_KEYS)
        any = any ||
              (key.reader == agt::key_reader::tls &&
               agt::find_line_in_file_section(cfg_file.c_str(), key.section, key.keyword) >= 0);
    for (const auto& one : FILES)
        found.*one.file = path_of(cfg_value(cfg_file, one.key));
    return any ? std::optional(found) : std::nullopt;
}

std::shared_ptr<agt::tls_identity> open_tls(const std::string& cfg_file, agt::tls_files own,
                                            std::string* why) {
    const std::optional<agt::tls_files> section = tls_section(cfg_file);
    why->clear();
    if (!section && own.cert.empty() && own.key.empty() && own.ca.empty())
        return nullptr;
    for (const auto& one : FILES) {
        std::string& file = own.*one.file;
        if (file.empty() && section)
            file = (*section).*one.file;
        if (file.empty())
            *why = std::string("TLS needs ") + one.option + " too, or " + one.key.keyword +
                   " in section [TLS]";
    }
    auto opened = std::make_shared<agt::tls_identity>();
    if (why->empty())
        *why = opened->open(own);
    if (why->empty())
        return opened;
    *why = "TLS: " + *why;
    return nullptr;
}

} // namespace kessctl
