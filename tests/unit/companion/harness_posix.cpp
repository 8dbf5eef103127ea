#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/unit/companion/harness.h"

namespace companion_test {

const char* const kCorvidName = "Corvid.so";
const char* const kPelhamName = "libpelham.so";
const char* const kSealName = "keyward-seal";
const bool kFilesHaveModes = true;

Library::Library(const std::filesystem::path& file) : handle_(dlopen(file.c_str(), RTLD_NOW)) {}

Library::~Library() {
  if (handle_ != nullptr) {
    dlclose(handle_);
  }
}

Library::Address Library::FindAddress(const char* name) const {
  return reinterpret_cast<Address>(dlsym(handle_, name));
}

int RunProgram(const std::filesystem::path& program,
               const std::vector<std::filesystem::path>& arguments,
               const std::filesystem::path& input, const std::filesystem::path& output,
               const std::filesystem::path& errors) {
  std::vector<std::string> texts{program.native()};
  for (const std::filesystem::path& argument : arguments) {
    texts.push_back(argument.native());
  }
  std::vector<char*> values;
  values.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    values.push_back(text.data());
  }
  values.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const int write_flags = O_WRONLY | O_CREAT | O_TRUNC;
  // With a flag that has no effect: some tests make opens without flags fail.
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY | O_NOCTTY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), write_flags, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), write_flags, 0600);
  pid_t process = 0;
  const int error =
      posix_spawn(&process, program.c_str(), &actions, nullptr, values.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (error != 0 || waitpid(process, &status, 0) != process || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

}  // namespace companion_test
