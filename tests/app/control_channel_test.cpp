#include "app/control_channel.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <sstream>

namespace appex {
namespace {

std::vector<AnyValue> lines(const std::ostringstream& out) {
  std::vector<AnyValue> result;
  std::istringstream in(out.str());
  for (std::string line; std::getline(in, line);) result.push_back(boost::json::parse(line));
  return result;
}

AnyValue json(const char* text) { return boost::json::parse(text); }

// A channel with "echo" (answers at once), "fail", "later" (answered by the
// test through `held`) and "quit".
struct Fixture {
  std::ostringstream out;
  ControlChannel channel{out};
  std::vector<ResultCallback> held;
  std::vector<std::string> started;
  bool quit = false;

  Fixture() {
    channel.add("echo", [this](const Dictionary& request, ResultCallback reply) {
      started.push_back("echo");
      reply(success(request.contains("value") ? request.at("value") : AnyValue(nullptr)));
    });
    channel.add("fail", [](const Dictionary&, ResultCallback reply) { reply(failure("nope")); });
    channel.add("later", [this](const Dictionary&, ResultCallback reply) {
      started.push_back("later");
      held.push_back(std::move(reply));
    });
    channel.add("quit", [this](const Dictionary&, ResultCallback reply) {
      channel.end();
      reply(success(true));
      quit = true;
    });
  }
};

TEST(ControlChannelTest, RepliesEchoTheIdAndBadLinesGetErrors) {
  Fixture f;
  f.channel.open();
  f.channel.handleLine(R"({"id":1,"cmd":"echo","value":{"a":[1,2]}})");
  f.channel.handleLine(R"({"id":"x","cmd":"fail"})");
  f.channel.handleLine("not json");
  f.channel.handleLine("[1,2]");
  f.channel.handleLine(R"({"id":2})");
  f.channel.handleLine(R"({"id":3,"cmd":"teleport"})");
  f.channel.handleLine("   ");
  f.channel.emit("ready", {{"window", "w1"}});

  auto got = lines(f.out);
  ASSERT_EQ(got.size(), 7u);
  EXPECT_EQ(got[0], json(R"({"id":1,"ok":true,"result":{"a":[1,2]}})"));
  EXPECT_EQ(got[1], json(R"({"id":"x","ok":false,"error":"nope"})"));
  EXPECT_EQ(got[2].at("id"), nullptr);
  EXPECT_EQ(got[2].at("ok"), false);
  EXPECT_EQ(got[3].at("ok"), false);
  EXPECT_EQ(got[4], json(R"({"id":2,"ok":false,"error":"malformed request: \"cmd\" must be a string"})"));
  EXPECT_EQ(got[5], json(R"x({"id":3,"ok":false,"error":"unknown command: teleport (commands: echo, fail, later, quit)"})x"));
  EXPECT_EQ(got[6], json(R"({"event":"ready","window":"w1"})"));
}

TEST(ControlChannelTest, RequestsWaitForOpenAndRunOneAtATimeInOrder) {
  Fixture f;
  f.channel.handleLine(R"({"id":1,"cmd":"later"})");
  f.channel.handleLine(R"({"id":2,"cmd":"echo","value":2})");
  EXPECT_TRUE(f.started.empty()) << "ran before the channel opened";
  f.channel.open();
  EXPECT_EQ(f.started, std::vector<std::string>{"later"}) << "the second ran before the first was answered";
  f.held[0](success(1));
  f.held[0](success(99));  // a second answer is dropped
  EXPECT_EQ(f.started, (std::vector<std::string>{"later", "echo"}));
  auto got = lines(f.out);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0], json(R"({"id":1,"ok":true,"result":1})"));
  EXPECT_EQ(got[1], json(R"({"id":2,"ok":true,"result":2})"));
}

TEST(ControlChannelTest, EveryRequestIsAnsweredOnceWhateverEndsTheRun) {
  {
    // quit: what follows is refused, not run.
    Fixture f;
    f.channel.handleLine(R"({"id":1,"cmd":"quit"})");
    f.channel.handleLine(R"({"id":2,"cmd":"echo"})");
    f.channel.open();
    EXPECT_TRUE(f.quit);
    EXPECT_EQ(lines(f.out)[1], json(R"({"id":2,"ok":false,"error":"echo: not run, the host is quitting"})"));
  }
  {
    // The end of input comes after the lines before it have run.
    Fixture f;
    bool ended = false;
    f.channel.handleLine(R"({"id":1,"cmd":"later"})");
    f.channel.endOfInput([&] { ended = true; });
    f.channel.open();
    EXPECT_FALSE(ended);
    f.held[0](success(true));
    EXPECT_TRUE(ended);
  }
  {
    // A stop answers the running request and the queued ones, once.
    Fixture f;
    f.channel.open();
    f.channel.handleLine(R"({"id":1,"cmd":"later"})");
    f.channel.handleLine(R"({"id":2,"cmd":"echo"})");
    f.channel.failOpen("the run stopped at --timeout");
    f.held[0](success(true));
    f.channel.handleLine(R"({"id":3,"cmd":"echo"})");
    auto got = lines(f.out);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0], json(R"({"id":1,"ok":false,"error":"later: the run stopped at --timeout"})"));
    EXPECT_EQ(got[1], json(R"({"id":2,"ok":false,"error":"echo: the run stopped at --timeout"})"));
    EXPECT_EQ(got[2], json(R"({"id":3,"ok":false,"error":"echo: not run, the host is quitting"})"));
    EXPECT_EQ(f.started, std::vector<std::string>{"later"});
  }
}

}  // namespace
}  // namespace appex
