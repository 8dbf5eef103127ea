// Comes before everything else in each source that uses Asio; see CMakeLists.txt.
#ifndef CPPREST_ASIO_PRELUDE_H
#define CPPREST_ASIO_PRELUDE_H

#include <boost/asio/detail/config.hpp>
#include <boost/version.hpp>

// Asio ignores the failure if epoll cannot watch its timer file (ENOMEM, ENOSPC): no time-out would
// ever occur. Without that file, the timers limit how long epoll waits.
#undef BOOST_ASIO_HAS_TIMERFD

// Removed Asio names that the library uses, mapped to their replacements.
#if BOOST_VERSION >= 108700
namespace boost {
namespace asio {

class io_context;
using io_service = io_context;

template <class Pointer, class Buffer>
Pointer buffer_cast(const Buffer& buffer) {
  return static_cast<Pointer>(buffer.data());
}

namespace ssl {
class host_name_verification;
using rfc2818_verification = host_name_verification;
}  // namespace ssl

}  // namespace asio
}  // namespace boost
#endif

#endif
