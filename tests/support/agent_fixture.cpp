// The agent under test.
//
// Ports and keys come from a numbered slot that a test owns while it holds an abstract socket of
// that number: it goes away with the test, however it ends. The ports lie below the range from
// which the system picks the local ports of connections. Keys that exist already (left by somebody
// else) make the next slot be tried.
#include "agent_fixture.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace test_support {
namespace {

constexpr int SLOTS = 6000;
constexpr int FIRST_PORT = 20000;
constexpr key_t FIRST_KEY = 0x4B540000;
constexpr int KEYS_PER_SLOT = 16;
constexpr char SHARED_MEMORY[] = "IPC_SHARED_MEMORY";
constexpr char SEMAPHORES[] = "IPC_SEMAPHORE";

// Each has a segment and, but for the first, a semaphore set.
const char* const OBJECTS[] = {"TRAN_LOGF_QUE_INFO", "SVC_HASH_TBL",    "NOTI_SEND_QUE",
                               "PTRC_HASH_TBL",      "JCACHE_HASH_TBL", "TRAN_AGT",
                               "PARSE_LOG_QUE"};

// Valid while this test alone holds the slot.
agt::unique_fd lock_slot(int slot) {
    agt::unique_fd lock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::snprintf(name.sun_path + 1, sizeof name.sun_path - 1, "kessard-test-%d", slot);
    return bind(lock.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0
               ? std::move(lock)
               : agt::unique_fd();
}

bool port_is_free(int port) {
    const agt::unique_fd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int reuse = 1;
    setsockopt(probe.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    own.sin_port = htons(static_cast<unsigned short>(port));
    return bind(probe.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0;
}

bool keys_are_free(key_t first) {
    for (key_t key = first; key < first + KEYS_PER_SLOT; ++key)
        if (shmget(key, 0, 0) >= 0 || semget(key, 0, 0) >= 0)
            return false;
    return true;
}

std::string read_file(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

} // namespace

agent::agent() {
    char pattern[] = "/tmp/kt.XXXXXX";
    if (mkdtemp(pattern) == nullptr)
        ADD_FAILURE() << "cannot create a directory under /tmp: " << std::strerror(errno);
    home_ = pattern;
    std::error_code error;
    std::filesystem::create_directories(path("logs/proc/kessard"), error);
    variables = {{"TRAN_AGT_HOME", home_}, {"TRAN_AGT_CFG_FILE", cfg_file()}};
    reserve_slot();
    add_defaults();
}

agent::~agent() {
    if (testing::Test::HasFailure())
        std::cerr << "---- log\n"
                  << whole_log() << "---- stdout\n"
                  << out() << "\n---- stderr\n"
                  << err() << "\n----\n";
    program_.reset();
    earlier_.clear();
    for (void* object : attached_)
        shmdt(object);
    remove_objects();
    std::error_code error;
    std::filesystem::remove_all(home_, error);
}

void agent::reserve_slot() {
    static int started = 0;
    const int first = (getpid() * 7 + started++) % SLOTS;
    for (int i = 0; i < SLOTS && !slot_lock_.valid(); ++i) {
        const int slot = (first + i) % SLOTS;
        port_ = FIRST_PORT + 2 * slot;
        first_key_ = FIRST_KEY + slot * KEYS_PER_SLOT;
        slot_lock_ = lock_slot(slot);
        if (slot_lock_.valid() &&
            (!port_is_free(port_) || !port_is_free(port_ + 1) || !keys_are_free(first_key_)))
            slot_lock_.reset();
    }
    if (!slot_lock_.valid())
        ADD_FAILURE() << "no free ports and System V keys";
}

void agent::add_defaults() {
    cfg_ = {{"COMMON", "LOG_HOME", "logs"},
            {"TRAN_AGENT", "IP_ADDRESS", "127.0.0.1"},
            {"TRAN_AGENT", "CMD_PORT", std::to_string(port())},
            {"TRAN_SERVER", "IP_ADDRESS", "127.0.0.1"},
            {"TRAN_SERVER", "CMD_PORT", std::to_string(server_port())},
            {"ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", "0"},
            {"SERVICE_HASH", "DAILY_UPDATE_HHMI", "----"},
            {"SERVICE_HASH", "DAILY_UPDATE_SCRIPT", "services.sh"},
            {"SERVICE_HASH", "DEFAULT_TIMEOUT_SEC", "30"},
            {"TRAN_LOGF", "LOG_INTERFACE", "01"},
            {"TRAN_LOGF", "TR_SECTION", "T"},
            {"TRAN_LOGF", "QUE_CNT", "8"},
            {"CHECK_FILES", "SVC_UPDATE_CHK_FILE", "svc_update"},
            {"PTRC_HASH", "TRC_STS_CHECK_PERIOD", "10"},
            {"CHECK_API_STAT", "ACT", "1 60 api_stat api_stat.out"},
            {"KESSARD", "WORKER_CHECK_INTERVAL", "60"},
            {"KESSARD", "WORKER_REST_INTERVAL", "60"},
            {"KESSARD", "WORKER_MODE", "THREAD"},
            {"KESSARD", "SKIP_PROC", "skipped"}};
    key_t key = first_key_;
    for (const std::string object : OBJECTS) {
        set(SHARED_MEMORY, object + "_SHMKEY", key++);
        set(SEMAPHORES, object + "_SEMKEY", key++);
    }
}

void agent::set(const std::string& section, const std::string& keyword, const std::string& value) {
    unset(section, keyword);
    cfg_.push_back({section, keyword, value});
}

void agent::set(const std::string& section, const std::string& keyword, long value) {
    set(section, keyword, std::to_string(value));
}

void agent::unset(const std::string& section, const std::string& keyword) {
    std::erase_if(
        cfg_, [&](const entry& one) { return one.section == section && one.keyword == keyword; });
}

std::string agent::value(const std::string& section, const std::string& keyword) const {
    const auto found = std::find_if(cfg_.begin(), cfg_.end(), [&](const entry& one) {
        return one.section == section && one.keyword == keyword;
    });
    return found == cfg_.end() ? "" : found->value;
}

void agent::write_cfg() const {
    std::map<std::string, std::string> sections;
    for (const entry& one : cfg_)
        sections[one.section] += one.keyword + " = " + one.value + "\n";
    std::string text;
    for (const auto& [name, entries] : sections)
        text += "[" + name + "]\n" + entries + "\n";
    write_file("agt.cfg", text);
}

// The file appears whole: a running program may be reading it, or remove it as soon as it is there.
void agent::write_file(const std::string& name, const std::string& text, unsigned mode) const {
    const std::string unfinished = path(name) + ".new";
    std::ofstream file(unfinished, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file || chmod(unfinished.c_str(), mode) != 0 ||
        std::rename(unfinished.c_str(), path(name).c_str()) != 0)
        ADD_FAILURE() << "cannot write " << path(name) << ": " << std::strerror(errno);
}

void agent::start(std::vector<std::string> options) {
    write_cfg();
    if (program_)
        earlier_.push_back(std::move(*program_));
    options.insert(options.begin(), KESSARD_PROGRAM);
    program_.emplace(options, variables);
}

void agent::start_daemon() {
    start({"-d"});
    EXPECT_EQ(program_->wait_exit(), 0) << "the parent of the daemon";
    EXPECT_TRUE(program_->follow_background()) << "there is no daemon";
}

void agent::signal(int signo) const {
    if (pid() <= 0 || kill(pid(), signo) != 0)
        ADD_FAILURE() << "no program to send the signal " << signo << " to";
}

int agent::wait_exit(int limit_ms) {
    return program_ ? program_->wait_exit(limit_ms) : -1;
}

int agent::stop(int limit_ms) {
    signal(SIGTERM);
    return wait_exit(limit_ms);
}

program_result agent::console(std::vector<std::string> words) const {
    words.insert(words.begin(), KESSCTL_PROGRAM);
    return run_program(words, variables, 2 * LIMIT_MS);
}

std::string agent::whole_log() const {
    const std::string base = value("COMMON", "LOG_HOME");
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator(
             (base.starts_with('/') ? base : path(base)) + "/proc/kessard", error))
        files.push_back(file.path());
    std::sort(files.begin(), files.end());
    std::string text;
    for (const auto& file : files)
        text += read_file(file);
    return text;
}

std::string agent::log() const {
    const std::string text = whole_log();
    return text.substr(std::min(log_mark_, text.size()));
}

void agent::mark_log() {
    log_mark_ = whole_log().size();
}

std::size_t agent::count_log(const std::string& text) const {
    const std::string lines = log();
    std::size_t count = 0;
    for (std::size_t at = lines.find(text); at != std::string::npos; at = lines.find(text, at + 1))
        ++count;
    return count;
}

bool agent::wait_log(const std::string& text, std::size_t times, int limit_ms) const {
    return wait_until([&] { return count_log(text) >= times; }, limit_ms);
}

key_t agent::shm_key(const std::string& keyword) const {
    return static_cast<key_t>(std::strtol(value(SHARED_MEMORY, keyword).c_str(), nullptr, 10));
}

key_t agent::sem_key(const std::string& keyword) const {
    return static_cast<key_t>(std::strtol(value(SEMAPHORES, keyword).c_str(), nullptr, 10));
}

int agent::sem_id(const std::string& keyword) const {
    return semget(sem_key(keyword), 0, 0);
}

void* agent::attach(const std::string& keyword, std::size_t size, int flags) {
    const key_t key = shm_key(keyword);
    void* object = shmat(key == IPC_PRIVATE ? -1 : shmget(key, size, flags), nullptr, 0);
    if (object == reinterpret_cast<void*>(-1)) {
        ADD_FAILURE() << keyword << ": " << std::strerror(errno);
        return nullptr;
    }
    attached_.push_back(object);
    return object;
}

void* agent::create_shm(const std::string& keyword, std::size_t size) {
    return attach(keyword, size, IPC_CREAT | IPC_EXCL | 0666);
}

void agent::remove_objects() const {
    for (key_t key = first_key_; slot_lock_.valid() && key < first_key_ + KEYS_PER_SLOT; ++key) {
        const int shm = shmget(key, 0, 0);
        const int sem = semget(key, 0, 0);
        if (shm >= 0)
            shmctl(shm, IPC_RMID, nullptr);
        if (sem >= 0)
            semctl(sem, 0, IPC_RMID);
    }
}

} // namespace test_support
