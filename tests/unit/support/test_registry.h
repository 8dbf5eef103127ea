// Machine-wide registry settings for a test.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/support/test_sysroot.h"

namespace kyd_test {

// Writes keys and values under HKEY_LOCAL_MACHINE and removes them at the end: on Windows in the
// registry itself (an existing value is lost), on Linux in the registry export file of a temporary
// sysroot. Every change is visible immediately. Throws std::runtime_error if a change fails. Key
// paths have the program's form: "SOFTWARE\\Maker\\Product".
class TestRegistry {
 public:
  TestRegistry();
  ~TestRegistry();
  TestRegistry(const TestRegistry&) = delete;
  TestRegistry& operator=(const TestRegistry&) = delete;

  // Creates the key and its parents if missing. The setters do so themselves.
  void MakeKey(const std::wstring& key);
  void SetDword(const std::wstring& key, const std::wstring& name, std::uint32_t value);
  void SetText(const std::wstring& key, const std::wstring& name, const std::wstring& text);
  void SetRaw(const std::wstring& key, const std::wstring& name, std::uint32_t type,
              const std::vector<std::uint8_t>& data);
  void Remove(const std::wstring& key, const std::wstring& name);
  // Removes the key and everything below it.
  void RemoveKey(const std::wstring& key);

  [[nodiscard]] const TestSysroot& Sysroot() const noexcept { return sysroot_; }

 private:
  struct State;
  TestSysroot sysroot_;
  std::unique_ptr<State> state_;
};

}  // namespace kyd_test
