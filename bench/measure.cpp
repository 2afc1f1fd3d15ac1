// Runs one command and reports its wall time and peak resident memory.
//
//   measure OUT_FILE ERR_FILE command [args...]
//
// The command's standard output goes to OUT_FILE and its standard error to
// ERR_FILE; the figures "<wall seconds> <peak kB> <exit status> <cpu seconds>"
// go to standard output (cpu: user and system time of the command).
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: measure OUT_FILE ERR_FILE command [args...]\n");
        return 2;
    }
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    pid_t pid = fork();
    if (pid < 0) return 1;
    if (pid == 0) {
        int out = open(argv[1], O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0) _exit(126);
        dup2(out, 1);
        dup2(err, 2);
        execvp(argv[3], argv + 3);
        _exit(127);
    }
    int status = 0;
    struct rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid) return 1;
    clock_gettime(CLOCK_MONOTONIC, &end);
    double seconds = static_cast<double>(end.tv_sec - start.tv_sec) +
                     static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9;
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    double cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                 static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    printf("%.4f %ld %d %.4f\n", seconds, usage.ru_maxrss, code, cpu);
    return 0;
}
