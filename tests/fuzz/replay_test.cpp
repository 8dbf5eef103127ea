// Runs every input of the corpus through its target, so that past findings stay fixed.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

void kyd_fuzz::ReportBroken(const char* property) {
  throw std::logic_error(property);
}

namespace {

namespace fs = std::filesystem;

struct Target {
  const char* name;  // of the target's folder
  int (*run)(const std::uint8_t* bytes, std::size_t size);
};

const Target kTargets[] = {
    {"answer_text", &kyd_fuzz::FuzzAnswerText},
    {"base64", &kyd_fuzz::FuzzBase64},
    {"credential_json", &kyd_fuzz::FuzzCredentialJson},
    {"format", &kyd_fuzz::FuzzFormat},
    {"json_path", &kyd_fuzz::FuzzJsonPath},
    {"library_tables", &kyd_fuzz::FuzzLibraryTables},
    {"pfx", &kyd_fuzz::FuzzPfx},
#ifndef _WIN32
    {"registry_text", &kyd_fuzz::FuzzRegistryText},
#endif
    {"sealed_text", &kyd_fuzz::FuzzSealedText},
    {"text", &kyd_fuzz::FuzzText},
    {"thumbprint", &kyd_fuzz::FuzzThumbprint},
};

std::vector<fs::path> InputsOf(const Target& target) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(fs::path(KYD_FUZZ_CORPUS) / target.name)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<std::uint8_t> ReadInput(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot be read");
  }
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class Corpus : public testing::TestWithParam<Target> {};

TEST_P(Corpus, KeepsItsProperties) {
  const std::vector<fs::path> files = InputsOf(GetParam());
  ASSERT_FALSE(files.empty());
  for (const fs::path& file : files) {
    const std::vector<std::uint8_t> input = ReadInput(file);
    EXPECT_NO_THROW(GetParam().run(input.data(), input.size())) << file.filename().string();
  }
}

// An empty input may have a null address.
TEST_P(Corpus, AcceptsEmptyInput) {
  EXPECT_NO_THROW(GetParam().run(nullptr, 0));
}

INSTANTIATE_TEST_SUITE_P(Fuzz, Corpus, testing::ValuesIn(kTargets),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
