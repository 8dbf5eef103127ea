// The bare system calls for accounts without anything to send, and for the lines of a log, as a
// baseline for the program.
//
// usage: bare-calls accounts <log folder> [<file> <line>]
//        bare-calls append <file> <line> <times>
//
// `accounts` walks Upload and opens each credential file; with a file it also appends the line for
// each account. Appending means open, write and close.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

namespace {

bool Append(const char* path, const std::string& line) {
  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  return file >= 0 && write(file, line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
         close(file) == 0;
}

int GoThroughAccounts(const std::string& folder, const char* log, const std::string& line) {
  DIR* const upload = opendir((folder + "/Upload").c_str());
  if (upload == nullptr) {
    return 1;
  }
  const std::string work = folder + "/LogWork/";
  // Single-threaded.
  while (const dirent* entry = readdir(upload)) {  // NOLINT(concurrency-mt-unsafe)
    if (entry->d_name[0] == '.' || entry->d_type != DT_DIR) {
      continue;
    }
    const int file = open((work + entry->d_name + "/UserData.dat").c_str(), O_RDONLY | O_CLOEXEC);
    if (file >= 0) {
      close(file);
    }
    if (log != nullptr && !Append(log, line)) {
      return 1;
    }
  }
  closedir(upload);
  return 0;
}

int AppendOften(const char* path, const std::string& line, long times) {
  for (long i = 0; i < times; ++i) {
    if (!Append(path, line)) {
      return 1;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> given(argv + 1, argv + argc);
  if (given.size() == 2 && given[0] == "accounts") {
    return GoThroughAccounts(given[1], nullptr, {});
  }
  if (given.size() == 4 && given[0] == "accounts") {
    return GoThroughAccounts(given[1], argv[3], given[3] + "\n");
  }
  if (given.size() == 4 && given[0] == "append") {
    return AppendOften(argv[2], given[2] + "\n", std::stol(given[3]));
  }
  std::cerr
      << "usage: bare-calls accounts <folder> [<file> <line>] | append <file> <line> <times>\n";
  return 64;
}
