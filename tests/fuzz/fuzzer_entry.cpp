// One target as a libFuzzer program. The build selects the target.
#include <cstdio>
#include <cstdlib>

#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

void kyd_fuzz::ReportBroken(const char* property) {
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  return kyd_fuzz::KYD_FUZZ_TARGET(bytes, size);
}
