// A stream buffer that keeps the start of the data and drops the rest.
#include "socket/bounded_body.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>

namespace CorvidSocket {

namespace {
using Base = concurrency::streams::details::streambuf_state_manager<std::uint8_t>;
using Traits = concurrency::streams::char_traits<std::uint8_t>;
}  // namespace

// Write-only: reading and seeking fail.
class BoundedBody::Buffer : public Base {
 public:
  explicit Buffer(Now now) : Base(std::ios_base::out), now_(std::move(now)) {}

  [[nodiscard]] std::string Kept() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return kept_;
  }

  bool can_seek() const override { return false; }
  bool has_size() const override { return false; }
  std::size_t buffer_size(std::ios_base::openmode /*direction*/) const override { return 0; }
  void set_buffer_size(std::size_t /*size*/, std::ios_base::openmode /*direction*/) override {}
  std::size_t in_avail() const override { return 0; }
  pos_type getpos(std::ios_base::openmode /*mode*/) const override { return Nowhere(); }
  pos_type seekpos(pos_type /*position*/, std::ios_base::openmode /*mode*/) override {
    return Nowhere();
  }
  pos_type seekoff(off_type /*offset*/, std::ios_base::seekdir /*way*/,
                   std::ios_base::openmode /*mode*/) override {
    return Nowhere();
  }
  bool acquire(std::uint8_t*& /*block*/, std::size_t& count) override {
    count = 0;
    return false;
  }
  void release(std::uint8_t* /*block*/, std::size_t /*count*/) override {}

 protected:
  pplx::task<int_type> _putc(std::uint8_t byte) override {
    return Write(&byte, 1) ? pplx::task_from_result<int_type>(byte)
                           : pplx::task_from_exception<int_type>(BodyCutOff());
  }
  pplx::task<std::size_t> _putn(const std::uint8_t* bytes, std::size_t count) override {
    return Write(bytes, count) ? pplx::task_from_result(count)
                               : pplx::task_from_exception<std::size_t>(BodyCutOff());
  }

  // Provides no buffer to write into, so the library uses its own.
  std::uint8_t* _alloc(std::size_t /*count*/) override { return nullptr; }
  void _commit(std::size_t /*count*/) override {}

  pplx::task<int_type> _bumpc() override { return pplx::task_from_result<int_type>(Traits::eof()); }
  int_type _sbumpc() override { return Traits::eof(); }
  pplx::task<int_type> _getc() override { return pplx::task_from_result<int_type>(Traits::eof()); }
  int_type _sgetc() override { return Traits::eof(); }
  pplx::task<int_type> _nextc() override { return pplx::task_from_result<int_type>(Traits::eof()); }
  pplx::task<int_type> _ungetc() override {
    return pplx::task_from_result<int_type>(Traits::eof());
  }
  pplx::task<std::size_t> _getn(std::uint8_t* /*target*/, std::size_t /*count*/) override {
    return pplx::task_from_result<std::size_t>(0);
  }
  std::size_t _scopy(std::uint8_t* /*target*/, std::size_t /*count*/) override { return 0; }
  pplx::task<bool> _sync() override { return pplx::task_from_result(true); }

 private:
  static pos_type Nowhere() { return static_cast<pos_type>(Traits::eof()); }

  // Returns false if the body has taken too long.
  bool Write(const std::uint8_t* bytes, std::size_t count) {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto now = now_();
    if (!first_write_) {
      first_write_ = now;
    }
    if (now - *first_write_ > kLongestBody) {
      return false;
    }
    const std::size_t wanted = std::min(count, kKeptBodyBytes - kept_.size());
    kept_.append(bytes, bytes + wanted);
    return true;
  }

  const Now now_;
  mutable std::mutex lock_;  // on Windows the library writes on its own threads
  std::optional<std::chrono::steady_clock::time_point> first_write_;
  std::string kept_;
};

BoundedBody::BoundedBody(Now now) : buffer_(std::make_shared<Buffer>(std::move(now))) {}

concurrency::streams::ostream BoundedBody::Stream() const {
  return concurrency::streams::streambuf<std::uint8_t>(buffer_).create_ostream();
}

std::string BoundedBody::Kept() const {
  return buffer_->Kept();
}

}  // namespace CorvidSocket
