/* Runs a command a number of times, its standard output thrown away, and
 * prints for each run the processor time the command used (user plus
 * system, in microseconds) and its peak resident memory (kilobytes), as the
 * kernel accounts them for that process alone. Stops at the first run that
 * fails and exits with its status.
 *
 * Processor time, unlike elapsed time, leaves out the time a process waits
 * for a processor while other work runs on the machine.
 *
 * Usage: rusage RUNS COMMAND [ARGUMENT...] */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 3 || atoi(argv[1]) < 1) {
        fputs("usage: rusage RUNS COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    const int runs = atoi(argv[1]);
    for (int i = 0; i < runs; ++i) {
        pid_t pid = fork();
        if (pid < 0) {
            perror("fork");
            return 2;
        }
        if (pid == 0) {
            int null = open("/dev/null", O_WRONLY);
            if (null >= 0) dup2(null, STDOUT_FILENO);
            execvp(argv[2], argv + 2);
            perror(argv[2]);
            _exit(127);
        }
        int status = 0;
        struct rusage usage;
        if (wait4(pid, &status, 0, &usage) != pid) {
            perror("wait4");
            return 2;
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        long long cpu = (long long)usage.ru_utime.tv_sec * 1000000 + usage.ru_utime.tv_usec +
                        (long long)usage.ru_stime.tv_sec * 1000000 + usage.ru_stime.tv_usec;
        printf("%lld %ld\n", cpu, usage.ru_maxrss);
    }
    return 0;
}
