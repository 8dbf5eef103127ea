// Every number in the file is untrusted: offsets are 64 bits wide, so that sums of 32-bit fields do
// not wrap; every loop is bounded; and after a read outside the file every further read fails.
#include "platform/library_tables.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "platform/error.h"
#include "platform/file.h"

namespace platform {
namespace {

// Far above any real library.
constexpr std::size_t kMostSections = 1024;  // also for segments
constexpr std::size_t kMostImports = 1024;
constexpr std::size_t kMostDynamicEntries = 4096;
constexpr std::size_t kLongestChain = 4096;  // of symbols with the same hash
constexpr std::size_t kLongestName = 1024;

// The bytes of the file. After a failed read, all further reads return zero.
class Bytes {
 public:
  explicit Bytes(const ReadFileBytes& read) : read_(read) {}

  [[nodiscard]] bool IsGood() const noexcept { return is_good_; }
  void Fail() noexcept { is_good_ = false; }

  std::uint8_t U8(std::uint64_t offset) { return static_cast<std::uint8_t>(Number(offset, 1)); }
  std::uint16_t U16(std::uint64_t offset) { return static_cast<std::uint16_t>(Number(offset, 2)); }
  std::uint32_t U32(std::uint64_t offset) { return static_cast<std::uint32_t>(Number(offset, 4)); }
  std::uint64_t U64(std::uint64_t offset) { return Number(offset, 8); }

  // Reads a NUL-terminated text.
  std::string Name(std::uint64_t offset) {
    std::string name;
    std::array<char, 64> piece;
    while (is_good_ && name.size() < kLongestName) {
      const std::size_t count = read_(offset + name.size(), piece.data(), piece.size());
      const auto end = piece.begin() + static_cast<std::ptrdiff_t>(count);
      const auto nul = std::find(piece.begin(), end, '\0');
      name.append(piece.begin(), nul);
      if (nul != end) {
        return name;
      }
      if (count < piece.size()) {
        break;
      }
    }
    Fail();
    return {};
  }

  // Fails unless the whole range is in the file.
  void Require(std::uint64_t offset, std::uint64_t size) {
    if (size != 0) {
      U8(offset + size - 1 < offset ? ~std::uint64_t{0} : offset + size - 1);
    }
  }

 private:
  std::uint64_t Number(std::uint64_t offset, std::size_t size) {
    std::array<std::uint8_t, 8> bytes = {};
    if (!is_good_ || read_(offset, bytes.data(), size) != size) {
      Fail();
      return 0;
    }
    std::uint64_t number = 0;
    for (std::size_t i = size; i-- > 0;) {
      number = number << 8 | bytes[i];
    }
    return number;
  }

  const ReadFileBytes& read_;
  bool is_good_ = true;
};

// A part of the file and its address in memory.
struct Piece {
  std::uint64_t address = 0;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
};

class Image {
 public:
  explicit Image(Bytes& bytes) : bytes_(bytes) {}

  // Returns false if there are too many.
  void Add(const Piece& piece) {
    bytes_.Require(piece.offset, piece.size);
    pieces_.push_back(piece);
  }

  // Returns the file offset of an address. Fails if no part contains it.
  std::uint64_t OffsetOf(std::uint64_t address) {
    for (const Piece& piece : pieces_) {
      if (address >= piece.address && address - piece.address < piece.size) {
        return piece.offset + (address - piece.address);
      }
    }
    bytes_.Fail();
    return 0;
  }

 private:
  Bytes& bytes_;
  std::vector<Piece> pieces_;
};

// The Windows format.
class PeReader {
 public:
  explicit PeReader(Bytes& bytes) : bytes_(bytes), image_(bytes), header_(bytes.U32(0x3C)) {}

  LibraryTables Read(const std::vector<std::string>& exports) {
    LibraryTables tables;
    tables.format = LibraryTables::Format::kPe;
    if (bytes_.U32(header_) != kSignature) {
      bytes_.Fail();
      return tables;
    }
    tables.machine = MachineOf(bytes_.U16(header_ + 4));
    tables.is_library = (bytes_.U16(header_ + 22) & kIsLibrary) != 0;
    if (tables.machine == LibraryTables::Machine::kX64) {
      if (bytes_.U16(header_ + kOptionalHeader) != kPe32Plus) {
        bytes_.Fail();
      }
      ReadSections();
      ReadImports(tables.imports);
      FindExports(exports, tables.exports);
    }
    return tables;
  }

