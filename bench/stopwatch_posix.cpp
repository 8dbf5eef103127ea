// Runs a command and writes elapsed seconds, processor seconds and peak memory in KiB to a file. It
// is a separate small program because a process inherits the peak of the one that starts it.
//
// usage: stopwatch <file> <command> [argument ...]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>

namespace {

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: stopwatch <file> <command> [argument ...]\n";
    return 64;
  }
  const auto started = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    execvp(argv[2], argv + 2);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (child < 0 || wait4(child, &status, 0, &usage) != child) {
    return 1;
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - started;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(argv[1], "w"),
                                                             &std::fclose);
  if (file == nullptr ||
      std::fprintf(file.get(), "%.6f %.6f %ld\n", taken.count(),
                   Seconds(usage.ru_utime) + Seconds(usage.ru_stime), usage.ru_maxrss) < 0) {
    return 1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
