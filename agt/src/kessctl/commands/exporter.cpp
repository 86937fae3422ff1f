// kessctl exporter: the figures of an agent over HTTP, for Prometheus, for balancers and for
// people.
//
// SIGINT and SIGTERM are blocked before the first thread starts and end every wait of all of them
// through one descriptor that nobody reads.
#include <sys/signalfd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <memory>

#include "agent/agent_watch.h"
#include "agent/status_page.h"
#include "agent/status_report.h"
#include "commands/commands.h"
#include "host/web_server.h"
#include "wait.h"

namespace kessctl {
namespace {

struct exporter_options {
    look_options look;
    std::string listen = "127.0.0.1:9477";
};

// Empty, or why the text is no ADDRESS:PORT.
std::string address_fault(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    const std::string port = colon == text.npos ? "" : text.substr(colon + 1);
    const bool good = CLI::ValidIPV4(text.substr(0, std::min(colon, text.size()))).empty() &&
                      !port.empty() && port.size() <= 5 &&
                      port.find_first_not_of("0123456789") == port.npos && std::stoi(port) <= 65535;
    return good ? "" : "'" + text + "' is no dotted address and port, as 127.0.0.1:9477";
}

agt::http_answer health_answer(const agent_look& seen) {
    constexpr int unavailable = 503;
    agt::http_answer answer;
    if (seen.found.health != agent_health::ok)
        answer.status = unavailable;
    for (const std::string& reason : seen.found.reasons())
        answer.body += reason + "\n";
    if (answer.body.empty())
        answer.body = std::string(health_name(seen.found.health)) + "\n";
    return answer;
}

agt::http_answer answer_path(agent_watch& agent, const std::string& path) {
    constexpr int not_found = 404;
    agt::http_answer answer;
    if (path == "/healthz")
        return health_answer(*agent.look());
    if (path == "/metrics") {
        const std::shared_ptr<const agent_look> seen = agent.look();
        answer.type = "text/plain; version=0.0.4; charset=utf-8";
        answer.body = status_metrics(seen->now, seen->found);
    } else if (path == "/") {
        const std::shared_ptr<const agent_look> seen = agent.look();
        answer.type = "text/html; charset=utf-8";
        answer.body = status_page(seen->now, seen->found, *seen->history);
    } else {
        answer.status = not_found;
        answer.body = "only /, /metrics and /healthz\n";
    }
    return answer;
}

agt::unique_fd take_signals() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    return agt::unique_fd(signalfd(-1, &ending, SFD_CLOEXEC));
}

exit_status serve_figures(const exporter_options& chosen) {
    const agt::unique_fd ending = take_signals();
    agent_watch agent(chosen.look.cfg_file, chosen.look.full_percent);
    const std::shared_ptr<const agent_look> first = agent.look();
    if (!first->now.cfg_fault.empty())
        return complain(first->now.cfg_fault);
    const std::size_t colon = chosen.listen.rfind(':');
    const std::string address = chosen.listen.substr(0, colon);
    web_server server;
    const std::string wrong = server.open(address, std::stoi(chosen.listen.substr(colon + 1)));
    if (!wrong.empty())
        return complain(wrong);
    std::printf("listening on http://%s:%d/\n", address.c_str(), server.port());
    std::fflush(stdout);
    agt::set_cancel_fd(ending.get());
    server.start([&](const std::string& path) { return answer_path(agent, path); }, ending.get());
    do
        agent.keep();
    while (agt::sleep_ms(KEEP_SEC * 1000));
    return EXIT_OK;
}

} // namespace

void add_exporter(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<exporter_options>();
    CLI::App* command = app.add_subcommand(
        "exporter", "Serve the figures of an agent over HTTP: /metrics, /healthz and a page");
    add_look_options(*command, chosen->look);
    command
        ->add_option("--listen", chosen->listen,
                     "Address and port; port 0: the system chooses, the first line says which")
        ->check(CLI::Validator(address_fault, "ADDRESS:PORT"))
        ->capture_default_str();
    command->footer("/metrics  what kessctl metrics prints\n"
                    "/healthz  200 when kessctl status says ok, else 503 with the reasons\n"
                    "/         a page for people, which loads itself again\n"
                    "Whoever reaches the port sees all of it; there is no password. SIGTERM ends "
                    "it. "
                    "Exit status: 0 ended by a signal, 2 the configuration cannot be read or the "
                    "port not be opened.");
    command->callback([chosen, status] { *status = serve_figures(*chosen); });
}

} // namespace kessctl