 private:
  static constexpr std::uint32_t kSignature = 0x00004550;  // "PE\0\0"
  static constexpr std::uint16_t kPe32Plus = 0x20B;
  static constexpr std::uint16_t kIsLibrary = 0x2000;  // IMAGE_FILE_DLL
  static constexpr std::uint64_t kOptionalHeader = 24;
  static constexpr std::uint32_t kExportDirectory = 0;
  static constexpr std::uint32_t kImportDirectory = 1;

  static LibraryTables::Machine MachineOf(std::uint16_t machine) {
    switch (machine) {
      case 0x8664:
        return LibraryTables::Machine::kX64;
      case 0x014C:
        return LibraryTables::Machine::kX86;
      case 0xAA64:
        return LibraryTables::Machine::kArm64;
      default:
        return LibraryTables::Machine::kOther;
    }
  }

  void ReadSections() {
    const std::uint16_t count = bytes_.U16(header_ + 6);
    if (count > kMostSections) {
      bytes_.Fail();
    }
    std::uint64_t entry = header_ + kOptionalHeader + bytes_.U16(header_ + 20);
    for (unsigned i = 0; i < count && bytes_.IsGood(); ++i, entry += 40) {
      image_.Add({bytes_.U32(entry + 12), bytes_.U32(entry + 20), bytes_.U32(entry + 16)});
    }
  }

  // Returns the address of a table, 0 if there is none.
  std::uint64_t Directory(std::uint64_t index) {
    const std::uint64_t optional = header_ + kOptionalHeader;
    return index < bytes_.U32(optional + 108) ? bytes_.U32(optional + 112 + 8 * index) : 0;
  }

  void ReadImports(std::vector<std::string>& names) {
    const std::uint64_t directory = Directory(kImportDirectory);
    if (directory == 0) {
      return;
    }
    for (std::uint64_t entry = image_.OffsetOf(directory); bytes_.IsGood(); entry += 20) {
      const std::uint32_t name = bytes_.U32(entry + 12);
      if (name == 0) {
        return;
      }
      if (names.size() == kMostImports) {
        bytes_.Fail();
        return;
      }
      names.push_back(bytes_.Name(image_.OffsetOf(name)));
    }
  }

  // The names are sorted; Windows uses a binary search as well.
  void FindExports(const std::vector<std::string>& wanted, std::vector<std::string>& found) {
    const std::uint64_t directory = Directory(kExportDirectory);
    if (directory == 0 || wanted.empty()) {
      return;
    }
    const std::uint64_t table = image_.OffsetOf(directory);
    const std::uint32_t count = bytes_.U32(table + 24);
    const std::uint64_t names = count == 0 ? 0 : image_.OffsetOf(bytes_.U32(table + 32));
    for (const std::string& name : wanted) {
      std::uint64_t begin = 0;
      std::uint64_t end = count;
      while (begin < end && bytes_.IsGood()) {
        const std::uint64_t middle = begin + (end - begin) / 2;
        const int order =
            bytes_.Name(image_.OffsetOf(bytes_.U32(names + 4 * middle))).compare(name);
        if (order == 0) {
          found.push_back(name);
          break;
        }
        (order < 0 ? begin : end) = order < 0 ? middle + 1 : middle;
      }
    }
  }

  Bytes& bytes_;
  Image image_;
  std::uint64_t header_;
};

// The Linux format.
class ElfReader {
 public:
  explicit ElfReader(Bytes& bytes) : bytes_(bytes), image_(bytes) {}

  LibraryTables Read(const std::vector<std::string>& exports) {
    LibraryTables tables;
    tables.format = LibraryTables::Format::kElf;
    const bool is_64_bit = bytes_.U8(4) == 2 && bytes_.U8(5) == 1;
    tables.machine = MachineOf(bytes_.U16(18), is_64_bit);
    tables.is_library = bytes_.U16(16) == kSharedObject;
    if (tables.machine == LibraryTables::Machine::kX64) {
      ReadSegments();
      ReadDynamicEntries();
      tables.is_library = tables.is_library && has_dynamic_ && !is_program_;
      for (const std::uint64_t name : needed_) {
        tables.imports.push_back(bytes_.Name(image_.OffsetOf(strings_) + name));
      }
      std::copy_if(exports.begin(), exports.end(), std::back_inserter(tables.exports),
                   [this](const std::string& name) { return IsExported(name); });
    }
    return tables;
  }

