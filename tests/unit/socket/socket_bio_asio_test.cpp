// TLS records written to a socket that accepts them at once, in parts, or late.
#include "socket/socket_bio_asio.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

#include "tests/unit/support/tls_server_posix.h"

namespace {

using boost::asio::ip::tcp;
using boost::system::error_code;
using CorvidSocket::TlsStream;

constexpr std::size_t kChunkBytes = 65524;

std::string Bytes(std::size_t count) {
  std::string result(count, '\0');
  for (std::size_t i = 0; i < count; ++i) {
    result[i] = static_cast<char>(i * 2654435761U >> 13U);
  }
  return result;
}

class SocketBioTest : public testing::TestWithParam<int> {
 protected:
  // Connects with a send buffer of this many bytes, or the default if 0.
  void Connect(int send_buffer) {
    socket_.open(tcp::v4());
    if (send_buffer != 0) {
      socket_.set_option(tcp::socket::send_buffer_size(send_buffer));
    }
    socket_.connect(acceptor_.local_endpoint());
    CorvidSocket::WriteToSocket(stream_);
    acceptor_.accept(peer_);
    std::thread server([this] { peer_stream_.handshake(TlsStream::server); });
    error_code result;
    stream_.async_handshake(TlsStream::client, [&](const error_code& code) { result = code; });
    Run();
    server.join();
    ASSERT_FALSE(result) << result.message();
  }

  void Run() {
    context_.restart();
    context_.run();
  }

  boost::asio::io_context context_;
  tcp::acceptor acceptor_{context_, {boost::asio::ip::address_v4::loopback(), 0}};
  tcp::socket socket_{context_};
  boost::asio::ssl::context client_{boost::asio::ssl::context::tlsv12_client};
  TlsStream stream_{socket_, client_};
  boost::asio::io_context peer_context_;
  tcp::socket peer_{peer_context_};
  boost::asio::ssl::context server_ = kyd_test::TlsServer();
  TlsStream peer_stream_{peer_, server_};
};

TEST_F(SocketBioTest, SendsAllRecordsOfAWriteTogether) {
  Connect(0);
  const std::string chunk = Bytes(kChunkBytes);
  std::size_t sent = 0;
  stream_.async_write_some(boost::asio::buffer(chunk),
                           [&](const error_code& /*code*/, std::size_t count) { sent = count; });
  Run();
  EXPECT_EQ(sent, kChunkBytes);  // a record holds 16,384 bytes
}

TEST_P(SocketBioTest, ContinuesAfterPartialSends) {
  Connect(GetParam());
  const std::string body = Bytes(40 * kChunkBytes);
  std::string received(body.size(), '\0');
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    boost::asio::read(peer_stream_, boost::asio::buffer(received));
  });
  for (std::size_t at = 0; at < body.size(); at += kChunkBytes) {
    error_code result;
    boost::asio::async_write(stream_, boost::asio::buffer(body.data() + at, kChunkBytes),
                             [&](const error_code& code, std::size_t /*count*/) { result = code; });
    Run();
    ASSERT_FALSE(result) << result.message();
  }
  reader.join();
  EXPECT_TRUE(received == body);
}

TEST_F(SocketBioTest, ReportsThatThePeerIsGone) {
  Connect(0);
  peer_.set_option(boost::asio::socket_base::linger(true, 0));
  peer_.close();
  const std::string chunk = Bytes(kChunkBytes);
  error_code result;
  boost::asio::async_write(stream_, boost::asio::buffer(chunk),
                           [&](const error_code& code, std::size_t /*count*/) { result = code; });
  Run();
  EXPECT_TRUE(result);
}

TEST_F(SocketBioTest, IsInstalledOnce) {
  Connect(0);
  BIO* const bio = SSL_get_wbio(stream_.native_handle());
  CorvidSocket::WriteToSocket(stream_);
  EXPECT_EQ(SSL_get_wbio(stream_.native_handle()), bio);
  EXPECT_NE(bio, SSL_get_rbio(stream_.native_handle()));
}

INSTANTIATE_TEST_SUITE_P(Buffers, SocketBioTest, testing::Values(4096, 16384, 30000, 65536));

}  // namespace
