// Ports and keys of an agent come from a numbered slot that a test owns while it holds an abstract
// socket of that number, which goes away with the test. The ports lie below those that the system
// picks for connections. Keys that exist already make the next slot be tried.
#include "agent_fixture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>

#include "tcp_base.h"

namespace test_support {
namespace {

constexpr int SLOTS = 6000;
constexpr int FIRST_PORT = 20000;
constexpr key_t FIRST_KEY = 0x4B540000;
constexpr int KEYS_PER_SLOT = 16;

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
    if (bind(lock.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0)
        lock.reset();
    return lock;
}

bool port_is_free(int port) {
    return agt::unique_fd(agt::open_tcp_server_session("127.0.0.1", port)).valid();
}

bool keys_are_free(key_t first) {
    for (key_t key = first; key < first + KEYS_PER_SLOT; ++key)
        if (shmget(key, 0, 0) >= 0 || semget(key, 0, 0) >= 0)
            return false;
    return true;
}

} // namespace

agent::agent() {
    char pattern[] = "/tmp/kt.XXXXXX";
    if (mkdtemp(pattern) == nullptr)
        ADD_FAILURE() << "cannot create a directory under /tmp: " << std::strerror(errno);
    home_ = pattern;
    std::filesystem::create_directories(path("logs/proc/kessard"));
    variables = {{"TRAN_AGT_HOME", home_}, {"TRAN_AGT_CFG_FILE", cfg_file()}};
    reserve_slot();
    add_defaults();
}

agent::~agent() {
    if (testing::Test::HasFailure())
        std::cerr << whole_log() << "---- stdout\n"
                  << out() << "---- stderr\n"
                  << err() << "----\n";
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
    cfg_ = {{"COMMON", {{"LOG_HOME", "logs"}}},
            {"TRAN_AGENT", {{"IP_ADDRESS", "127.0.0.1"}, {"CMD_PORT", std::to_string(port())}}},
            {"TRAN_SERVER", {{"IP_ADDRESS", "127.0.0.1"}}},
            {"ACTIVE_SERVICE_EVENT", {{"ACTIVE_LIMIT", "0"}}},
            {"SERVICE_HASH", {{"DAILY_UPDATE_HHMI", "----"}, {"DEFAULT_TIMEOUT_SEC", "30"}}},
            {"TRAN_LOGF", {{"LOG_INTERFACE", "01"}, {"TR_SECTION", "T"}, {"QUE_CNT", "8"}}},
            {"CHECK_FILES", {{"SVC_UPDATE_CHK_FILE", "svc_update"}}},
            {"PTRC_HASH", {{"TRC_STS_CHECK_PERIOD", "10"}}},
            {"CHECK_API_STAT", {{"ACT", "1 60 api_stat api_stat.out"}}},
            {"KESSARD", {{"WORKER_MODE", "THREAD"}, {"SKIP_PROC", "skipped"}}}};
    set("TRAN_SERVER", "CMD_PORT", server_port());
    set("SERVICE_HASH", "DAILY_UPDATE_SCRIPT", "services.sh");
    for (const char* keyword : {"WORKER_CHECK_INTERVAL", "WORKER_REST_INTERVAL"})
        set("KESSARD", keyword, 60);
    key_t key = first_key_;
    for (const std::string object : OBJECTS) {
        set("IPC_SHARED_MEMORY", object + "_SHMKEY", key++);
        if (object != "TRAN_LOGF_QUE_INFO")
            set("IPC_SEMAPHORE", object + "_SEMKEY", key);
        ++key;
    }
}

std::string agent::value(const std::string& section, const std::string& keyword) const {
    const auto& entries = cfg_.at(section);
    return entries.contains(keyword) ? entries.at(keyword) : "";
}

void agent::write_cfg() const {
    std::string text;
    for (const auto& [section, entries] : cfg_) {
        text += "[" + section + "]\n";
        for (const auto& [keyword, value] : entries)
            text += keyword + " = " + value + "\n";
    }
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
    const char* const emulated = std::getenv("KESSARD_EMULATED"); // a script of scripts/check-arm64
    options.insert(options.begin(), emulated == nullptr ? KESSARD_PROGRAM : emulated);
    program_.emplace(options, variables);
}

std::string agent::whole_log() const {
    const std::string base = value("COMMON", "LOG_HOME");
    const std::string directory = (base.starts_with('/') ? base : path(base)) + "/proc/kessard";
    std::error_code error;
    std::set<std::filesystem::path> files;
    for (const auto& file : std::filesystem::directory_iterator(directory, error))
        files.insert(file.path());
    std::string text;
    for (const auto& file : files)
        text += content(file);
    return text;
}

std::size_t agent::count_log(const std::string& text) const {
    const std::string lines = log();
    std::size_t count = 0;
    for (std::size_t at = lines.find(text); at != std::string::npos; at = lines.find(text, at + 1))
        ++count;
    return count;
}

void* agent::attach(const std::string& keyword, std::size_t size, int flags) {
    const key_t key = shm_key(keyword);
    void* object = shmat(key == IPC_PRIVATE ? -1 : shmget(key, size, flags), nullptr, 0);
    if (object == reinterpret_cast<void*>(-1)) {
        ADD_FAILURE() << keyword << ": " << std::strerror(errno);
        return nullptr;
    }
    const std::lock_guard guard(attaching_);
    attached_.push_back(object);
    return object;
}

void agent::remove_objects() const {
    for (key_t key = first_key_; slot_lock_.valid() && key < first_key_ + KEYS_PER_SLOT; ++key) {
        shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);
        semctl(semget(key, 0, 0), 0, IPC_RMID);
    }
}

} // namespace test_support