 private:
  static constexpr std::uint16_t kSharedObject = 3;         // ET_DYN
  static constexpr std::uint64_t kIsProgram = 0x08000000U;  // DF_1_PIE

  static LibraryTables::Machine MachineOf(std::uint16_t machine, bool is_64_bit) {
    switch (machine) {
      case 62:  // also that of the x32 interface, with 32-bit files
        return is_64_bit ? LibraryTables::Machine::kX64 : LibraryTables::Machine::kOther;
      case 3:
        return LibraryTables::Machine::kX86;
      case 183:
        return LibraryTables::Machine::kArm64;
      default:
        return LibraryTables::Machine::kOther;
    }
  }

  void ReadSegments() {
    const std::uint64_t table = bytes_.U64(32);
    const std::uint16_t entry_size = bytes_.U16(54);
    const std::uint16_t count = bytes_.U16(56);
    if (count > kMostSections) {
      bytes_.Fail();
    }
    for (unsigned i = 0; i < count && bytes_.IsGood(); ++i) {
      const std::uint64_t entry = table + std::uint64_t{i} * entry_size;
      const std::uint32_t type = bytes_.U32(entry);
      const Piece piece = {bytes_.U64(entry + 16), bytes_.U64(entry + 8), bytes_.U64(entry + 32)};
      if (type == 1) {  // PT_LOAD
        image_.Add(piece);
      } else if (type == 2) {  // PT_DYNAMIC
        has_dynamic_ = true;
        dynamic_ = piece;
      }
    }
  }

  void ReadDynamicEntries() {
    const std::uint64_t count = dynamic_.size / 16;
    if (count > kMostDynamicEntries) {
      bytes_.Fail();
    }
    for (std::uint64_t i = 0; i < count && bytes_.IsGood(); ++i) {
      const std::uint64_t value = bytes_.U64(dynamic_.offset + 16 * i + 8);
      switch (bytes_.U64(dynamic_.offset + 16 * i)) {
        case 0:  // DT_NULL
          return;
        case 1:  // DT_NEEDED
          needed_.push_back(value);
          break;
        case 4:  // DT_HASH
          hash_ = value;
          break;
        case 5:  // DT_STRTAB
          strings_ = value;
          break;
        case 6:  // DT_SYMTAB
          symbols_ = value;
          break;
        case 0x6FFFFEF5:  // DT_GNU_HASH
          gnu_hash_ = value;
          break;
        case 0x6FFFFFFB:  // DT_FLAGS_1
          is_program_ = (value & kIsProgram) != 0;
          break;
        default:
          break;
      }
    }
  }

  bool IsExported(const std::string& name) {
    if (gnu_hash_ != 0) {
      return IsInGnuHash(name);
    }
    return hash_ != 0 && IsInHash(name);
  }

  // Returns whether a symbol of this name is defined.
  bool IsDefined(std::uint64_t index, const std::string& name) {
    const std::uint64_t symbol = image_.OffsetOf(symbols_) + 24 * index;
    return bytes_.U16(symbol + 6) != 0 &&
           bytes_.Name(image_.OffsetOf(strings_) + bytes_.U32(symbol)) == name;
  }

  bool IsInGnuHash(const std::string& name) {
    std::uint32_t hash = 5381;
    for (const char character : name) {
      hash = hash * 33 + static_cast<std::uint8_t>(character);
    }
    const std::uint64_t table = image_.OffsetOf(gnu_hash_);
    const std::uint32_t bucket_count = bytes_.U32(table);
    const std::uint32_t first = bytes_.U32(table + 4);
    if (bucket_count == 0) {
      return false;
    }
    const std::uint64_t buckets = table + 16 + std::uint64_t{8} * bytes_.U32(table + 8);
    const std::uint64_t chains = buckets + std::uint64_t{4} * bucket_count;
    std::uint64_t index = bytes_.U32(buckets + std::uint64_t{4} * (hash % bucket_count));
    if (index < first) {
      return false;
    }
    for (std::size_t step = 0; step < kLongestChain && bytes_.IsGood(); ++step, ++index) {
      const std::uint32_t link = bytes_.U32(chains + 4 * (index - first));
      if ((link | 1U) == (hash | 1U) && IsDefined(index, name)) {
        return true;
      }
      if ((link & 1U) != 0) {
        return false;
      }
    }
    bytes_.Fail();
    return false;
  }

