// What fuzzing found, kept found. Each case is the smallest form of an input
// a fuzz target failed on (the inputs themselves are in the targets' seed
// corpora, fuzz/corpus/<target>/regress-*).
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "api/http_request.h"
#include "host/json.h"
#include "host/message.h"
#include "platform/bundle.h"
#include "tabs/identifiers.h"

namespace appex {
namespace {

bool isUtf8(std::string_view s) {
  auto parsed = JSON::parse("[\"" + std::string(s) + "\"]");  // the parser validates UTF-8
  return parsed.has_value();
}

// Whether `result` can be sent to a page: its answer message stringifies
// into well-formed UTF-8.
bool sendable(const Result& result) {
  Message answer{MessageType::answer, "u", {}, {}, {}, {}, {}};
  if (result) {
    answer.data = *result;
  } else {
    answer.err = result.error().text;
  }
  auto text = JSON::stringify(AnyValue(answer.build()));
  return text && JSON::parse(*text).has_value();
}

// json_fuzz: "1e400" parsed as an infinity, which stringify cannot write.
TEST(FuzzRegressionTest, NumbersBeyondTheDoubleRangeDoNotParse) {
  EXPECT_FALSE(JSON::parse("[1e400]"));
  EXPECT_FALSE(JSON::parse("1e400", /*allowFragments=*/true));
  EXPECT_FALSE(JSON::parse(R"({"a":{"b":[-1e999]}})"));
  auto largest = JSON::parse("[1.7976931348623157e308, -1e308, 1e-400]");
  ASSERT_TRUE(largest) << "finite extremes (and underflow to zero) still parse";
  EXPECT_TRUE(JSON::stringify(*largest));
}

// The same number in an HTTP body: the answer could not be sent, so web
// code waited for its time-out. Now the body is text.
TEST(FuzzRegressionTest, AnHttpBodyWithAHugeNumberIsAnsweredAsText) {
  HttpRequestCompletion completion{std::optional<std::string>("[1e400]"), Dictionary{}, 200};
  Result answer = HttpRequest::buildAnswer(completion);
  ASSERT_TRUE(answer && *answer);
  EXPECT_EQ((**answer).at("data"), AnyValue("[1e400]"));
  EXPECT_TRUE(sendable(answer));
}

// http_answer_fuzz: a header in ISO-8859-1 (a filename with "é") made the
// answer's script text that is not UTF-8, which a web view cannot run.
TEST(FuzzRegressionTest, HeaderBytesThatAreNotUtf8AreReadAsLatin1) {
  HttpClientResult result;
  result.response = HttpResponseHead{200, "https://site.test/", {
      {"Content-Disposition", "attachment; filename=\"caf\xE9.txt\""},
      {"X-N\xE4me", "ok"},
      {"X-Utf8", "caf\xC3\xA9"},
  }};
  result.body = "ok";
  Result answer = HttpRequest::buildAnswer(HttpRequest::classify(std::move(result)));
  ASSERT_TRUE(answer && *answer);
  const auto& headers = (**answer).at("headers").as_object();
  EXPECT_EQ(headers.at("Content-Disposition"), AnyValue("attachment; filename=\"caf\xC3\xA9.txt\""));
  EXPECT_EQ(headers.at("X-N\xC3\xA4me"), AnyValue("ok"));
  EXPECT_EQ(headers.at("X-Utf8"), AnyValue("caf\xC3\xA9")) << "UTF-8 stays as it is";
  EXPECT_TRUE(sendable(answer));
}

TEST(FuzzRegressionTest, FailureTextsQuotingTheWireAreUtf8) {
  HttpClientResult transport;
  transport.error = HttpTransportError{7, "cannot reach h\xF6st \xFF"};
  Result failed = HttpRequest::buildAnswer(HttpRequest::classify(std::move(transport)));
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().text, "clientError(code 7: cannot reach h\xC3\xB6st \xC3\xBF)");
  EXPECT_TRUE(isUtf8(failed.error().text));

  HttpClientResult server;
  server.response = HttpResponseHead{404, "https://site.test/caf\xE9", {}};
  Result missing = HttpRequest::buildAnswer(HttpRequest::classify(std::move(server)));
  ASSERT_FALSE(missing);
  EXPECT_TRUE(isUtf8(missing.error().text)) << missing.error().text;
  EXPECT_TRUE(sendable(missing));
}

// bundle_fuzz: a key or string holding a NUL character made libplist fail an
// assertion and abort the process while the bundle was read.
class BundleNulTest : public ::testing::Test {
 protected:
  BundleNulTest() {
    bundle_ = std::filesystem::temp_directory_path() /
              ("appex-nul-" + std::to_string(::getpid()) + "-" + newUUIDString()) / "Ext.appex";
    std::filesystem::create_directories(bundle_ / "Contents");
  }
  ~BundleNulTest() override { std::filesystem::remove_all(bundle_.parent_path()); }

  std::expected<std::shared_ptr<Bundle>, std::string> load(std::string_view bytes) {
    std::ofstream(bundle_ / "Contents/Info.plist", std::ios::binary) << bytes;
    return Bundle::load(bundle_);
  }
  static std::string fromHex(std::string_view hex) {
    std::string out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
      out.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return out;
  }

  std::filesystem::path bundle_;
};

TEST_F(BundleNulTest, AKeyOrStringHoldingNulIsRefusedNotFatal) {
  const std::string xmlHead =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
      "<key>CFBundleIdentifier</key>";
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"XML string", xmlHead + std::string("<string>com.example\0ext</string></dict></plist>\n", 48)},
      // Binary: {"CFBundleIdentifier": "com.example.ext", "Kéy\0Nul": "v"}, the
      // key in UTF-16.
      {"binary key", fromHex("62706c6973743030d2010203045f1012434642756e646c654964656e74696669657267004b00e9007900"
                             "00004e0075006c5f100f636f6d2e6578616d706c652e6578745176080d22314300000000000001010000"
                             "00000000000500000000000000000000000000000045")},
      // Binary: {"CFBundleIdentifier": "com.éxample\0ext"} in UTF-16.
      {"binary string", fromHex("62706c6973743030d101025f1012434642756e646c654964656e7469666965726f100f0063006f006d00"
                                "2e00e900780061006d0070006c00650000006500780074080b2000000000000001010000000000000003"
                                "00000000000000000000000000000041")},
  };
  for (const auto& [what, bytes] : cases) {
    auto loaded = load(bytes);
    ASSERT_FALSE(loaded) << what;
    EXPECT_NE(loaded.error().find("holds a NUL character in a key or string"), std::string::npos)
        << what << ": " << loaded.error();
  }
  auto clean = load(xmlHead + "<string>com.example.ext</string><key>K\xC3\xA9y</key><string>v</string></dict></plist>\n");
  ASSERT_TRUE(clean) << clean.error();
  EXPECT_EQ((*clean)->bundleIdentifier(), "com.example.ext");
  EXPECT_EQ((*clean)->infoDictionary().at("K\xC3\xA9y"), AnyValue("v"));
}

}  // namespace
}  // namespace appex
