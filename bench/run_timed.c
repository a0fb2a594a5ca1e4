/*
 * Runs one command and reports its wall time and peak resident set size;
 * with --log, every line the command writes (stdout and stderr) is stamped
 * with the milliseconds since the start as it arrives through a pipe.
 *
 *   run_timed [--log FILE] [--] COMMAND [ARG...]
 *
 * The last line on stdout reads "run_timed wall_ms=W maxrss_kib=R exit=E".
 * Without --log the command's output goes where this program's goes.
 *
 * Plain C on purpose: the kernel carries a process's peak RSS across exec,
 * so the forked child starts with this program's resident pages counted;
 * without the C++ runtime they stay far below any daemon's peak.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double MillisSince(const struct timespec* start) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)(now.tv_sec - start->tv_sec) * 1e3 + (double)(now.tv_nsec - start->tv_nsec) / 1e6;
}

/* Copies the pipe to `log` line by line, each line prefixed with its
 * arrival time. A line that is still open when data runs out is stamped
 * when its first part arrived. */
static void StampLines(int pipe_fd, FILE* log, const struct timespec* start) {
  char buf[65536];
  int at_line_start = 1;
  for (;;) {
    ssize_t n = read(pipe_fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    const double ms = MillisSince(start);
    for (ssize_t i = 0; i < n; ++i) {
      if (at_line_start) fprintf(log, "%10.3f ", ms);
      fputc(buf[i], log);
      at_line_start = buf[i] == '\n';
    }
  }
  if (!at_line_start) fputc('\n', log);
}

int main(int argc, char** argv) {
  const char* log_path = NULL;
  int arg = 1;
  while (arg < argc && argv[arg][0] == '-') {
    if (strcmp(argv[arg], "--log") == 0 && arg + 1 < argc) {
      log_path = argv[arg + 1];
      arg += 2;
    } else if (strcmp(argv[arg], "--") == 0) {
      ++arg;
      break;
    } else {
      fprintf(stderr, "usage: run_timed [--log FILE] [--] COMMAND [ARG...]\n");
      return strcmp(argv[arg], "--help") == 0 || strcmp(argv[arg], "-h") == 0 ? 0 : 2;
    }
  }
  if (arg >= argc) {
    fprintf(stderr, "usage: run_timed [--log FILE] [--] COMMAND [ARG...]\n");
    return 2;
  }

  FILE* log = NULL;
  int out[2] = {-1, -1};
  if (log_path != NULL) {
    log = fopen(log_path, "w");
    if (log == NULL || pipe2(out, O_CLOEXEC) != 0) {
      perror(log_path);
      return 1;
    }
  }

  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  const pid_t child = fork();
  if (child < 0) {
    perror("fork");
    return 1;
  }
  if (child == 0) {
    if (log != NULL && (dup2(out[1], STDOUT_FILENO) < 0 || dup2(out[1], STDERR_FILENO) < 0)) {
      _exit(127);
    }
    execvp(argv[arg], argv + arg);
    perror(argv[arg]);
    _exit(127);
  }
  if (log != NULL) {
    close(out[1]);
    StampLines(out[0], log, &start);
    fclose(log);
  }

  int status = 0;
  struct rusage usage;
  while (wait4(child, &status, 0, &usage) < 0) {
    if (errno != EINTR) {
      perror("wait4");
      return 1;
    }
  }
  const double wall_ms = MillisSince(&start);
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  printf("run_timed wall_ms=%.1f maxrss_kib=%ld exit=%d\n", wall_ms, usage.ru_maxrss, code);
  return code;
}
