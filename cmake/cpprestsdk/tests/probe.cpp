// Drives the REST library for test_library.py and prints the results, one per line.
//
//   probe post URL FILE [validate] [timeout=MS] [count=N] [clients] [share] [handles] [NAME:VALUE]
//                                    posts a file; one client per post, which may share SSL
//                                    context and addresses; counts the native handles
//   probe blocks FILE SIZE ...       reads in blocks of these sizes, in turn, into FILE.blocks
//   probe open FILE                  opens a file stream and reads from it
//   probe rewind FILE                reads to the end, twice, in blocks of 64 KiB
//   probe throw URL [late]           reads a response into a stream that throws, or whose tasks do
//   probe leave URL FILE [open] [abandon] [static]   returns from main right after a request
//   probe tasks COUNT                waits for this many tasks, and counts the handles they use
//
// The environment variable SHORT_READS limits the bytes that ReadFile returns (Windows).
// The library runs as in the program: see socket/library_threads.h.
//
// Backslash escapes \r, \n and \0 in VALUE become those characters.

#ifdef _WIN32
#include <windows.h>  // first, see socket/tls_hooks_winhttp.cpp
#endif

#include <cpprest/filestream.h>
#include <cpprest/http_client.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "socket/library_threads.h"

#ifdef _WIN32
#include <winhttp.h>
#else
#include <boost/asio/ssl.hpp>
#endif

namespace {

using CorvidSocket::Await;
using web::http::http_exception;
using web::http::http_request;
using web::http::http_response;
using web::http::client::http_client;
using web::http::client::http_client_config;
using Arguments = std::vector<std::string>;

utility::string_t Wide(const std::string& text) {
  return utility::conversions::to_string_t(text);
}

bool Has(const Arguments& arguments, const std::string& word) {
  for (const auto& argument : arguments) {
    if (argument == word) {
      return true;
    }
  }
  return false;
}

long Number(const Arguments& arguments, const std::string& name, long otherwise) {
  for (const auto& argument : arguments) {
    if (argument.rfind(name + "=", 0) == 0) {
      return std::stol(argument.substr(name.size() + 1));
    }
  }
  return otherwise;
}

std::string Unescape(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      result += text[i];
      continue;
    }
    const char letter = text[++i];
    result += letter == 'r' ? '\r' : letter == 'n' ? '\n' : letter == '0' ? '\0' : letter;
  }
  return result;
}

http_client_config Configuration(const Arguments& arguments) {
  http_client_config result;
  result.set_max_redirects(0);
  result.set_validate_certificates(Has(arguments, "validate"));
  result.set_timeout(std::chrono::milliseconds(Number(arguments, "timeout", 30000)));
#ifdef _WIN32
  result.set_nativesessionhandle_options([](web::http::client::native_handle session) {
    DWORD protocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2;
    if (!WinHttpSetOption(session, WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols, sizeof(protocols)))
      throw std::runtime_error("TLS 1.2 was refused");
  });
#else
  result.set_ssl_context_callback([](boost::asio::ssl::context& context) {
    SSL_CTX_set_min_proto_version(context.native_handle(), TLS1_2_VERSION);
    SSL_CTX_set_max_proto_version(context.native_handle(), TLS1_2_VERSION);
  });
#endif
  return result;
}

// Runs an action and prints the exception that ends it, as the first type that a caller would
// catch.
template <typename Action>
void Report(Action action) {
  try {
    action();
  } catch (const http_exception& error) {
    std::cout << "error=http_exception\ncode=" << error.error_code().value()
              << "\nwhat=" << error.what() << "\n";
  } catch (const std::system_error& error) {
    std::cout << "error=system_error\ncode=" << error.code().value() << "\nwhat=" << error.what()
              << "\n";
  } catch (const std::exception& error) {
    std::cout << "error=exception\nwhat=" << error.what() << "\n";
  } catch (...) {
    std::cout << "error=unknown\n";
  }
}

concurrency::streams::istream Open(const std::string& name) {
  return concurrency::streams::fstream::open_istream(Wide(name)).get();
}

http_request Post(const concurrency::streams::istream& body, const Arguments& arguments) {
  http_request result(web::http::methods::POST);
  for (const auto& argument : arguments) {
    const auto colon = argument.find(':');
    if (colon != std::string::npos) {
      result.headers().add(Wide(argument.substr(0, colon)),
                           Wide(Unescape(argument.substr(colon + 1))));
    }
  }
  result.set_body(body, _XPLATSTR("application/octet-stream"));
  return result;
}

// Runs the pending work of the requests.
void Sleep(std::chrono::microseconds duration) {
  const auto end = std::chrono::steady_clock::now() + duration;
  CorvidSocket::RunLibraryUntil([end] { return std::chrono::steady_clock::now() >= end; });
  std::this_thread::sleep_until(end);
}

