// kessctl serve: the stand-in central server for trying, testing and teaching.
//
// SIGHUP, SIGINT and SIGTERM are blocked before the first thread starts and taken by the main
// thread alone.
#include "commands/commands.h"

#include <CLI/CLI.hpp>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "server/service_file.h"
#include "server/stand_in.h"
#include "wire/json_frame.h"
#include "wire/print_frame.h"

namespace kessctl {
namespace {

struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using file_handle = std::unique_ptr<std::FILE, file_closer>;

struct serve_options {
    std::string address = "127.0.0.1";
    int port = 0;
    std::string services_file;
    std::string json_log;
    std::string port_file;
    tls_options tls;
    bool quiet = false;
    stand_in_options behaviour;
};

std::string time_now() {
    timespec now{};
    struct tm local {};
    char text[32] = "";
    char whole[48] = "";
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    std::strftime(text, sizeof text, "%F %T", &local);
    std::snprintf(whole, sizeof whole, "%s.%03ld", text, now.tv_nsec / 1000000);
    return whole;
}

void print_traffic(const std::string& time, const traffic& seen) {
    const std::string head =
        time + "  #" + std::to_string(seen.connection) + (seen.sent ? "  <- " : "  -> ");
    if (const std::optional<TCP_CMD_MSG> frame = frame_of(seen.bytes))
        print_frame(stdout, head, *frame);
    else
        std::printf("%s%zu bytes that are no message\n", head.c_str(), seen.bytes.size());
    std::fflush(stdout);
}

// Empty, or why the port could not be written. The file appears whole.
std::string write_port(const std::string& path, int port) {
    const std::string unfinished = path + ".new";
    const file_handle file(std::fopen(unfinished.c_str(), "we"));
    if (file == nullptr || std::fprintf(file.get(), "%d\n", port) < 0 ||
        std::fflush(file.get()) != 0 || std::rename(unfinished.c_str(), path.c_str()) != 0)
        return path + ": " + std::strerror(errno);
    return {};
}

std::string load_services(const serve_options& chosen, stand_in& server) {
    std::vector<SERVICE_ELEMENT> services;
    if (chosen.services_file.empty())
        return {};
    const std::string wrong = read_service_file(chosen.services_file, &services);
    if (!wrong.empty())
        return wrong;
    if (!chosen.quiet)
        std::printf("%s  %zu services from %s\n", time_now().c_str(), services.size(),
                    chosen.services_file.c_str());
    server.set_services(std::move(services));
    return {};
}

sigset_t block_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signo : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&signals, signo);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// A file that turns bad while the server runs leaves the services as they were.
void serve_until_signal(const serve_options& chosen, const sigset_t& signals, stand_in& server) {
    for (int signo = 0; sigwait(&signals, &signo) == 0 && signo == SIGHUP;) {
        const std::string wrong = load_services(chosen, server);
        if (!wrong.empty())
            complain(wrong);
        std::fflush(stdout);
    }
}

exit_status serve(const serve_options& chosen) {
    const sigset_t signals = block_signals();
    const file_handle json_log(chosen.json_log.empty() ? nullptr
                                                       : std::fopen(chosen.json_log.c_str(), "ae"));
    if (!chosen.json_log.empty() && json_log == nullptr)
        return complain(chosen.json_log + ": " + std::strerror(errno));
    const auto observer = [&](const traffic& seen) {
        const std::string time = time_now();
        if (!chosen.quiet)
            print_traffic(time, seen);
        if (json_log != nullptr) {
            std::fprintf(json_log.get(), "%s\n", json_line(time, seen).c_str());
            std::fflush(json_log.get());
        }
    };
    stand_in server;
    server.change([&](stand_in_options& options) {
        options = chosen.behaviour;
        options.record = false;
    });
    std::string wrong;
    server.use_tls(open_tls(default_cfg_file(), chosen.tls.files, &wrong),
                   [](const std::string& why) { complain("an agent was refused: TLS: " + why); });
    if (wrong.empty())
        wrong = load_services(chosen, server);
    if (wrong.empty())
        wrong = server.start(chosen.address, chosen.port, observer);
    if (wrong.empty() && !chosen.port_file.empty())
        wrong = write_port(chosen.port_file, server.port());
    if (!wrong.empty())
        return complain(wrong);
    std::printf("%s  listening on %s port %d\n", time_now().c_str(), chosen.address.c_str(),
                server.port());
    std::fflush(stdout);
    serve_until_signal(chosen, signals, server);
    server.stop();
    return EXIT_OK;
}

} // namespace

void add_serve(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<serve_options>();
    stand_in_options& behaviour = chosen->behaviour;
    CLI::App* command =
        app.add_subcommand("serve", "Be the central server: answer agents and show what they send");
    command->add_option("--listen", chosen->address, "Address to listen on")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    command->add_option("--port", chosen->port, "Port to listen on (default: the system chooses)")
        ->check(CLI::Range(0, 65535));
    command->add_option("--services", chosen->services_file,
                        "Services file to answer with; SIGHUP reads it again");
    command->add_option("--json-log", chosen->json_log,
                        "Append every message to this file as a JSON line");
    command->add_option("--port-file", chosen->port_file,
                        "Write the port to this file once it is open");
    add_tls_files(*command, chosen->tls);
    command->add_flag("--quiet", chosen->quiet, "Print no messages");
    command
        ->add_option("--svr-gap-time", behaviour.svr_gap_time,
                     "svr_gap_time of the health-check answers")
        ->capture_default_str();
    command->add_option("--refuse-updates", behaviour.update_result,
                        "result_code for uploaded service blocks");
    command->add_option("--delay-ms", behaviour.fault.delay_ms, "Wait before every answer")
        ->check(CLI::Range(0, INT_MAX));
    command->add_flag("--silent", behaviour.fault.silent, "Answer nothing");
    command->add_flag("--garbage", behaviour.fault.garbage,
                      "Answer with bytes that are no message");
    command->add_flag("--wrong-magic", behaviour.fault.wrong_magic,
                      "Answer with a wrong first byte");
    command
        ->add_option("--split-after", behaviour.fault.split_after_bytes,
                     "Send every answer in two pieces, the first of that many bytes")
        ->check(CLI::Range(0, INT_MAX));
    command
        ->add_option("--close-in-answer", behaviour.fault.close_after_bytes,
                     "Close after that many bytes of an answer")
        ->check(CLI::Range(0, INT_MAX));
    command
        ->add_option("--close-after", behaviour.close_after_messages,
                     "Close a connection after that many messages")
        ->check(CLI::Range(0, INT_MAX));
    command->callback([chosen, status] { *status = serve(*chosen); });
}

} // namespace kessctl
