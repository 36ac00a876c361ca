#include "utils/simple_url_parser.h"

#include <gtest/gtest.h>

#include <memory>

using velora::query_kv_t;
using velora::SimpleUrlParser;

namespace {

std::unique_ptr<SimpleUrlParser> parse(const std::string& url) {
  return std::unique_ptr<SimpleUrlParser>(SimpleUrlParser::parseUrl(url));
}

}  // namespace

TEST(SimpleUrlParser, SplitsEveryPartAndSkipsLeadingSpaces) {
  auto p = parse("  ws://h:8080/p/q?a=1&b=2#f");
  EXPECT_EQ(p->scheme, "ws");
  EXPECT_EQ(p->host, "h");
  EXPECT_EQ(p->port, "8080");
  EXPECT_EQ(p->path, "/p/q");
  EXPECT_EQ(p->query, "a=1&b=2");
  EXPECT_EQ(p->fragment, "f");
  EXPECT_EQ(p->getQuery("b"), "2");
}

TEST(SimpleUrlParser, UnusualShapesFollowTheCharacterRules) {
  auto noQuery = parse("ws://h/p#f");
  EXPECT_EQ(noQuery->path, "/p#f");
  EXPECT_EQ(noQuery->fragment, "");

  auto mailto = parse("mailto:x");
  EXPECT_EQ(mailto->scheme, "mailto");
  EXPECT_EQ(mailto->host, "");

  auto pathOnly = parse("/a/b");
  EXPECT_EQ(pathOnly->host, "a");
  EXPECT_EQ(pathOnly->path, "/b");

  auto hostThenQuery = parse("http://h?x=1");
  EXPECT_EQ(hostThenQuery->host, "h");
  EXPECT_EQ(hostThenQuery->path, "");
  EXPECT_EQ(hostThenQuery->query, "x=1");

  auto portThenQuery = parse("http://h:1?x");
  EXPECT_EQ(portThenQuery->port, "1");
  EXPECT_EQ(portThenQuery->query, "x");

  for (const char* nothing : {"", "   ", "no-colon-here"}) {
    auto p = parse(nothing);
    EXPECT_EQ(p->scheme + p->host + p->path + p->query, "") << nothing;
  }
}

TEST(SimpleUrlParser, QuerySplittingPerContainer) {
  std::map<std::string, std::string> map;
  std::vector<query_kv_t> list;
  EXPECT_EQ(SimpleUrlParser::parseKeyValueMap(&map, "a=1&a=2", false), 1);
  EXPECT_EQ(map["a"], "2");
  EXPECT_EQ(SimpleUrlParser::parseKeyValueList(&list, "a=1&a=2", false), 2);
  EXPECT_EQ(list[0].value, "1");
  EXPECT_EQ(list[1].value, "2");

  std::vector<query_kv_t> loose;
  SimpleUrlParser::parseKeyValueList(&loose, "=b&c=&&flag", false);
  ASSERT_EQ(loose.size(), 3u);
  EXPECT_EQ(loose[0].key, "");
  EXPECT_EQ(loose[0].value, "b");
  EXPECT_EQ(loose[1].key, "c");
  EXPECT_EQ(loose[1].value, "");
  EXPECT_EQ(loose[2].key, "flag");

  std::vector<query_kv_t> strict;
  SimpleUrlParser::parseKeyValueList(&strict, "=b&c=", true);
  EXPECT_TRUE(strict.empty());

  std::unordered_map<std::string, std::string> hash;
  EXPECT_EQ(SimpleUrlParser::parseKeyValueMap(&hash, "  ", false), -1);
  EXPECT_EQ(SimpleUrlParser::parseKeyValueMap(&hash, "", false), -1);
  EXPECT_EQ(SimpleUrlParser::parseKeyValueMap(&hash, " k=%41", true), 1);
  EXPECT_EQ(hash["k"], "%41");  // not decoded
}

TEST(SimpleUrlParser, PathSegments) {
  std::vector<std::string> segments;
  EXPECT_EQ(SimpleUrlParser::parsePath(&segments, "relative/x"), 0);
  EXPECT_EQ(SimpleUrlParser::parsePath(&segments, "/a//b/"), 2);
  EXPECT_EQ(segments, (std::vector<std::string>{"a", "b"}));
}

TEST(SimpleUrlParser, PercentCodec) {
  EXPECT_EQ(SimpleUrlParser::urlDecode("100%"), "");
  EXPECT_EQ(SimpleUrlParser::urlDecode("a%zzb"), "");
  EXPECT_EQ(SimpleUrlParser::urlDecode("a%4"), "");
  EXPECT_EQ(SimpleUrlParser::urlDecode("a+b%41%e4%b8%ad"), "a bA\xe4\xb8\xad");
  EXPECT_EQ(SimpleUrlParser::urlEncode("a b/~"), "a+b%2F%7E");
  EXPECT_EQ(SimpleUrlParser::urlEncode("*-._\xff"), "*-._%FF");
  for (int b = 0; b < 256; ++b) {
    std::string one(1, static_cast<char>(b));
    EXPECT_EQ(SimpleUrlParser::urlDecode(SimpleUrlParser::urlEncode(one)), one) << b;
  }
  EXPECT_EQ(SimpleUrlParser::toChar("7e"), '~');
  EXPECT_THROW(SimpleUrlParser::toChar("g0"), int);
}

TEST(SimpleUrlParser, BuildJoinsPartsWithQueryInKeyOrder) {
  auto p = parse("https://h:8443/p?z=1&a=2#frag");
  p->appendQuery("m", "x y");
  EXPECT_EQ(p->build(), "https://h:8443/p?a=2&m=x y&z=1");
  p->clearQuery();
  EXPECT_EQ(p->query, "z=1&a=2");
  EXPECT_EQ(p->build(), "https://h:8443/p");

  SimpleUrlParser bare;
  bare.path = "rel";
  EXPECT_EQ(bare.build(),
            "://"
            "/rel");
}
