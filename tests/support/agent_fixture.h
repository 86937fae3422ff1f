// The agent under test: the real program with its own directory, ports and System V keys.
// Whatever happened, the destructor ends the program and all that it started and removes its shared
// objects and its directory. A test that failed gets the log on standard error first.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "process.h"
#include "shared_objects.h"
#include "unique_fd.h"

namespace test_support {

class agent {
  public:
    agent();
    ~agent();

    // The configuration: complete from the start, with nobody at TRAN_SERVER CMD_PORT, ACTIVE_LIMIT
    // 0, the watchdog at 60 s. Changes count from the next start, or at once after write_cfg().
    void set(const std::string& section, const std::string& keyword, const std::string& value) {
        cfg_[section][keyword] = value;
    }
    void set(const std::string& section, const std::string& keyword, long value) {
        set(section, keyword, std::to_string(value));
    }
    void unset(const std::string& section, const std::string& keyword) {
        cfg_[section].erase(keyword);
    }
    std::string value(const std::string& section, const std::string& keyword) const; // or empty
    void write_cfg() const;
    std::string cfg_file() const { return path("agt.cfg"); }

    environment variables; // of the program: TRAN_AGT_HOME and TRAN_AGT_CFG_FILE
    const std::string& home() const { return home_; }
    std::string path(const std::string& name) const { return home_ + "/" + name; }
    void write_file(const std::string& name, const std::string& text, unsigned mode = 0644) const;
    int port() const { return port_; }            // the command port
    int server_port() const { return port_ + 1; } // reserved for a server

    // Starts the program in the foreground, or with -d; then pid() is the daemon's. A program that
    // does not start as it should fails the test.
    void start(std::vector<std::string> options = {});
    void start_daemon() {
        start({"-d"});
        EXPECT_EQ(program_->wait_exit(), 0) << "the parent of the daemon";
        EXPECT_TRUE(program_->follow_background()) << "there is no daemon";
    }
    pid_t pid() const { return program_ ? program_->pid() : -1; }
    void signal(int signo) const { EXPECT_EQ(pid() > 0 ? kill(pid(), signo) : -1, 0) << signo; }
    int wait_exit(int limit_ms = LIMIT_MS) { return program_ ? program_->wait_exit(limit_ms) : -1; }
    int stop(int limit_ms = LIMIT_MS) {
        signal(SIGTERM);
        return wait_exit(limit_ms);
    }
    std::string out() const { return program_ ? program_->out() : ""; }
    std::string err() const { return program_ ? program_->err() : ""; }
    std::vector<pid_t> running() const { return program_->running(); }
    // Runs kessctl on this agent's configuration.
    program_result console(std::vector<std::string> words) const {
        words.insert(words.begin(), KESSCTL_PROGRAM);
        return run_program(words, variables, 2 * LIMIT_MS);
    }
    std::string run(const std::vector<std::string>& words) const { // as STATUS, a line end, texts
        const program_result done = console(words);
        return std::to_string(done.status) + "\n" + done.out + done.err;
    }

    // The log: all its files behind the mark, which is at their start until mark_log().
    std::string log() const {
        const std::string text = whole_log();
        return text.substr(std::min(log_mark_, text.size()));
    }
    void mark_log() { log_mark_ = whole_log().size(); }
    std::size_t count_log(const std::string& text) const;
    bool wait_log(const std::string& text, std::size_t times = 1, int limit_ms = LIMIT_MS) const {
        return wait_until([&] { return count_log(text) >= times; }, limit_ms);
    }

    // The shared objects, attached for reading and writing; null and a failure when there is none.
    TRAN_LOGF_QUE_INFO* settings() { return attach<TRAN_LOGF_QUE_INFO>("TRAN_LOGF_QUE_INFO"); }
    SVC_HASH_TBL* services() { return attach<SVC_HASH_TBL>("SVC_HASH_TBL"); }
    PTRC_HASH_TBL* traces() { return attach<PTRC_HASH_TBL>("PTRC_HASH_TBL"); }
    JCACHE_HASH_TBL* cache() { return attach<JCACHE_HASH_TBL>("JCACHE_HASH_TBL"); }
    TRAN_AGT_SHM* segment() { return attach<TRAN_AGT_SHM>("TRAN_AGT"); }
    NOTI_SEND_QUE* noti_que() { return attach<NOTI_SEND_QUE>("NOTI_SEND_QUE"); }
    PARSE_LOG_QUE_POOL* parse_log_que() { return attach<PARSE_LOG_QUE_POOL>("PARSE_LOG_QUE"); }
    key_t shm_key(const std::string& keyword) const { return key("IPC_SHARED_MEMORY", keyword); }
    key_t sem_key(const std::string& keyword) const { return key("IPC_SEMAPHORE", keyword); }
    // The id of a segment or of a set of semaphores; -1 when it does not exist.
    int shm_id(const std::string& keyword) const { return shmget(shm_key(keyword), 0, 0); }
    int sem_id(const std::string& keyword) const { return semget(sem_key(keyword), 0, 0); }
    // Creates an object of this agent before the program does; attached, zero.
    void* create_shm(const std::string& keyword, std::size_t size) {
        return attach(keyword, size, IPC_CREAT | IPC_EXCL | 0666);
    }

  private:
    key_t key(const std::string& section, const std::string& keyword) const {
        return static_cast<key_t>(std::atol(value(section, keyword).c_str()));
    }
    template <class T> T* attach(const std::string& object) {
        return static_cast<T*>(attach(object + "_SHMKEY", sizeof(T), 0));
    }
    void* attach(const std::string& keyword, std::size_t size, int flags);
    void reserve_slot();
    void add_defaults();
    std::string whole_log() const;
    void remove_objects() const;

    agt::unique_fd slot_lock_;
    int port_ = 0;
    key_t first_key_ = 0;
    std::string home_;
    std::map<std::string, std::map<std::string, std::string>> cfg_;
    std::optional<process> program_;
    std::vector<process> earlier_;
    std::size_t log_mark_ = 0;
    std::mutex attaching_; // exchanges may run at once
    std::vector<void*> attached_;
};

} // namespace test_support
