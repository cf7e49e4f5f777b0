/* The floor of a read-only command: start a process, read agent.ini, write
 * it to standard output, exit. Plain C over the system calls, linked against
 * the C library only: nothing a real command could do with less.
 *
 * Usage: floor_read FILE */
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 2) {
        fputs("usage: floor_read FILE\n", stderr);
        return 2;
    }
    int fd = open(argv[1], O_RDONLY);
    if (fd < 0) {
        perror(argv[1]);
        return 1;
    }
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) {
        if (write(STDOUT_FILENO, buf, (size_t)n) != n) return 1;
    }
    close(fd);
    return n < 0 ? 1 : 0;
}
