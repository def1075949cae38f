// isolated COMMAND [ARGUMENT]... - runs a command in a directory and a network of its own, as every test of the unit
// programs runs, and ends with its exit status. For tests that are whole programs.
#include "isolation.h"

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "Usage: isolated COMMAND [ARGUMENT]...\n");
        return 99;
    }
    tarn::test::isolate_process();
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[1], argv + 1);
        perror(argv[1]);
        _exit(99);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        perror("isolated");
        return 99;
    }
    if (WIFSIGNALED(status))
        fprintf(stderr, "isolated: %s was ended by signal %d\n", argv[1], WTERMSIG(status));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}
