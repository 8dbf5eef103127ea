// The one function of the pelham configuration library that the uploader calls.
#pragma once

#include <string>

// The Windows module imports the function by name when the program starts; PELHAM_BUILDING is set
// for the library's own sources only.
#if defined(_WIN32)
#if defined(PELHAM_BUILDING)
#define PELHAM_API __declspec(dllexport)
#else
#define PELHAM_API __declspec(dllimport)
#endif
#else
#define PELHAM_API __attribute__((visibility("default")))
#endif

namespace pelham {

/// The library's file name without its extension.
#if defined(_WIN32)
inline constexpr wchar_t kLibraryName[] = L"pelham";
#else
inline constexpr wchar_t kLibraryName[] = L"libpelham";
#endif

/// The name under which the library exports the function, as g++ and Visual C++ decorate it.
inline constexpr char kItaniumUserAgentExport[] =
    "_ZN6pelham12CompInfoCtrl21CreateWebAPIUserAgentB5cxx11Ev";
inline constexpr char kMsvcUserAgentExport[] =
    "?CreateWebAPIUserAgent@CompInfoCtrl@pelham@@SA"
    "?AV?$basic_string@_WU?$char_traits@_W@std@@V?$allocator@_W@2@@std@@XZ";
#if defined(_MSC_VER)
inline constexpr const char* kUserAgentExport = kMsvcUserAgentExport;
#else
inline constexpr const char* kUserAgentExport = kItaniumUserAgentExport;
#endif

class CompInfoCtrl {
 public:
  /// The HTTP user agent of the installed product.
  ///
  /// This tree builds a stand-in of the library. It answers with a fixed text that calls itself a
  /// stand-in, unless a text file `pelham.useragent` is in its folder: then with the first line of
  /// that file (UTF-8, with or without a byte-order mark, at most 4096 bytes), which may be empty.
  /// Throws std::runtime_error when that line is exactly "!throw", when it is too long or not
  /// UTF-8, or when the file cannot be read; so that tests can produce every behaviour of the
  /// library.
  ///
  /// The string is allocated here and freed by the caller, so both modules must use the same C++
  /// library and the same C run-time heap.
  static PELHAM_API std::wstring CreateWebAPIUserAgent();
};

}  // namespace pelham
