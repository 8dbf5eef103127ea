// Entry of KydUploadStatus on Linux.
#include "platform/text.h"
#include "status/status.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  return kyd::RunStatus(arguments, &platform::FromNativePath);
}
