// Registry settings in the registry itself.
#include <windows.h>

#include <set>
#include <stdexcept>
#include <utility>

#include "platform/registry.h"
#include "platform/text.h"
#include "tests/unit/support/test_registry.h"

namespace kyd_test {
namespace {

void Check(LSTATUS status, const char* what) {
  if (status != ERROR_SUCCESS) {
    throw std::runtime_error(std::string(what) + " failed: " + std::to_string(status));
  }
}

bool KeyExists(const std::wstring& key) {
  HKEY handle = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) {
    return false;
  }
  RegCloseKey(handle);
  return true;
}

}  // namespace

struct TestRegistry::State {
  std::set<std::wstring> new_keys;  // topmost keys that were created here
  std::set<std::pair<std::wstring, std::wstring>> new_values;  // in keys that already existed
};

TestRegistry::TestRegistry() : state_(std::make_unique<State>()) {}

TestRegistry::~TestRegistry() {
  for (const auto& [key, name] : state_->new_values) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str());
  }
  for (const std::wstring& key : state_->new_keys) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
  }
}

void TestRegistry::MakeKey(const std::wstring& key) {
  for (std::size_t end = key.find(L'\\');; end = key.find(L'\\', end + 1)) {
    const std::wstring parent = key.substr(0, end);
    if (!KeyExists(parent)) {
      state_->new_keys.insert(parent);
      break;
    }
    if (end == std::wstring::npos) {
      return;
    }
  }
  HKEY handle = nullptr;
  Check(RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &handle,
                        nullptr),
        "RegCreateKeyExW");
  RegCloseKey(handle);
}

void TestRegistry::SetDword(const std::wstring& key, const std::wstring& name,
                            std::uint32_t value) {
  std::vector<std::uint8_t> data;
  for (int shift = 0; shift < 32; shift += 8) {
    data.push_back(static_cast<std::uint8_t>(value >> shift));
  }
  SetRaw(key, name, platform::kRegistryDword, data);
}

void TestRegistry::SetText(const std::wstring& key, const std::wstring& name,
                           const std::wstring& text) {
  std::vector<std::uint8_t> data = platform::ToUtf16Le(text);
  data.insert(data.end(), {0, 0});
  SetRaw(key, name, platform::kRegistryText, data);
}

void TestRegistry::SetRaw(const std::wstring& key, const std::wstring& name, std::uint32_t type,
                          const std::vector<std::uint8_t>& data) {
  MakeKey(key);
  Check(RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), type, data.data(),
                        static_cast<DWORD>(data.size())),
        "RegSetKeyValueW");
  state_->new_values.emplace(key, name);
}

void TestRegistry::Remove(const std::wstring& key, const std::wstring& name) {
  const LSTATUS status = RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str());
  if (status != ERROR_FILE_NOT_FOUND) {
    Check(status, "RegDeleteKeyValueW");
  }
}

void TestRegistry::RemoveKey(const std::wstring& key) {
  const LSTATUS status = RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
  if (status != ERROR_FILE_NOT_FOUND) {
    Check(status, "RegDeleteTreeW");
  }
}

}  // namespace kyd_test
