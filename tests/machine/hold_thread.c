// Holds one thread of a process as a debugger does, until it is killed or the process ends: hold_thread TID
#include <stdio.h>
#include <stdlib.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

int main(int argc, char** argv) {
    const int tid = argc == 2 ? atoi(argv[1]) : 0;
    if (ptrace(PTRACE_SEIZE, tid, 0, 0) != 0 || ptrace(PTRACE_INTERRUPT, tid, 0, 0) != 0) {
        perror("ptrace");
        return 1;
    }
    int status = 0;
    while (waitpid(tid, &status, __WALL) == tid && WIFSTOPPED(status))
        continue;
    return 0;
}
