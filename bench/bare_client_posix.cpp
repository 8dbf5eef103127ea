// A minimal client with OpenSSL and sockets only, as a baseline: connect, handshake, one POST per
// file, read the response, move the file. It checks only the status and stops at the first failure.
//
// usage: bare-client [--resume] [--certificate <file>] <host> <port> <path> <log folder>
//
// The certificate file holds the client certificate and its key as PEM.
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Free {
  void operator()(DIR* folder) const { closedir(folder); }
  void operator()(SSL* connection) const { SSL_free(connection); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
  void operator()(addrinfo* addresses) const { freeaddrinfo(addresses); }
};

template <class T>
using Owned = std::unique_ptr<T, Free>;

void Require(bool good, const char* what) {
  if (!good) {
    throw std::runtime_error(what);
  }
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) { Require(number >= 0, "open"); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { close(number_); }
  [[nodiscard]] int Get() const { return number_; }

 private:
  int number_;
};

struct Server {
  std::string host;
  std::string path;
  Owned<addrinfo> address;
  Owned<SSL_CTX> context;
  bool resume = false;
  Owned<SSL_SESSION> session;
};

std::string ReadFile(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  Require(fstat(file.Get(), &status) == 0, "fstat");
  std::string content(static_cast<std::size_t>(status.st_size), '\0');
  Require(read(file.Get(), content.data(), content.size()) == status.st_size, "read");
  return content;
}

void ReadAnswer(SSL* connection) {
  std::string answer;
  char block[4096];
  while (answer.find("\r\n\r\n") == std::string::npos) {
    const int count = SSL_read(connection, block, sizeof block);
    Require(count > 0, "SSL_read");
    answer.append(block, static_cast<std::size_t>(count));
  }
  Require(answer.compare(0, 12, "HTTP/1.1 200") == 0, answer.c_str());
}

void Post(Server& server, const std::string& body) {
  const Descriptor socket(
      ::socket(server.address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  Require(connect(socket.Get(), server.address->ai_addr, server.address->ai_addrlen) == 0,
          "connect");
  const int on = 1;
  setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const Owned<SSL> connection(SSL_new(server.context.get()));
  SSL_set_fd(connection.get(), socket.Get());
  SSL_set_tlsext_host_name(connection.get(), server.host.c_str());
  if (server.session) {
    SSL_set_session(connection.get(), server.session.get());
  }
  Require(SSL_connect(connection.get()) == 1, "SSL_connect");
  const std::string request = "POST " + server.path + " HTTP/1.1\r\nHost: " + server.host +
                              "\r\nConnection: close\r\nContent-Type: application/octet-stream\r\n"
                              "Content-Length: " +
                              std::to_string(body.size()) + "\r\n\r\n" + body;
  Require(SSL_write(connection.get(), request.data(), static_cast<int>(request.size())) ==
              static_cast<int>(request.size()),
          "SSL_write");
  ReadAnswer(connection.get());
  if (server.resume) {
    // Without an alert at the end of the connection, OpenSSL would mark the session as not
    // resumable.
    SSL_set_shutdown(connection.get(), SSL_SENT_SHUTDOWN);
    server.session.reset(SSL_get1_session(connection.get()));
  }
}

std::vector<std::string> NamesIn(const std::string& folder) {
  const Owned<DIR> open_folder(opendir(folder.c_str()));
  Require(open_folder != nullptr, "opendir");
  std::vector<std::string> names;
  // Single-threaded.
  while (const dirent* entry = readdir(open_folder.get())) {  // NOLINT(concurrency-mt-unsafe)
    if (entry->d_name[0] != '.') {
      names.emplace_back(entry->d_name);
    }
  }
  return names;
}

void Open(Server& server, const std::string& port, const char* certificate) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  Require(getaddrinfo(server.host.c_str(), port.c_str(), &hints, &found) == 0, "getaddrinfo");
  server.address.reset(found);
  server.context.reset(SSL_CTX_new(TLS_client_method()));
  Require(server.context != nullptr, "SSL_CTX_new");
  SSL_CTX_set_max_proto_version(server.context.get(), TLS1_2_VERSION);
  if (certificate != nullptr) {
    SSL_CTX* const context = server.context.get();
    Require(SSL_CTX_use_certificate_file(context, certificate, SSL_FILETYPE_PEM) == 1 &&
                SSL_CTX_use_PrivateKey_file(context, certificate, SSL_FILETYPE_PEM) == 1,
            "client certificate");
  }
}

// Removes the options from the front of the arguments. Returns false for an unknown option.
bool TakeOptions(std::vector<std::string>& given, Server& server, std::string& certificate) {
  while (!given.empty() && given[0].compare(0, 2, "--") == 0) {
    if (given[0] == "--resume") {
      server.resume = true;
    } else if (given[0] == "--certificate" && given.size() > 1) {
      given.erase(given.begin());
      certificate = given[0];
    } else {
      return false;
    }
    given.erase(given.begin());
  }
  return given.size() == 4;
}

}  // namespace

int main(int argc, char** argv) try {
  std::vector<std::string> given(argv + 1, argv + argc);
  Server server;
  std::string certificate;
  if (!TakeOptions(given, server, certificate)) {
    std::cerr
        << "usage: bare-client [--resume] [--certificate <file>] <host> <port> <path> <folder>\n";
    return 64;
  }
  server.host = given[0];
  server.path = given[2];
  Open(server, given[1], certificate.empty() ? nullptr : certificate.c_str());
  const std::string upload = given[3] + "/Upload/";
  const std::string archive = given[3] + "/Archive/";
  for (const std::string& account : NamesIn(upload)) {
    for (const std::string& name : NamesIn(upload + account)) {
      std::string file = account;
      file.append("/").append(name);
      Post(server, ReadFile(upload + file));
      Require(rename((upload + file).c_str(), (archive + file).c_str()) == 0, "rename");
    }
  }
  return 0;
} catch (const std::exception& failure) {
  std::cerr << "bare-client: " << failure.what() << "\n";
  return 1;
}
