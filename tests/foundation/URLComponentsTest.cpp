#include <korvel/foundation/URLComponents.h>

#include <gtest/gtest.h>

#include <optional>
#include <tuple>
#include <utility>

#include "collector/FormDecoding.h"

namespace korvel {
namespace {

// The query exactly as it appears in the URL text.
std::string rawQuery(const std::string& url) {
  size_t q = url.find('?');
  if (q == std::string::npos) return "";
  size_t hash = url.find('#', q);
  return url.substr(q + 1, hash == std::string::npos ? std::string::npos : hash - q - 1);
}

const std::vector<URLQueryItem> kAwkwardItems = {
    {"plain", "value"},
    {"amp&name", "a&b"},
    {"eq=name", "x=y=z"},
    {"plus", "1+1 = 2"},
    {"hash", "#fragment?not"},
    {"percent", "100% %41 %zz %"},
    {"space name", " leading and trailing "},
    {"newline", "line1\nline2"},
    {"crlf", "line1\r\nline2"},
    {"unicode", "Ünïcödé 日本 🎵"},
    {"empty", ""},
    {"slashes", "/a/b?c;d,e"},
    {"quotes", "\"'<>`{}|\\^"},
    {"", "empty name"},
};

TEST(URLComponentsTest, QueryItemsSurviveAnIndependentFormDecoder) {
  auto url = URLComponents::parse("https://b.example.com/b/I/1.0/iPhone14%2C2?x=1");
  ASSERT_TRUE(url);
  url->setQueryItems(kAwkwardItems);
  const std::string text = url->string();

  // Read as a collecting server reads it, independently of the library.
  auto decoded = tools::formDecodeQuery(rawQuery(text));
  ASSERT_EQ(decoded.size(), kAwkwardItems.size()) << text;
  for (size_t i = 0; i < decoded.size(); ++i) {
    EXPECT_EQ(decoded[i].first, kAwkwardItems[i].name) << i;
    EXPECT_EQ(decoded[i].second, *kAwkwardItems[i].value) << i;
  }

  // Reading the text back gives the same items, and nothing leaked into the
  // fragment or path.
  auto reparsed = URLComponents::parse(text);
  ASSERT_TRUE(reparsed);
  EXPECT_EQ(reparsed->queryItems(), kAwkwardItems);
  EXPECT_EQ(std::tuple(reparsed->percentEncodedPath(), reparsed->string()),
            std::tuple("/b/I/1.0/iPhone14%2C2", text));
}

TEST(URLComponentsTest, TemplateGetsEventPathAndQuery) {
  auto url = URLComponents::parse("https://b.example.com/b/I/1.0/iPhone14%2C2?x=1");
  ASSERT_TRUE(url);
  EXPECT_EQ(std::tuple(url->scheme(), url->host(), url->port(), url->percentEncodedPath()),
            std::tuple("https", "b.example.com", std::nullopt, "/b/I/1.0/iPhone14%2C2"));
  EXPECT_EQ(url->queryItems(), (std::vector<URLQueryItem>{{"x", "1"}}));

  auto items = url->queryItems();
  url->appendPathComponent("userevent");
  EXPECT_EQ(url->percentEncodedPath(), "/b/I/1.0/iPhone14%2C2/userevent");

  std::vector<URLQueryItem> all = {{"t", "ev"}, {"n", "a b"}, {"flag", std::nullopt}};
  all.insert(all.end(), items.begin(), items.end());
  url->setQueryItems(all);
  EXPECT_EQ(url->string(),
            "https://b.example.com/b/I/1.0/iPhone14%2C2/userevent?t=ev&n=a%20b&flag&x=1");

  url->setQueryItems({});
  EXPECT_FALSE(url->percentEncodedQuery());
  EXPECT_EQ(url->string(), "https://b.example.com/b/I/1.0/iPhone14%2C2/userevent");
}

TEST(URLComponentsTest, QueryItemsParsing) {
  struct Case {
    const char* url;
    std::vector<URLQueryItem> items;
  };
  const Case cases[] = {
      {"http://h/p", {}},
      {"http://h/p?", {}},
      {"http://h/p?a", {{"a", std::nullopt}}},
      {"http://h/p?a=", {{"a", ""}}},
      {"http://h/p?a=1&b=2=3", {{"a", "1"}, {"b", "2=3"}}},
      {"http://h/p?a%20b=c%26d&e+f=%zz", {{"a b", "c&d"}, {"e+f", "%zz"}}},
      {"http://h/p?a=1&&b", {{"a", "1"}, {"", std::nullopt}, {"b", std::nullopt}}},
      {"http://h/p?q=%E6%97%A5#frag", {{"q", "日"}}},
  };
  for (const auto& c : cases) {
    auto url = URLComponents::parse(c.url);
    ASSERT_TRUE(url) << c.url;
    EXPECT_EQ(url->queryItems(), c.items) << c.url;
  }
}

TEST(URLComponentsTest, AppendPathComponent) {
  struct Case {
    const char* url;
    const char* component;
    const char* path;
  };
  const Case cases[] = {
      {"http://h", "a", "/a"},
      {"http://h/", "a", "/a"},
      {"http://h/base/", "a", "/base/a"},
      {"http://h/base", "a", "/base/a"},
      {"http://h/base", "a/b?c#d", "/base/a%2Fb%3Fc%23d"},
      {"http://h/base", "50% off", "/base/50%25%20off"},
      {"http://h/base", "k=v;x,y:z@w!$&'()*+", "/base/k=v;x,y:z@w!$&'()*+"},
      {"http://h/base", "é", "/base/%C3%A9"},
  };
  for (const auto& c : cases) {
    auto url = URLComponents::parse(c.url);
    ASSERT_TRUE(url) << c.url;
    url->appendPathComponent(c.component);
    EXPECT_EQ(url->percentEncodedPath(), c.path) << c.url << " + " << c.component;
  }
}

TEST(URLComponentsTest, AuthorityPartsArePreserved) {
  auto url = URLComponents::parse("https://user:pw@example.com:8443/a?b=c#frag");
  ASSERT_TRUE(url);
  EXPECT_EQ(std::tuple(url->host(), url->port()), std::tuple("example.com", 8443));
  url->appendPathComponent("d");
  url->setQueryItems({{"e", "f"}});
  EXPECT_EQ(url->string(), "https://user:pw@example.com:8443/a/d?e=f#frag");

  auto v6 = URLComponents::parse("http://[::1]:8080/x");
  ASSERT_TRUE(v6);
  EXPECT_EQ(std::tuple(v6->host(), v6->port()), std::tuple("[::1]", 8080));
}

// Text in, the URL's text out: characters that may not stand raw are
// encoded, valid URLs come back unchanged, and text that is not an absolute
// URL gives nothing.
TEST(URLComponentsTest, ParseThenPrint) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"http://h/a b", "http://h/a%20b"},
      {"http://h/a%2Cb%", "http://h/a%2Cb%25"},
      {"http://h/%zz%4", "http://h/%25zz%254"},
      {"http://h/\"<>\\^`{|}", "http://h/%22%3C%3E%5C%5E%60%7B%7C%7D"},
      {"http://h/ü?q=日 x", "http://h/%C3%BC?q=%E6%97%A5%20x"},
      {"http://h/p?a=\n", "http://h/p?a=%0A"},
      {"http://h/p#a b#c", "http://h/p#a%20b%23c"},
  };
  for (const auto& [in, out] : cases) {
    auto url = URLComponents::parse(in);
    EXPECT_EQ(url ? std::optional(url->string()) : std::nullopt, out) << in;
  }
  for (const char* text : {"https://b.example.com/b/I/1.0/iPhone14%2C2?x=1", "http://example.com",
                           "http://example.com/", "https://u@h:1/p/q;r=s?a=1&b&c=#f",
                           "http://h/p?a=b?c/d", "ftp://h/%7E/~user/!$&'()*+,;=:@",
                           "http://[fe80::1]/"}) {
    auto url = URLComponents::parse(text);
    EXPECT_EQ(url ? std::optional(url->string()) : std::nullopt, text);
  }
  for (const char* text : {"", "not a url", "/relative/path", "mailto:x", "http:/one-slash",
                           "://h/p", "1http://h", "ht tp://h", "http://h:port/", "http://h:99999/",
                           "http://h:-1/", "http://[::1/", "http://[::1]x/", "http://ho st/",
                           "http://h\x01/"}) {
    EXPECT_FALSE(URLComponents::parse(text)) << text;
  }
}

TEST(URLComponentsTest, PercentHelpers) {
  EXPECT_EQ(percentEncodeQueryComponent("aZ09-._~ !*'();:@&=+$,/?#[]%"),
            "aZ09-._~%20%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%23%5B%5D%25");
  EXPECT_EQ(percentEncodeQueryComponent(std::string_view("\xFF\0", 2)), "%FF%00");

  for (const auto& [in, out] : std::vector<std::pair<std::string, std::string>>{
           {"a%20b%2fc+d", "a b/c+d"}, {"%", "%"}, {"%4", "%4"}, {"%G1%41", "%G1A"},
           {"%00", std::string(1, '\0')}}) {
    EXPECT_EQ(percentDecode(in), out) << in;
  }

  for (int b = 0; b < 256; ++b) {
    const std::string s(1, static_cast<char>(b));
    EXPECT_EQ(percentDecode(percentEncodeQueryComponent(s)), s) << b;
  }
}

}  // namespace
}  // namespace korvel
