// A minimal client with WinHTTP only, as a baseline: one session, and for each file a connection
// handle, one POST, the response status, and a move. It stops at the first failure. Long files are
// sent in blocks, like the chunks of the REST library.
//
// usage: bare-client <host> <port> <path> <log folder>
#include <windows.h>

#include <winhttp.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr DWORD kTls12Only = 0x800;  // WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2
constexpr std::size_t kBlockBytes = 64 << 10;

struct CloseInternet {
  using pointer = HINTERNET;
  void operator()(HINTERNET handle) const { WinHttpCloseHandle(handle); }
};
using Internet = std::unique_ptr<void, CloseInternet>;

struct CloseFile {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using File = std::unique_ptr<void, CloseFile>;

struct CloseSearch {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const { FindClose(handle); }
};
using Search = std::unique_ptr<void, CloseSearch>;

void Require(bool good, const char* what) {
  if (!good) {
    throw std::runtime_error(std::string(what) + " " + std::to_string(GetLastError()));
  }
}

struct Server {
  Internet session;
  std::wstring host;
  INTERNET_PORT port;
  std::wstring path;
};

void Post(const Server& server, const std::wstring& path) {
  const File file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
  Require(file.get() != INVALID_HANDLE_VALUE, "CreateFile");
  LARGE_INTEGER size;
  Require(GetFileSizeEx(file.get(), &size), "GetFileSizeEx");
  const Internet connection(
      WinHttpConnect(server.session.get(), server.host.c_str(), server.port, 0));
  Require(connection != nullptr, "WinHttpConnect");
  const Internet request(WinHttpOpenRequest(connection.get(), L"POST", server.path.c_str(), nullptr,
                                            WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                            WINHTTP_FLAG_SECURE));
  Require(request != nullptr, "WinHttpOpenRequest");
  DWORD any = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_DATE_INVALID |
              SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_CERT_WRONG_USAGE;
  Require(WinHttpSetOption(request.get(), WINHTTP_OPTION_SECURITY_FLAGS, &any, sizeof any),
          "WinHttpSetOption");
  const wchar_t headers[] = L"Connection: close\r\nContent-Type: application/octet-stream\r\n";
  Require(WinHttpSendRequest(request.get(), headers, static_cast<DWORD>(-1), nullptr, 0,
                             static_cast<DWORD>(size.QuadPart), 0),
          "WinHttpSendRequest");
  std::vector<char> block(kBlockBytes);
  DWORD count = 0;
  while (ReadFile(file.get(), block.data(), static_cast<DWORD>(block.size()), &count, nullptr) &&
         count != 0) {
    Require(WinHttpWriteData(request.get(), block.data(), count, &count), "WinHttpWriteData");
  }
  Require(WinHttpReceiveResponse(request.get(), nullptr), "WinHttpReceiveResponse");
  DWORD status = 0;
  DWORD bytes = sizeof status;
  Require(WinHttpQueryHeaders(request.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                              nullptr, &status, &bytes, WINHTTP_NO_HEADER_INDEX) &&
              status == 200,
          "status");
}

std::vector<std::wstring> NamesIn(const std::wstring& mask) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW found;
  const Search search(FindFirstFileW(mask.c_str(), &found));
  Require(search.get() != INVALID_HANDLE_VALUE, "FindFirstFile");
  do {
    if (found.cFileName[0] != L'.') {
      names.emplace_back(found.cFileName);
    }
  } while (FindNextFileW(search.get(), &found));
  return names;
}

}  // namespace

int wmain(int argc, wchar_t** argv) try {
  if (argc != 5) {
    std::fputs("usage: bare-client <host> <port> <path> <log folder>\n", stderr);
    return 64;
  }
  Server server{Internet(WinHttpOpen(nullptr, WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr, 0)),
                argv[1], static_cast<INTERNET_PORT>(std::stoi(argv[2])), argv[3]};
  Require(server.session != nullptr, "WinHttpOpen");
  DWORD protocols = kTls12Only;
  WinHttpSetOption(server.session.get(), WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols,
                   sizeof protocols);
  const std::wstring upload = std::wstring(argv[4]) + L"\\Upload\\";
  const std::wstring archive = std::wstring(argv[4]) + L"\\Archive\\";
  for (const std::wstring& account : NamesIn(upload + L"*")) {
    for (const std::wstring& name : NamesIn(upload + account + L"\\*.log")) {
      const std::wstring file = account + L"\\" + name;
      Post(server, upload + file);
      Require(MoveFileW((upload + file).c_str(), (archive + file).c_str()), "MoveFile");
    }
  }
  return 0;
} catch (const std::exception& failure) {
  std::fprintf(stderr, "bare-client: %s\n", failure.what());
  return 1;
}