void PostFile(const std::string& url, const std::string& file, const Arguments& arguments) {
  auto configuration = Configuration(arguments);
#ifndef _WIN32
  if (Has(arguments, "share")) {
    configuration.set_address_cache(http_client_config::make_address_cache());
    auto context =
        std::make_shared<boost::asio::ssl::context>(boost::asio::ssl::context::tlsv12_client);
    if (Has(arguments, "validate")) {
      context->set_default_verify_paths();
    }
    configuration.set_ssl_context(context);
  }
#endif
  int handles = 0;
  if (Has(arguments, "handles")) {
    configuration.set_nativehandle_options(
        [&handles](web::http::client::native_handle /*connection*/) { ++handles; });
  }
  std::unique_ptr<http_client> client;
  for (long left = Number(arguments, "count", 1); left > 0; --left) {
    if (!client || Has(arguments, "clients")) {
      client = std::make_unique<http_client>(web::uri(Wide(url)), configuration);
    }
    const auto body = Open(file);
    Report([&] {
      auto response = Await(client->request(Post(body, arguments)));
      std::cout << "status=" << response.status_code() << "\n";
      const auto text = Await(response.extract_utf8string(true));
      std::cout << "body=" << text.size() << "\n";
    });
    body.close().wait();
  }
  if (handles != 0) {
    std::cout << "handles=" << handles << "\n";
  }
}

void OpenFile(const std::string& name) {
  const auto stream = Open(name);
  concurrency::streams::container_buffer<std::string> content;
  std::cout << "read=" << stream.read(content, 10).get() << "\n";
  stream.close().wait();
}

void ReadTwice(const std::string& name) {
  const auto stream = Open(name);
  for (int turn = 0; turn < 2; ++turn) {
    std::size_t all = 0;
    std::size_t count = 1;
    while (count != 0) {
      concurrency::streams::container_buffer<std::string> block;
      count = stream.read(block, 65536).get();
      all += count;
    }
    std::cout << "read=" << all << "\n";
    stream.seek(0);
  }
  stream.close().wait();
}

void ReadBlocks(const std::string& name, const Arguments& sizes) {
  const auto stream = Open(name);
  std::ofstream copy(name + ".blocks", std::ios::binary);
  for (std::size_t turn = 0;; ++turn) {
    concurrency::streams::container_buffer<std::string> block;
    const auto size = static_cast<std::size_t>(std::stol(sizes[turn % sizes.size()]));
    const auto count = stream.read(block, size).get();
    if (count == 0) {
      break;
    }
    copy << block.collection().substr(0, count);
  }
  stream.close().wait();
}

// A sink that fails: late, with a failed task, or immediately, by throwing instead of returning a
// failed task.
class ThrowingSink : public concurrency::streams::details::streambuf_state_manager<uint8_t> {
 public:
  explicit ThrowingSink(bool late)
      : streambuf_state_manager<uint8_t>(std::ios_base::out), late_(late) {}

 protected:
  bool can_seek() const override { return false; }
  bool has_size() const override { return false; }
  size_t buffer_size(std::ios_base::openmode) const override { return 0; }
  void set_buffer_size(size_t, std::ios_base::openmode) override {}
  size_t in_avail() const override { return 0; }
  pos_type getpos(std::ios_base::openmode) const override { return {-1}; }
  pos_type seekpos(pos_type, std::ios_base::openmode) override { return {-1}; }
  pos_type seekoff(off_type, std::ios_base::seekdir, std::ios_base::openmode) override {
    return {-1};
  }
  bool acquire(uint8_t*&, size_t&) override { return false; }
  void release(uint8_t*, size_t) override {}
  uint8_t* _alloc(size_t) override { return nullptr; }
  void _commit(size_t) override {}
  pplx::task<int_type> _putc(uint8_t) override { throw std::runtime_error("the sink is full"); }
  pplx::task<size_t> _putn(const uint8_t*, size_t) override {
    if (late_) {
      return pplx::task_from_exception<size_t>(std::runtime_error("the sink is full"));
    }
    throw std::runtime_error("the sink is full");
  }
  pplx::task<bool> _sync() override { return pplx::task_from_result(true); }
  pplx::task<int_type> _bumpc() override { return End(); }
  pplx::task<int_type> _getc() override { return End(); }
  pplx::task<int_type> _nextc() override { return End(); }
  pplx::task<int_type> _ungetc() override { return End(); }
  pplx::task<size_t> _getn(uint8_t*, size_t) override { return pplx::task_from_result<size_t>(0); }
  int_type _sbumpc() override { return traits::eof(); }
  int_type _sgetc() override { return traits::eof(); }
  size_t _scopy(uint8_t*, size_t) override { return 0; }

 private:
  static pplx::task<int_type> End() { return pplx::task_from_result<int_type>(traits::eof()); }

  const bool late_;
};

