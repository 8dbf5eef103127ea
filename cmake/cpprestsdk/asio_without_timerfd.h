// Comes before everything else in each source that uses Asio; see CMakeLists.txt.
//
// Asio ignores it when epoll cannot watch its timer file (ENOMEM, ENOSPC): then no time-out ever
// comes. Without that file, the timers bound how long epoll waits. The library's threads look every
// tenth of a second, even when what wakes them cannot be watched (0007).
#ifndef CPPREST_ASIO_WITHOUT_TIMERFD_H
#define CPPREST_ASIO_WITHOUT_TIMERFD_H

#include <boost/asio/detail/config.hpp>

#undef BOOST_ASIO_HAS_TIMERFD

#endif
