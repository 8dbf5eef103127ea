#include "socket/library_threads.h"

#include <gtest/gtest.h>
#include <pplx/pplxtasks.h>

#include <thread>

namespace CorvidSocket {
namespace {

std::thread::id Here() {
  return std::this_thread::get_id();
}

TEST(LibraryThreads, TasksRunOnTheThreadThatCreatesThem) {
  PrepareLibraryThreads();
  const std::thread::id continued =
      pplx::create_task(Here).then([](std::thread::id) { return Here(); }).get();
  EXPECT_EQ(pplx::create_task(Here).get(), Here());
  EXPECT_EQ(continued, Here());
}

TEST(LibraryThreads, TasksWithConnectionsShareOneOtherThread) {
  PrepareLibraryThreads();
  const std::thread::id first = pplx::create_task(Here, OnLibraryThread()).get();
  EXPECT_NE(first, Here());
  EXPECT_EQ(pplx::create_task(Here, OnLibraryThread()).get(), first);
  EXPECT_EQ(
      pplx::create_task(Here, OnLibraryThread()).then([](std::thread::id) { return Here(); }).get(),
      first);
}

}  // namespace
}  // namespace CorvidSocket
