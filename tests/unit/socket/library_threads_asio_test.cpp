#include "socket/library_threads.h"

#include <gtest/gtest.h>
#include <pplx/pplxtasks.h>

#include <memory>
#include <thread>

namespace CorvidSocket {
namespace {

std::thread::id Here() {
  return std::this_thread::get_id();
}

// All tests of this program run as the library does in the uploader.
class Environment : public ::testing::Environment {
 public:
  void SetUp() override { PrepareLibraryThreads(); }
};

// GoogleTest deletes it.
[[maybe_unused]] const ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(std::make_unique<Environment>().release());

TEST(LibraryThreads, TasksRunOnTheThreadThatCreatesThem) {
  const std::thread::id continued =
      pplx::create_task(Here).then([](std::thread::id) { return Here(); }).get();
  EXPECT_EQ(pplx::create_task(Here).get(), Here());
  EXPECT_EQ(continued, Here());
}

TEST(LibraryThreads, TasksWithConnectionsShareOneOtherThread) {
  const std::thread::id first = pplx::create_task(Here, OnLibraryThread()).get();
  EXPECT_NE(first, Here());
  EXPECT_EQ(pplx::create_task(Here, OnLibraryThread()).get(), first);
  EXPECT_EQ(
      pplx::create_task(Here, OnLibraryThread()).then([](std::thread::id) { return Here(); }).get(),
      first);
}

}  // namespace
}  // namespace CorvidSocket
