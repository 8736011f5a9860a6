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

TEST(ControlChannelTest, RepliesEchoTheIdAndBadLinesGetErrors) {
  std::ostringstream out;
  ControlChannel channel(out);
  ResultCallback later;
  channel.add("echo", [](const Dictionary& request, ResultCallback reply) {
    reply(success(request.contains("value") ? request.at("value") : AnyValue(nullptr)));
  });
  channel.add("fail", [](const Dictionary&, ResultCallback reply) { reply(failure("nope")); });
  channel.add("later", [&](const Dictionary&, ResultCallback reply) { later = std::move(reply); });

  channel.handleLine(R"({"id":1,"cmd":"echo","value":{"a":[1,2]}})");
  channel.handleLine(R"({"id":"x","cmd":"fail"})");
  channel.handleLine("not json");
  channel.handleLine("[1,2]");
  channel.handleLine(R"({"id":2})");
  channel.handleLine(R"({"id":3,"cmd":"teleport"})");
  channel.handleLine("   ");
  channel.handleLine(R"({"id":4,"cmd":"later"})");
  channel.emit("ready", {{"window", "w1"}});
  later(success(true));

  auto got = lines(out);
  ASSERT_EQ(got.size(), 8u);
  EXPECT_EQ(got[0], boost::json::parse(R"({"id":1,"ok":true,"result":{"a":[1,2]}})"));
  EXPECT_EQ(got[1], boost::json::parse(R"({"id":"x","ok":false,"error":"nope"})"));
  EXPECT_EQ(got[2].at("id"), nullptr);
  EXPECT_EQ(got[2].at("ok"), false);
  EXPECT_EQ(got[3].at("ok"), false);
  EXPECT_EQ(got[4], boost::json::parse(R"({"id":2,"ok":false,"error":"malformed request: \"cmd\" must be a string"})"));
  EXPECT_EQ(got[5], boost::json::parse(R"({"id":3,"ok":false,"error":"unknown command: teleport"})"));
  EXPECT_EQ(got[6], boost::json::parse(R"({"event":"ready","window":"w1"})"));
  EXPECT_EQ(got[7], boost::json::parse(R"({"id":4,"ok":true,"result":true})"));
}

}  // namespace
}  // namespace appex
