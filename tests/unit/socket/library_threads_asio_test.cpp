#include "socket/library_threads.h"

#include <gtest/gtest.h>
#include <pplx/pplxtasks.h>
#include <pplx/threadpool.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <thread>

namespace CorvidSocket {
namespace {

// All tests of this program use the library as a run does.
class PreparedLibrary : public testing::Environment {
 public:
  void SetUp() override { PrepareLibrary(); }
};

// NOLINTNEXTLINE(cert-err58-cpp): out of memory only
const testing::Environment* const prepared_library =
    testing::AddGlobalTestEnvironment(std::make_unique<PreparedLibrary>().release());

std::thread::id Here() {
  return std::this_thread::get_id();
}

// A task that a connection completes: its handlers run where the pool's work is run.
pplx::task<std::thread::id> OfAConnection() {
  const pplx::task_completion_event<std::thread::id> done;
  boost::asio::post(crossplat::threadpool::shared_instance().service(),
                    [done] { done.set(Here()); });
  return pplx::create_task(done);
}

TEST(LibraryThreads, TasksRunOnTheThreadThatCreatesThem) {
  const std::thread::id continued =
      pplx::create_task(Here).then([](std::thread::id) { return Here(); }).get();
  EXPECT_EQ(pplx::create_task(Here).get(), Here());
  EXPECT_EQ(continued, Here());
}

TEST(LibraryThreads, ConnectionsRunOnTheThreadThatAwaitsThem) {
  EXPECT_EQ(Await(OfAConnection()), Here());
  EXPECT_EQ(Await(OfAConnection().then([](std::thread::id) { return Here(); })), Here());
}

TEST(Await, ThrowsTheExceptionOfTheTask) {
  EXPECT_THROW(Await(OfAConnection().then(
                   [](std::thread::id) -> int { throw std::out_of_range("by a handler"); })),
               std::out_of_range);
}

// The handler's own task never completes, nor does anything else that the library has begun.
TEST(Await, ThrowsAfterAHandlerHasThrown) {
  auto& service = crossplat::threadpool::shared_instance().service();
  boost::asio::post(service, [] { throw std::bad_alloc(); });
  const pplx::task_completion_event<int> lost;
  const pplx::task<int> never = pplx::create_task(lost);
  EXPECT_THROW(Await(never), std::bad_alloc);
  EXPECT_THROW(Await(never), std::runtime_error);
  service.restart();
  EXPECT_EQ(Await(OfAConnection()), Here());
}

TEST(Await, ReturnsWhenAnotherThreadHasCompletedTheTask) {
  const pplx::task_completion_event<int> done;
  std::thread other([&done] { done.set(7); });
  EXPECT_EQ(Await(pplx::create_task(done)), 7);
  other.join();
}

}  // namespace
}  // namespace CorvidSocket
