// The bare sink the torture and the kill tests deliver to: long request
// lines, keep-alive, its failures and drops, and a restart on its port.
#include <httplib.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "collector/BeaconSink.h"

namespace korvel::tools {
namespace {

using namespace std::chrono_literals;

class BeaconSinkTest : public ::testing::Test {
 protected:
  BeaconSink::Options options() {
    BeaconSink::Options o;
    o.onAnswer = [this](const std::string& uuid, int status) { answers_.emplace_back(uuid, status); };
    return o;
  }
  static std::string target(const std::string& uuid, size_t padding = 0) {
    return "/b/INID/1.0/Model/userevent?clientbeaconuuid=" + uuid + "&blob=" +
           std::string(padding, 'x');
  }

  std::vector<std::pair<std::string, int>> answers_;  // one call at a time
};

TEST_F(BeaconSinkTest, TakesRequestLinesOfAnyLengthOnOneConnection) {
  BeaconSink sink(options());
  ASSERT_TRUE(sink.start());
  httplib::Client client("127.0.0.1", sink.port());
  client.set_keep_alive(true);
  for (size_t padding : {size_t{0}, size_t{20'000}, size_t{60'000}, size_t{3}}) {
    auto answer = client.Get(target("U" + std::to_string(padding), padding));
    ASSERT_TRUE(answer) << padding;
    EXPECT_EQ(answer->status, 204) << padding;
  }
  sink.stop();
  const std::vector<std::pair<std::string, int>> expected = {
      {"U0", 204}, {"U20000", 204}, {"U60000", 204}, {"U3", 204}};
  EXPECT_EQ(answers_, expected);
}

TEST_F(BeaconSinkTest, FailsEveryNthAndDropsWhenAsked) {
  auto o = options();
  o.failEvery = 3;
  o.failStatus = 503;
  BeaconSink sink(o);
  ASSERT_TRUE(sink.start());
  sink.dropNext(1);
  httplib::Client client("127.0.0.1", sink.port());
  std::vector<int> statuses;
  for (int n = 0; n < 5; ++n) {
    auto answer = client.Get(target("U" + std::to_string(n)));
    statuses.push_back(answer ? answer->status : 0);
  }
  sink.stop();
  // The drop is not counted among the requests failEvery counts.
  EXPECT_EQ(statuses, (std::vector<int>{0, 204, 204, 503, 204}));
  EXPECT_EQ(answers_, (std::vector<std::pair<std::string, int>>{
                          {"U0", 0}, {"U1", 204}, {"U2", 204}, {"U3", 503}, {"U4", 204}}));
}

TEST_F(BeaconSinkTest, StopsWithConnectionsOpenAndStartsAgainOnItsPort) {
  auto first = std::make_unique<BeaconSink>(options());
  ASSERT_TRUE(first->start());
  const int port = first->port();
  httplib::Client client("127.0.0.1", port);
  client.set_keep_alive(true);
  ASSERT_TRUE(client.Get(target("before")));
  first.reset();  // the kept-alive connection is still open: this must not hang

  auto o = options();
  o.port = port;
  BeaconSink second(o);
  ASSERT_TRUE(second.start());
  EXPECT_EQ(second.port(), port);
  httplib::Client again("127.0.0.1", port);
  auto answer = again.Get(target("after"));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 204);
  second.stop();
  ASSERT_EQ(answers_.size(), 2u);
  EXPECT_EQ(answers_[1].first, "after");
}

}  // namespace
}  // namespace korvel::tools
