// The tool from its arguments to its exit code.
#include "companion/keyward-seal/keyward_seal.h"

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>

#include "companion/corvid/aead.h"
#include "companion/corvid/key_file.h"
#include "companion/corvid/sealed_text.h"
#include "companion/keyward-seal/credential_text.h"
#include "platform/console.h"
#include "platform/error.h"
#include "platform/module.h"
#include "platform/text.h"
#include "platform/whole_file.h"

namespace companion {
namespace {

constexpr char kDescription[] =
    "Reads a JSON text from standard input and writes it as a sealed credential file that "
    "KydLogUploader can read together with the stand-in Corvid library. This tool and that library "
    "are stand-ins: they do not read or write the files of the real product.";
constexpr char kFooter[] =
    "The key is taken from Corvid.key beside this program; it is created if missing.\n"
    "An existing credential file is replaced. Folders are not created.\n"
    "\n"
    "Exit codes: 0 written, 64 wrong usage, 65 unusable text, 70 internal error,\n"
    "73 credential file not written, 74 input not readable, 78 no usable key.";
constexpr char kVersion[] = "keyward-seal " KEYWARD_SEAL_VERSION " (stand-in)\n";

// The values of sysexits.h, which Windows does not have.
enum ExitCode : int {
  kExitDone = 0,
  kExitUsage = 64,
  kExitBadText = 65,
  kExitInternal = 70,
  kExitNotWritten = 73,
  kExitNotRead = 74,
  kExitNoKey = 78,
};

// Far above any credential text; limits endless input.
constexpr std::size_t kLargestInput = std::size_t{64} << 20U;

struct Options {
  std::wstring file;
  InputEncoding encoding = InputEncoding::kUtf8;
  bool check_json = true;
};

// A message that cannot be written cannot be reported either, so the result is ignored.
void PrintProblem(const std::wstring& text) {
  static_cast<void>(platform::WriteErrors(L"keyward-seal: " + text + L"\n"));
}

void PrintProblem(const std::string& text) {
  PrintProblem(platform::FromUtf8(text));
}

std::wstring Quoted(const std::wstring& path) {
  return L"\"" + path + L"\"";
}

// Returns the error number of the last failure.
std::wstring LastErrorText() {
  const unsigned error = platform::LastError();
  return L" (error " + std::to_wstring(error) + L")";
}

// Prints the result of parsing the command line: help, version or an error.
ExitCode Answer(const CLI::App& app, const CLI::ParseError& end) {
  if (end.get_name() == "CallForHelp" || end.get_name() == "CallForVersion") {
    const bool is_help = end.get_name() == "CallForHelp";
    const std::wstring text = platform::FromUtf8(is_help ? app.help() : kVersion);
    return platform::WriteOutput(text) ? kExitDone : kExitInternal;
  }
  PrintProblem(std::string(end.what()) + "; see keyward-seal --help");
  return kExitUsage;
}

// Returns the options, or std::nullopt with the exit code.
std::optional<Options> ParseArguments(const std::vector<std::string>& arguments,
                                      PathDecoder path_of, ExitCode* code) {
  CLI::App app(kDescription, "keyward-seal");
  app.footer(kFooter);
  app.allow_windows_style_options(false);  // the same command line on both platforms
  app.set_help_flag("--help", "Show this text");
  app.set_version_flag("--version", std::string(), "Show the version");
  std::string file;
  app.add_option("file", file, "The credential file")->required();
  CLI::Option* const check =
      app.add_flag("--check", "Refuse a text that is not JSON (this is the default)");
  CLI::Option* const raw = app.add_flag("--raw", "Seal any text without checking it");
  CLI::Option* const utf16 =
      app.add_flag("--utf16", "The input is UTF-16LE and sealed byte for byte; otherwise UTF-8");
  for (CLI::Option* const flag : {check, raw, utf16}) {
    flag->disable_flag_override();
  }
  check->excludes(raw);
  try {
    // The library expects the arguments in reverse order.
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    if (file.empty()) {
      throw CLI::ValidationError("file", "is empty");
    }
  } catch (const CLI::ParseError& end) {
    *code = Answer(app, end);
    return std::nullopt;
  }
  Options options;
  options.file = path_of(file);
  options.encoding = utf16->count() != 0 ? InputEncoding::kUtf16Le : InputEncoding::kUtf8;
  options.check_json = raw->count() == 0;
  return options;
}

// Reads standard input to its end. Returns std::nullopt after reporting a failure.
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

// Returns the key of the program's folder, creating it if missing, or std::nullopt after reporting
// a failure.
std::optional<SecretBytes> LoadOrMakeKey(const std::wstring& path) {
  SecretBytes key;
  KeyFileState state = ReadKeyFile(path, &key);
  if (state == KeyFileState::kAbsent) {
    key.resize(kKeySize);
    if (!FillRandom(key.data(), key.size())) {
      PrintProblem("the system's random number generator failed");
      return std::nullopt;
    }
    const SecretBytes contents = KeyFileContents(key);
    if (platform::WriteWholeFile(path, contents.data(), contents.size(),
                                 platform::FileReaders::kOwner)) {
      return key;
    }
    if (platform::LastError() != platform::kErrorAlreadyExists) {
      PrintProblem(L"the key file " + Quoted(path) + L" cannot be written" + LastErrorText());
      return std::nullopt;
    }
    // Another process was faster; its key is used.
    state = ReadKeyFile(path, &key);
  }
  if (state != KeyFileState::kRead) {
    PrintProblem(L"the key file " + Quoted(path) +
                 L" cannot be read, or does not hold 64 hexadecimal digits");
    return std::nullopt;
  }
  return key;
}

ExitCode WriteSealed(const std::wstring& path, const std::vector<std::uint8_t>& sealed) {
  if (platform::ReplaceWholeFile(path, sealed.data(), sealed.size(),
                                 platform::FileReaders::kOwner)) {
    return kExitDone;
  }
  const bool no_folder = platform::LastError() == platform::kErrorPathNotFound;
  PrintProblem(Quoted(path) + L" cannot be written" + LastErrorText() +
               (no_folder ? L"; folders are not created by this tool, but by the product" : L""));
  return kExitNotWritten;
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
  const std::wstring folder =
      platform::FolderOfModule(reinterpret_cast<const void*>(&SealCredentialFile));
  if (folder.empty()) {
    PrintProblem(L"the folder of this program is unknown" + LastErrorText());
    return kExitInternal;
  }
  const std::optional<SecretBytes> key = LoadOrMakeKey(KeyFileIn(folder));
  if (!key) {
    return kExitNoKey;
  }
  std::vector<std::uint8_t> sealed;
  if (!SealText(*key, plaintext, &sealed)) {
    PrintProblem("the cryptographic library failed");
    return kExitInternal;
  }
  return WriteSealed(options.file, sealed);
}

}  // namespace

int RunKeywardSeal(const std::vector<std::string>& arguments, PathDecoder path_of) {
  try {
    ExitCode code = kExitDone;
    const std::optional<Options> options = ParseArguments(arguments, path_of, &code);
    return options ? SealCredentialFile(*options) : code;
  } catch (const std::exception& error) {
    PrintProblem(error.what());
    return kExitInternal;
  }
}

}  // namespace companion
