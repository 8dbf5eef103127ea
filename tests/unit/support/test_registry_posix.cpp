// Registry settings as a registry export file, rewritten with every change.
#include <cstdio>
#include <map>
#include <stdexcept>

#include "platform/registry.h"
#include "platform/text.h"
#include "tests/unit/support/test_registry.h"

namespace kyd_test {
namespace {

std::wstring Quoted(const std::wstring& text) {
  std::wstring quoted = L"\"";
  for (const wchar_t character : text) {
    if (character == L'\\' || character == L'"') {
      quoted += L'\\';
    }
    quoted += character;
  }
  return quoted + L'"';
}

std::wstring HexList(const std::vector<std::uint8_t>& data) {
  std::wstring list;
  for (const std::uint8_t byte : data) {
    char digits[4];
    (void)std::snprintf(digits, sizeof digits, "%02x", byte);
    list += (list.empty() ? L"" : L",") + platform::FromUtf8(digits);
  }
  return list;
}

}  // namespace

struct TestRegistry::State {
  using Values = std::map<std::wstring, std::wstring>;  // name -> text after the "="
  std::map<std::wstring, Values> keys;

  void Save(const TestSysroot& sysroot) const {
    std::wstring text = L"Windows Registry Editor Version 5.00\n";
    for (const auto& [key, values] : keys) {
      text += L"\n[HKEY_LOCAL_MACHINE\\" + key + L"]\n";
      for (const auto& [name, value] : values) {
        text += (name.empty() ? L"@" : Quoted(name)) + L"=" + value + L"\n";
      }
    }
    // The program may read at any time, so the file is replaced atomically.
    const std::wstring path = sysroot.Folder() / L"etc/keyward/registry.reg";
    WriteFileBytes(path + L".new", platform::ToUtf8(text));
    if (std::rename(platform::ToNativePath(path + L".new").c_str(),
                    platform::ToNativePath(path).c_str()) != 0) {
      throw std::runtime_error("cannot write the registry text");
    }
  }
};

TestRegistry::TestRegistry() : state_(std::make_unique<State>()) {}
TestRegistry::~TestRegistry() = default;

void TestRegistry::MakeKey(const std::wstring& key) {
  state_->keys[key];
  state_->Save(sysroot_);
}

void TestRegistry::SetDword(const std::wstring& key, const std::wstring& name,
                            std::uint32_t value) {
  char digits[9];
  (void)std::snprintf(digits, sizeof digits, "%08x", value);
  state_->keys[key][name] = L"dword:" + platform::FromUtf8(digits);
  state_->Save(sysroot_);
}

void TestRegistry::SetText(const std::wstring& key, const std::wstring& name,
                           const std::wstring& text) {
  state_->keys[key][name] = Quoted(text);
  state_->Save(sysroot_);
}

void TestRegistry::SetRaw(const std::wstring& key, const std::wstring& name, std::uint32_t type,
                          const std::vector<std::uint8_t>& data) {
  char start[16];
  (void)std::snprintf(start, sizeof start, "hex(%x):", type);
  state_->keys[key][name] = platform::FromUtf8(start) + HexList(data);
  state_->Save(sysroot_);
}

void TestRegistry::Remove(const std::wstring& key, const std::wstring& name) {
  state_->keys[key].erase(name);
  state_->Save(sysroot_);
}

void TestRegistry::RemoveKey(const std::wstring& key) {
  for (auto it = state_->keys.begin(); it != state_->keys.end();) {
    const bool below = it->first == key || it->first.rfind(key + L"\\", 0) == 0;
    it = below ? state_->keys.erase(it) : std::next(it);
  }
  state_->Save(sysroot_);
}

}  // namespace kyd_test
