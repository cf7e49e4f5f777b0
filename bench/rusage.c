/* Runs commands a number of times, their standard output thrown away, and
 * prints for each run the processor time the command used (user plus
 * system, in microseconds) and its peak resident memory (kilobytes), as the
 * kernel accounts them for that process alone. Stops at the first run that
 * fails and exits with its status.
 *
 * Processor time, unlike elapsed time, leaves out the time a process waits
 * for a processor while other work runs on the machine.
 *
 * Several commands, separated by ":::", run in turn (the first, the second,
 * ..., the first again), so that a slow drift of the machine's speed falls
 * on all of them alike; each line starts with the command's number (0, 1,
 * ...). Words NAME=VALUE before a command are set in its environment.
 *
 * Usage: rusage RUNS [NAME=VALUE...] COMMAND [ARGUMENT...] [::: [NAME=VALUE...] COMMAND [ARGUMENT...]]... */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

enum { kMaxCommands = 8 };

struct Command {
    char** env;  /* NAME=VALUE words, up to argv */
    char** argv; /* NULL-terminated */
};

int main(int argc, char** argv) {
    if (argc < 3 || atoi(argv[1]) < 1) {
        fputs("usage: rusage RUNS [NAME=VALUE...] COMMAND [ARGUMENT...] [::: ...]\n", stderr);
        return 2;
    }
    const int runs = atoi(argv[1]);
    struct Command commands[kMaxCommands];
    int count = 0;
    for (int i = 2; i < argc;) {
        if (count == kMaxCommands) {
            fputs("rusage: too many commands\n", stderr);
            return 2;
        }
        struct Command* c = &commands[count++];
        c->env = argv + i;
        while (i < argc && strchr(argv[i], '=') != NULL && strcmp(argv[i], ":::") != 0) ++i;
        c->argv = argv + i;
        while (i < argc && strcmp(argv[i], ":::") != 0) ++i;
        if (c->argv == argv + i) {
            fputs("rusage: a command is missing\n", stderr);
            return 2;
        }
        if (i < argc) argv[i++] = NULL; /* ends this command's words */
    }
    for (int i = 0; i < runs; ++i) {
        for (int k = 0; k < count; ++k) {
            const struct Command* c = &commands[k];
            pid_t pid = fork();
            if (pid < 0) {
                perror("fork");
                return 2;
            }
            if (pid == 0) {
                int null = open("/dev/null", O_WRONLY);
                if (null >= 0) dup2(null, STDOUT_FILENO);
                for (char** e = c->env; e != c->argv; ++e) putenv(*e);
                execvp(c->argv[0], c->argv);
                perror(c->argv[0]);
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
            printf("%d %lld %ld\n", k, cpu, usage.ru_maxrss);
        }
    }
    return 0;
}
