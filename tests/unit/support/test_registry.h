// Machine-wide registry settings of a test's own.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/support/test_sysroot.h"

namespace kyd_test {

// Writes keys and values under HKEY_LOCAL_MACHINE and removes them again at the end: on Windows in
// the registry itself (a value that was there before is lost), on Linux in the registry export text
// of a sysroot of its own. Every change is visible at once. Throws std::runtime_error when a change
// fails. Key paths are written as the program writes them: "SOFTWARE\\Maker\\Product".
class TestRegistry {
 public:
  TestRegistry();
  ~TestRegistry();
  TestRegistry(const TestRegistry&) = delete;
  TestRegistry& operator=(const TestRegistry&) = delete;

  // Makes the key, with its parents, when it is missing. The setters do so by themselves.
  void MakeKey(const std::wstring& key);
  void SetDword(const std::wstring& key, const std::wstring& name, std::uint32_t value);
  void SetText(const std::wstring& key, const std::wstring& name, const std::wstring& text);
  void SetRaw(const std::wstring& key, const std::wstring& name, std::uint32_t type,
              const std::vector<std::uint8_t>& data);
  void Remove(const std::wstring& key, const std::wstring& name);
  // Removes the key with everything below it.
  void RemoveKey(const std::wstring& key);

  [[nodiscard]] const TestSysroot& Sysroot() const noexcept { return sysroot_; }

 private:
  struct State;
  TestSysroot sysroot_;
  std::unique_ptr<State> state_;
};

}  // namespace kyd_test
