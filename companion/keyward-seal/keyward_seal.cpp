// The tool from its arguments to its exit code.
#include "companion/keyward-seal/keyward_seal.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <system_error>

#include "companion/common/module_folder.h"
#include "companion/corvid/key_file.h"
#include "companion/corvid/sealed_text.h"
#include "companion/keyward-seal/credential_text.h"
#include "companion/keyward-seal/file_writer.h"

namespace companion {
namespace {

constexpr const char* kHelp =
    "Usage: keyward-seal [--check | --raw] [--utf16] <credential file>\n"
    "\n"
    "Reads a JSON text from standard input and writes it as a sealed credential file\n"
    "that KydLogUploader can read together with the stand-in Corvid library.\n"
    "This tool and that library are stand-ins: they do not read or write the files\n"
    "of the real product.\n"
    "\n"
    "  --check    refuse a text that is not JSON (this is the default)\n"
    "  --raw      seal the text whatever it is\n"
    "  --utf16    the input is UTF-16LE and sealed byte for byte; otherwise UTF-8\n"
    "  --help     show this text\n"
    "  --version  show the version\n"
    "\n"
    "The key is taken from Corvid.key beside this program; it is made when there is\n"
    "none. An existing credential file is replaced. Folders are not created.\n"
    "\n"
    "Exit codes: 0 written, 64 wrong usage, 65 unusable text, 70 internal error,\n"
    "73 credential file not written, 74 input not readable, 78 no usable key.\n";
constexpr const char* kVersion = "keyward-seal " KEYWARD_SEAL_VERSION " (stand-in)\n";

// As in sysexits.h, which Windows does not have.
enum ExitCode : int {
  kExitDone = 0,
  kExitUsage = 64,
  kExitBadText = 65,
  kExitInternal = 70,
  kExitNotWritten = 73,
  kExitNotRead = 74,
  kExitNoKey = 78,
};

// Far beyond any credential text, and little enough for an input that never ends.
constexpr std::size_t kLargestInput = std::size_t{64} << 20U;

struct Options {
  std::filesystem::path file;
  InputEncoding encoding = InputEncoding::kUtf8;
  bool check_json = true;
};

// Nobody can be told that a message cannot be written, so the result is ignored.
void Print(const std::string& text, std::FILE* stream) {
  static_cast<void>(std::fputs(text.c_str(), stream));
}

void PrintProblem(const std::string& text) {
  Print("keyward-seal: " + text + "\n", stderr);
}

std::string Quoted(const std::filesystem::path& file) {
  return "\"" + file.u8string() + "\"";
}

std::string Worded(const std::error_code& error) {
  return error.message() + " (" + std::to_string(error.value()) + ")";
}

// The options, or nothing with the reason said.
std::optional<Options> ParseArguments(const std::vector<std::filesystem::path>& arguments) {
  Options options;
  bool check = false;
  bool raw = false;
  bool options_ended = false;
  std::size_t files = 0;
  for (const std::filesystem::path& argument : arguments) {
    const bool is_option = !options_ended && !argument.empty() && argument.native()[0] == '-';
    if (!is_option) {
      options.file = argument;
      ++files;
    } else if (argument == "--") {
      options_ended = true;
    } else if (argument == "--check") {
      check = true;
    } else if (argument == "--raw") {
      raw = true;
    } else if (argument == "--utf16") {
      options.encoding = InputEncoding::kUtf16Le;
    } else {
      PrintProblem("unknown option " + Quoted(argument) + "; see keyward-seal --help");
      return std::nullopt;
    }
  }
  if (check && raw) {
    PrintProblem("--check and --raw exclude each other");
    return std::nullopt;
  }
  if (files != 1 || options.file.empty()) {
    PrintProblem("exactly one credential file has to be named; see keyward-seal --help");
    return std::nullopt;
  }
  options.check_json = !raw;
  return options;
}

// Standard input to its end, or nothing with the reason said.
std::optional<SecretBytes> ReadStandardInput(ExitCode* code) {
  // Unbuffered, so that the run-time keeps no copy of the credentials; reading works either way.
  static_cast<void>(std::setvbuf(stdin, nullptr, _IONBF, 0));
  SecretBytes input;
  SecretBytes block(std::size_t{64} << 10U);
  for (;;) {
    const std::size_t count = std::fread(block.data(), 1, block.size(), stdin);
    input.insert(input.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(count));
    if (input.size() > kLargestInput) {
      PrintProblem("the text is longer than 64 MiB");
      *code = kExitBadText;
      return std::nullopt;
    }
    if (count < block.size()) {
      break;
    }
  }
  if (std::ferror(stdin) != 0) {
    PrintProblem("standard input cannot be read");
    *code = kExitNotRead;
    return std::nullopt;
  }
  return input;
}

// The key beside the program, made when there is none; or nothing with the reason said.
std::optional<SecretBytes> LoadOrMakeKey() {
  const std::filesystem::path file = ThisModuleFolder() / kKeyFileName;
  SecretBytes key;
  KeyFileState state = ReadKeyFile(file, &key);
  if (state == KeyFileState::kAbsent) {
    key.resize(kKeySize);
    if (!FillRandom(key.data(), key.size())) {
      PrintProblem("the system gives no random numbers for a key");
      return std::nullopt;
    }
    const SecretBytes contents = KeyFileContents(key);
    const std::error_code error = WriteNew(file, {contents.data(), contents.size()});
    if (!error) {
      return key;
    }
    if (error != std::errc::file_exists) {
      PrintProblem("the key file " + Quoted(file) + " cannot be written: " + Worded(error));
      return std::nullopt;
    }
    // Another process was faster; its key is the one.
    state = ReadKeyFile(file, &key);
  }
  if (state != KeyFileState::kRead) {
    PrintProblem("the key file " + Quoted(file) +
                 " cannot be read, or does not hold 64 hexadecimal digits");
    return std::nullopt;
  }
  return key;
}

ExitCode SealCredentialFile(const Options& options) {
  ExitCode code = kExitDone;
  const std::optional<SecretBytes> input = ReadStandardInput(&code);
  if (!input) {
    return code;
  }
  SecretBytes plaintext;
  std::string problem;
  if (!MakePlaintext(*input, options.encoding, options.check_json, &plaintext, &problem)) {
    PrintProblem(problem);
    return kExitBadText;
  }
  const std::optional<SecretBytes> key = LoadOrMakeKey();
  if (!key) {
    return kExitNoKey;
  }
  std::vector<std::uint8_t> sealed;
  if (!SealText(*key, plaintext, &sealed)) {
    PrintProblem("the cryptographic library failed");
    return kExitInternal;
  }
  if (const std::error_code error = WriteReplacing(options.file, {sealed.data(), sealed.size()})) {
    const bool no_folder = error == std::errc::no_such_file_or_directory;
    PrintProblem(Quoted(options.file) + " cannot be written: " + Worded(error) +
                 (no_folder ? "; folders are not created, the product lays out the tree" : ""));
    return kExitNotWritten;
  }
  return kExitDone;
}

}  // namespace

int RunKeywardSeal(const std::vector<std::filesystem::path>& arguments) {
  try {
    if (!arguments.empty() && arguments[0] == "--help") {
      Print(kHelp, stdout);
      return kExitDone;
    }
    if (!arguments.empty() && arguments[0] == "--version") {
      Print(kVersion, stdout);
      return kExitDone;
    }
    const std::optional<Options> options = ParseArguments(arguments);
    return options ? SealCredentialFile(*options) : kExitUsage;
  } catch (const std::exception& error) {
    PrintProblem(error.what());
    return kExitInternal;
  }
}

}  // namespace companion
