// What several tests look at: log lines without their time, the order of a service table, the state
// of a process. And the headers of the system and of the library that most tests use.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent_fixture.h"
#include "field.h"
#include "tcp_base.h"

namespace test_support {

using texts = std::vector<std::string>;

// The messages of a log: its lines without their time.
texts messages(const std::string& log);

// Whether the texts occur in the log in this order.
testing::AssertionResult in_order(const std::string& log, const texts& wanted);
testing::AssertionResult in_order(const agent& one, const texts& wanted); // waits for them

// Starts the agent and waits for its command loop and its threads.
void start_running(agent& one, const texts& options = {});

// What is wrong with a table's counts, stacks and chains; empty when it is in order.
std::string table_fault(const SVC_HASH_TBL& table);

// The value of a line of /proc/<pid>/status.
std::string status_of(pid_t pid, const std::string& name);

// What each open descriptor of a process refers to.
texts open_files(pid_t pid);

// The ids of the children of a process's first thread; one that has ended counts until it is waited
// for.
texts children(pid_t pid);

} // namespace test_support