  bool IsInHash(const std::string& name) {
    std::uint32_t hash = 0;
    for (const char character : name) {
      hash = (hash << 4) + static_cast<std::uint8_t>(character);
      const std::uint32_t high = hash & 0xF0000000U;
      hash = (hash ^ (high >> 24)) & ~high;
    }
    const std::uint64_t table = image_.OffsetOf(hash_);
    const std::uint32_t bucket_count = bytes_.U32(table);
    if (bucket_count == 0) {
      return false;
    }
    const std::uint64_t chains = table + 8 + std::uint64_t{4} * bucket_count;
    std::uint64_t index = bytes_.U32(table + 8 + std::uint64_t{4} * (hash % bucket_count));
    for (std::size_t step = 0; index != 0 && bytes_.IsGood(); ++step) {
      if (step == kLongestChain) {
        bytes_.Fail();
        return false;
      }
      if (IsDefined(index, name)) {
        return true;
      }
      index = bytes_.U32(chains + 4 * index);
    }
    return false;
  }

  Bytes& bytes_;
  Image image_;
  bool has_dynamic_ = false;
  Piece dynamic_;
  bool is_program_ = false;
  std::uint64_t strings_ = 0;  // addresses; 0 if missing
  std::uint64_t symbols_ = 0;
  std::uint64_t hash_ = 0;
  std::uint64_t gnu_hash_ = 0;
  std::vector<std::uint64_t> needed_;  // offsets in the string table
};

bool StartsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

std::optional<RunTime> RunTimeNamed(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(), [](char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
  });
  if (name == "msvcrt.dll") {
    return RunTime::kMsvcrt;
  }
  if (name == "ucrtbased.dll" || StartsWith(name, "vcruntime140d") ||
      StartsWith(name, "vcruntime140_1d") || StartsWith(name, "msvcp140d")) {
    return RunTime::kOlderOrDebug;
  }
  if (name == "ucrtbase.dll" || StartsWith(name, "api-ms-win-crt-") ||
      StartsWith(name, "vcruntime140") || StartsWith(name, "msvcp140")) {
    return RunTime::kUniversal;
  }
  if (StartsWith(name, "msvcr") || StartsWith(name, "msvcp")) {
    return RunTime::kOlderOrDebug;
  }
  return std::nullopt;
}

}  // namespace

std::optional<LibraryTables> ReadLibraryTables(const std::wstring& path,
                                               const std::vector<std::string>& exports) {
  File file = File::OpenUnobtrusive(path);
  if (!file.IsOpen()) {
    return std::nullopt;
  }
  unsigned error = 0;
  const ReadFileBytes read = [&](std::uint64_t offset, void* buffer, std::size_t size) {
    const std::optional<std::size_t> count = file.ReadAt(offset, buffer, size);
    if (!count) {
      error = LastError();
    }
    return count.value_or(0);
  };
  std::optional<LibraryTables> tables = ReadLibraryTables(read, exports);
  if (!tables) {
    SetLastError(error != 0 ? error : kErrorBadFormat);
  }
  return tables;
}

std::optional<LibraryTables> ReadLibraryTables(const ReadFileBytes& read,
                                               const std::vector<std::string>& exports) {
  Bytes bytes(read);
  std::optional<LibraryTables> tables;
  if (bytes.U16(0) == 0x5A4D) {  // "MZ"
    tables = PeReader(bytes).Read(exports);
  } else if (bytes.U32(0) == 0x464C457F) {  // "\x7F" "ELF"
    tables = ElfReader(bytes).Read(exports);
  }
  return bytes.IsGood() ? tables : std::nullopt;
}

std::string ForeignRunTime(const std::vector<std::string>& imports, RunTime wanted) {
  std::string foreign;
  for (const std::string& name : imports) {
    const std::optional<RunTime> run_time = RunTimeNamed(name);
    if (run_time == wanted) {
      return {};
    }
    if (run_time && foreign.empty()) {
      foreign = name;
    }
  }
  return foreign;
}

}  // namespace platform
