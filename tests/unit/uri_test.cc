// tern's URL, string and base64 helpers.
#include <gtest/gtest.h>

#include <stdexcept>

#include "tern/base64.h"
#include "tern/string_utils.h"
#include "tern/uri.h"
#include "utils/url_parser.h"

using tern::URI;

TEST(URI, UneditedUrlsPrintBackByteForByte) {
  for (const char* url : {"https://user@h.example:8443/a/b%20c;p?x=1&y=%2F&flag#frag", "http://h/",
                          "http://[::1]:9/p?q", "mailto:someone@example.com"}) {
    URI uri = URI::parseURL(url);
    ASSERT_TRUE(uri.isValid()) << url;
    EXPECT_EQ(uri.toString(), url);
  }
  URI uri = URI::parseURL("https://h.example:8443/a?x=1");
  EXPECT_EQ(uri.getScheme(), "https");
  EXPECT_EQ(uri.getHost(), "h.example");
  EXPECT_EQ(uri.getPath(), "/a");
}

TEST(URI, QueryFieldsDecodeAndEditsReencode) {
  URI uri = URI::parseURL("https://h/p?fcc_match_query=id&id=7&t=a+b%26c#top");
  EXPECT_EQ(uri.getQueryField("t"), "a b&c");
  EXPECT_EQ(uri.getQueryField("absent"), "");
  uri.clearQuery();
  EXPECT_EQ(uri.toString(), "https://h/p#top");
  uri.addQueryField("id", "7");
  uri.addQueryField("k", "a b&=/");
  EXPECT_EQ(uri.toString(), "https://h/p?id=7&k=a+b%26%3D%2F#top");
  EXPECT_EQ(URI::parseURL(uri.toString()).getQueryField("k"), "a b&=/");
}

TEST(URI, TextsThatAreNotAbsoluteUrlsAreInvalid) {
  for (const char* text : {"", "not a url", "/relative/path", "http://bad host/"}) {
    URI uri = URI::parseURL(text);
    EXPECT_FALSE(uri.isValid()) << text;
    EXPECT_EQ(uri.toString(), "");
  }
  velora::UrlParser parser("::::");
  EXPECT_FALSE(parser.isValid());
  EXPECT_EQ(parser.build(), "");
}

TEST(StringUtils, ContainsSplitAndEncode) {
  using namespace tern::string_utils;
  EXPECT_TRUE(contains("ws://h2/v1/api/", "/api/"));
  EXPECT_TRUE(contains("anything", ""));
  EXPECT_FALSE(contains("POST", "post"));
  EXPECT_EQ(split("a,b", ","), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(split("a,,b,", ","), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(split("", ",").empty());
  EXPECT_EQ(split("ability.api.extra", "."), (std::vector<std::string>{"ability", "api", "extra"}));
  EXPECT_EQ(urlEncode("[{\"a\":1}] ~"), "%5B%7B%22a%22%3A1%7D%5D+~");
}

TEST(Base64, RoundTripsEveryByteAndRejectsGarbage) {
  std::string all;
  for (int b = 0; b < 256; ++b)
    all += static_cast<char>(b);
  for (size_t n = 0; n < 8; ++n) {
    EXPECT_EQ(tern::base64::decode(tern::base64::encode(all.substr(0, n))), all.substr(0, n));
  }
  EXPECT_EQ(tern::base64::decode(tern::base64::encode(all)), all);
  EXPECT_EQ(tern::base64::encode("ab"), "YWI=");
  EXPECT_EQ(tern::base64::decode("WyJhIl0="), "[\"a\"]");
  EXPECT_EQ(tern::base64::decode("WyJhIl0"), "[\"a\"]");  // padding may be left out
  EXPECT_THROW(tern::base64::decode("not base64!"), std::invalid_argument);
  EXPECT_THROW(tern::base64::decode("QQ=A"), std::invalid_argument);
  EXPECT_THROW(tern::base64::decode("Q"), std::invalid_argument);
}
