/* The floor of a command that changes a setting: start a process, read
 * agent.ini, then write it back twice (to agent.ini and to its copy
 * fallback.ini beside it) by the safe replace, each committed to disk:
 *   remove F.1; write F.2 and fsync it; rename F to F.1; rename F.2 to F;
 *   fsync the folder.
 * The bytes written are the bytes read, so the installation is unchanged and
 * the program can be run any number of times.
 *
 * Usage: floor_replace AGENT_INI */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int replace(const char* target, const char* data, size_t size) {
    char previous[4096], next[4096];
    if (snprintf(previous, sizeof previous, "%s.1", target) >= (int)sizeof previous) return -1;
    if (snprintf(next, sizeof next, "%s.2", target) >= (int)sizeof next) return -1;
    if (unlink(previous) != 0 && errno != ENOENT) return -1;
    int fd = open(next, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return -1;
    if (write(fd, data, size) != (ssize_t)size || fsync(fd) != 0) {
        close(fd);
        return -1;
    }
    close(fd);
    if (rename(target, previous) != 0 || rename(next, target) != 0) return -1;
    char folder[4096];
    snprintf(folder, sizeof folder, "%s", target);
    char* slash = strrchr(folder, '/');
    if (slash == NULL) strcpy(folder, ".");
    else if (slash == folder) folder[1] = 0;
    else *slash = 0;
    int dir = open(folder, O_RDONLY | O_DIRECTORY);
    if (dir < 0) return -1;
    fsync(dir);
    close(dir);
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fputs("usage: floor_replace AGENT_INI\n", stderr);
        return 2;
    }
    const char* ini = argv[1];
    int fd = open(ini, O_RDONLY);
    if (fd < 0) {
        perror(ini);
        return 1;
    }
    size_t size = 0, cap = 65536;
    char* data = malloc(cap);
    ssize_t n;
    while (data != NULL && (n = read(fd, data + size, cap - size)) > 0) {
        size += (size_t)n;
        if (size == cap) data = realloc(data, cap *= 2);
    }
    close(fd);
    if (data == NULL) return 1;

    char fallback[4096];
    snprintf(fallback, sizeof fallback, "%s", ini);
    char* slash = strrchr(fallback, '/');
    size_t dirLen = slash ? (size_t)(slash - fallback + 1) : 0;
    if (dirLen + sizeof "fallback.ini" > sizeof fallback) return 1;
    strcpy(fallback + dirLen, "fallback.ini");

    if (replace(ini, data, size) != 0 || replace(fallback, data, size) != 0) {
        perror("replace");
        return 1;
    }
    free(data);
    return 0;
}
