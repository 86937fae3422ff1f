// The files with which the console speaks TLS.
#include "host/tls_files.h"

#include <cstdlib>

#include "config_slips.h"
#include "tls.h"
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

std::string path_of(const std::string& word, const char* home) {
    agt::tls_file_text path;
    return !word.empty() && agt::resolve_path(path, sizeof path, home, word.c_str()) ? path : word;
}

std::optional<agt::tls_files> section_of(const std::string& cfg_file) {
    agt::config_file file;
    const char* home = std::getenv("TRAN_AGT_HOME");
    return file.open(cfg_file).empty() ? tls_section(file, home == nullptr ? "" : home)
                                       : std::nullopt;
}

} // namespace

std::optional<agt::tls_files> tls_section(const agt::config_file& file, const char* home) {
    agt::tls_files found;
    if (!agt::has_tls_section(file))
        return {};
    for (const auto& one : FILES)
        found.*one.file = path_of(file.value_of(one.key), home);
    return found;
}

std::shared_ptr<agt::tls_identity> open_tls(const std::string& cfg_file, agt::tls_files own,
                                            std::string* why) {
    const std::optional<agt::tls_files> section = section_of(cfg_file);
    why->clear();
    if (!section && own.cert.empty() && own.key.empty() && own.ca.empty())
        return nullptr;
    for (const auto& one : FILES) {
        std::string& file = own.*one.file;
        if (file.empty() && section)
            file = (*section).*one.file;
        if (file.empty())
            *why = std::string(one.option) + " is needed too, or " + one.key.keyword +
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

std::optional<certificate_state> read_certificate(const std::string& cfg_file) {
    const std::optional<agt::tls_files> section = section_of(cfg_file);
    if (!section)
        return {};
    certificate_state state;
    state.file = section->cert;
    if (const agt::tls_calls* calls = agt::load_tls_module(&state.fault))
        state.expires = calls->file_expires(state.file.c_str(), &state.fault);
    return state;
}

} // namespace kessctl