void ReadIntoThrowingSink(const std::string& url, bool late) {
  using Buffer = concurrency::streams::details::basic_streambuf<uint8_t>;
  http_client client(web::uri(Wide(url)), Configuration({}));
  for (int i = 0; i < 2; ++i) {
    http_request request(web::http::methods::POST);
    request.set_body(std::string("x"));
    request.set_response_stream(concurrency::streams::basic_ostream<uint8_t>(
        concurrency::streams::streambuf<uint8_t>(std::shared_ptr<Buffer>(new ThrowingSink(late)))));
    Report([&] { Await(Await(client.request(request)).content_ready()); });
  }
}

void Leave(const std::string& url, const std::string& file, const Arguments& arguments) {
  static std::unique_ptr<http_client> kept;
  auto client = std::make_unique<http_client>(web::uri(Wide(url)), Configuration({}));
  const auto body = Open(file);
  const auto answer = client->request(Post(body, {}));
  if (Has(arguments, "abandon")) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    Sleep(std::chrono::microseconds(now / 1000 % 8000));
    // An unobserved exception would terminate the process.
    // NOLINTNEXTLINE(performance-unnecessary-value-param): the type makes it see exceptions
    answer.then([](pplx::task<http_response> late) {
      try {
        late.wait();
      } catch (const std::exception&) {
      }
    });
  } else {
    Report([&] { Await(answer); });
  }
  if (!Has(arguments, "open")) {
    body.close().wait();
  }
  if (Has(arguments, "static")) {
    kept = std::move(client);
  }
}

// Handle values are multiples of four, and a new handle gets the lowest free one (Wine has no
// count).
std::uintptr_t Handles() {
#ifdef _WIN32
  const HANDLE next = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  CloseHandle(next);
  return reinterpret_cast<std::uintptr_t>(next) / 4;
#else
  return 0;
#endif
}

void WaitForTasks(int count) {
  std::vector<pplx::task_completion_event<int>> events(static_cast<std::size_t>(count));
  std::vector<pplx::task<int>> tasks;
  tasks.reserve(events.size());
  const std::uintptr_t before = Handles();
  for (const auto& event : events) {
    tasks.push_back(pplx::create_task(event));
  }
  std::cout << "handles=" << Handles() - before << "\n";
  std::thread setter([&events] {
    for (const auto& event : events) {
      event.set(1);
    }
  });
  int sum = 0;
  for (const auto& task : tasks) {
    sum += task.get();
  }
  setter.join();
  std::cout << "sum=" << sum << "\n";

  pplx::extensibility::event_t event;
  std::cout << "unset=" << (event.wait(20) == 0) << "\n";
  event.set();
  std::cout << "set=" << (event.wait(20) == 0) << (event.wait() == 0) << "\n";
  event.reset();
  std::cout << "reset=" << (event.wait(0) == 0) << "\n";

  std::thread late([&event] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    event.reset();  // an event that is not set, but waited for
    event.set();
  });
  std::cout << "late=" << (event.wait() == 0) << "\n";
  late.join();
}

#ifdef _WIN32
// Replaces the system's function for everything that is linked into this program.
BOOL WINAPI ReadShort(HANDLE file, void* buffer, DWORD size, DWORD* read, OVERLAPPED* overlapped) {
  static const auto real = reinterpret_cast<decltype(&ReadShort)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "ReadFile")));
  static const char* const most = std::getenv("SHORT_READS");
  if (most != nullptr) {
    size = std::min(size, static_cast<DWORD>(std::strtoul(most, nullptr, 10)));
  }
  return real(file, buffer, size, read, overlapped);
}
#endif

}  // namespace

#ifdef _WIN32
extern "C" decltype(&ReadShort) __imp_ReadFile;
decltype(&ReadShort) __imp_ReadFile = &ReadShort;
#endif

int main(int argc, char** argv) {
  const Arguments arguments(argv + 1, argv + argc);
  if (arguments.size() < 2) {
    return 2;
  }
  const Arguments options(arguments.begin() + (arguments.size() > 2 ? 3 : 2), arguments.end());
  const auto& command = arguments[0];
  Report([&] {
    CorvidSocket::PrepareLibrary();
    if (command == "open") {
      return OpenFile(arguments[1]);
    }
    if (command == "rewind") {
      return ReadTwice(arguments[1]);
    }
    if (command == "blocks") {
      return ReadBlocks(arguments[1], Arguments(arguments.begin() + 2, arguments.end()));
    }
    if (command == "throw") {
      return ReadIntoThrowingSink(arguments[1], Has(arguments, "late"));
    }
    if (command == "tasks") {
      return WaitForTasks(std::stoi(arguments[1]));
    }
    if (arguments.size() < 3) {
      throw std::runtime_error("arguments are missing");
    }
    if (command == "post") {
      return PostFile(arguments[1], arguments[2], options);
    }
    if (command == "leave") {
      return Leave(arguments[1], arguments[2], options);
    }
    throw std::runtime_error("unknown command");
  });
  std::cout << "end" << std::endl;
  return 0;
}
