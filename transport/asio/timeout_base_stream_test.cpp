#include "transport/asio/timeout_base_stream.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <optional>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>

namespace Orbi::Asio {
namespace {

using namespace std::chrono_literals;
using Socket = boost::asio::local::stream_protocol::socket;
using Stream = TimeoutBaseStream<Socket>;
using Result = std::optional<boost::system::error_code>;

class TimeoutBaseStreamTest : public testing::Test {
 protected:
  std::shared_ptr<Stream> Connect(std::chrono::nanoseconds readTimeout) {
    Socket socket(context_);
    boost::asio::local::connect_pair(socket, peer_);
    return std::make_shared<Stream>(std::move(socket), IOTimeouts{readTimeout, 1h});
  }

  void PeerSends() { boost::asio::write(peer_, boost::asio::buffer("x", 1)); }

  /// Starts a read whose result goes to `result`, and `next` after it.
  void Read(
      Stream& stream, Result& result, const std::function<void()>& next = [] {}) {
    stream.async_read_some(boost::asio::buffer(buffer_), [&result, next](auto ec, std::size_t) {
      result = ec;
      next();
    });
  }

  boost::asio::io_context context_;
  Socket peer_{context_};
  std::array<char, 16> buffer_;
};

TEST_F(TimeoutBaseStreamTest, DeadlineOfACompletedReadSparesTheNextOne) {
  const auto stream = Connect(1h);
  Result first, second;
  stream->FinishBy(DeadlineIn(20ms));
  Read(*stream, first, [&] {
    // The second read has all the time it wants, but the handler of the first one's deadline is
    // queued already.
    stream->FinishBy(SteadyClock::time_point::max());
    Read(*stream, second);
  });
  PeerSends();
  // Nothing runs meanwhile, so that data and deadline are both there at once.
  std::this_thread::sleep_for(25ms);
  context_.poll();
  ASSERT_TRUE(first);
  EXPECT_EQ(*first, boost::system::error_code());
  EXPECT_FALSE(second) << second->message();
  PeerSends();
  while (!second) context_.run_one();
  EXPECT_EQ(second, boost::system::error_code());
}

TEST_F(TimeoutBaseStreamTest, ALimitEndsReadsThatWouldWaitLonger) {
  for (const std::chrono::nanoseconds timeout :
       {std::chrono::nanoseconds(1h), std::chrono::nanoseconds::max()}) {
    const auto stream = Connect(timeout);
    Result first, second;
    Read(*stream, first, [&] {
      stream->FinishBy(DeadlineIn(20ms));
      Read(*stream, second);
    });
    context_.restart();
    context_.poll();
    EXPECT_FALSE(first);
    PeerSends();
    context_.run();
    EXPECT_EQ(second, boost::asio::error::timed_out);
    peer_.close();
  }
}

TEST_F(TimeoutBaseStreamTest, AWaitOutlivesItsStream) {
  auto stream = Connect(1h);
  Result result;
  Read(*stream, result);
  stream->Close();
  context_.poll();
  EXPECT_EQ(result, boost::asio::error::operation_aborted);
  stream.reset();
  context_.run();  // ends, because the timer's wait ends with the stream
}

}  // namespace
}  // namespace Orbi::Asio
