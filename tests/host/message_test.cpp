#include "host/message.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace appex {
namespace {

std::optional<Message> parseText(std::string_view json) {
  return Message::parse(boost::json::parse(json));
}

std::string buildText(const Message& m) { return boost::json::serialize(m.build()); }

TEST(MessageParseTest, RejectionRules) {
  const char* rejected[] = {
      R"({"uid":"1","cmd":"x"})",                       // no type
      R"({"type":"ask","uid":"1","cmd":"x"})",          // lower-case type
      R"({"type":5,"uid":"1","cmd":"x"})",              // type not a string
      R"({"type":"ASK","cmd":"x"})",                    // no uid
      R"({"type":"ASK","uid":1,"cmd":"x"})",            // numeric uid
      R"({"type":"ASK","uid":"1"})",                    // ask without cmd
      R"({"type":"ASK","uid":"1","cmd":3})",            // numeric cmd
      R"({"type":"ANSWER","uid":"1"})",                 // answer with neither err nor data
      R"({"type":"ANSWER","uid":"1","err":{"message":"x"}})",  // object err, no data
      R"({"type":"LOG","data":"x"})",                   // log without uid
      R"([1,2])",                                       // not a dictionary
  };
  for (const char* text : rejected) EXPECT_FALSE(parseText(text)) << text;
}

TEST(MessageParseTest, AcceptedShapes) {
  auto ask = parseText(R"({"type":"ASK","uid":"u","cmd":"c","frameId":"3","data":1})");
  ASSERT_TRUE(ask);
  EXPECT_EQ(ask->type, MessageType::ask);
  EXPECT_FALSE(ask->args) << "missing args stays absent";
  EXPECT_FALSE(ask->frameId) << "a string frameId is dropped, not an error";
  EXPECT_FALSE(ask->data) << "an ask carries no data";

  auto nullData = parseText(R"({"type":"ANSWER","uid":"u","data":null,"frameId":2})");
  ASSERT_TRUE(nullData);
  ASSERT_TRUE(nullData->data);
  EXPECT_TRUE(nullData->data->is_null());
  EXPECT_EQ(nullData->frameId, 2);

  auto both = parseText(R"({"type":"ANSWER","uid":"u","err":"bad","data":4})");
  ASSERT_TRUE(both);
  EXPECT_EQ(both->err, "bad");
  EXPECT_EQ(both->data, AnyValue(4));

  auto encodedErr = parseText(R"({"type":"ANSWER","uid":"u","err":{"isError":true},"data":null})");
  ASSERT_TRUE(encodedErr);
  EXPECT_FALSE(encodedErr->err) << "an object err is dropped at parsing";

  auto inject = parseText(R"({"type":"INJECT","uid":"i","cmd":"x","args":1,"data":2})");
  ASSERT_TRUE(inject);
  EXPECT_EQ(buildText(*inject), R"({"type":"INJECT","uid":"i"})");

  auto log = parseText(R"({"type":"LOG","uid":"abc","data":"hi"})");
  ASSERT_TRUE(log);
  EXPECT_EQ(log->uid, "");
  auto debug = parseText(R"({"type":"DEBUG","uid":"abc"})");
  ASSERT_TRUE(debug);
  EXPECT_FALSE(debug->data);

  auto floatFrame = parseText(R"({"type":"INJECT","uid":"i","frameId":3.0})");
  ASSERT_TRUE(floatFrame);
  EXPECT_FALSE(floatFrame->frameId) << "3.0 is a float, not an integer";
  auto hugeFrame = parseText(R"({"type":"INJECT","uid":"i","frameId":18446744073709551615})");
  ASSERT_TRUE(hugeFrame);
  EXPECT_FALSE(hugeFrame->frameId) << "beyond signed 64 bits is not a frame id";
}

TEST(MessageBuildTest, KeyOrderAndAbsentFields) {
  Message ask{MessageType::ask, "u1", {}, {}, "tabs.query", {}, 0};
  EXPECT_EQ(buildText(ask), R"({"type":"ASK","uid":"u1","cmd":"tabs.query","frameId":0})")
      << "absent args leaves the key out";
  Message answer{MessageType::answer, "u2", "e", AnyValue(nullptr), {}, {}, {}};
  EXPECT_EQ(buildText(answer), R"({"type":"ANSWER","uid":"u2","err":"e","data":null})");
}

TEST(MessageBuildTest, RoundTripsKeepTheRecord) {
  std::vector<Message> messages = {
      {MessageType::ask, "a", {}, {}, "messaging", boost::json::parse(R"({"target":"api"})"), 7},
      {MessageType::answer, "b", {}, boost::json::parse(R"([1,"x",{"k":null}])"), {}, {}, {}},
      {MessageType::answer, "c", "failed", {}, {}, {}, -1},
      {MessageType::inject, "d", {}, {}, {}, {}, {}},
  };
  for (const auto& m : messages) {
    auto back = Message::parse(m.build());
    ASSERT_TRUE(back) << buildText(m);
    EXPECT_EQ(*back, m) << buildText(m);
  }
  Message log{MessageType::log, "lost", {}, AnyValue("text"), {}, {}, {}};
  auto back = Message::parse(log.build());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->uid, "") << "a log message loses its uid";
  EXPECT_EQ(back->data, log.data);
}

TEST(MessageTypeTest, RawValues) {
  for (auto t : {MessageType::ask, MessageType::answer, MessageType::inject, MessageType::debug,
                 MessageType::log}) {
    EXPECT_EQ(messageTypeFromRaw(toRaw(t)), t);
  }
  EXPECT_EQ(messageTypeFromRaw("Ask"), std::nullopt);
  EXPECT_EQ(messageTypeFromRaw(""), std::nullopt);
}

}  // namespace
}  // namespace appex
