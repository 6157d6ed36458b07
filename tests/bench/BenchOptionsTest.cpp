#include "support/BenchOptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace korvel::bench {
namespace {

struct Settings {
  int runs = 5;
  size_t calls = 100;
  int queued = 10;
  std::string only;
  int port = 0;

  bool operator==(const Settings&) const = default;
};

Settings with(void (*change)(Settings&)) {
  Settings s;
  change(s);
  return s;
}

struct Case {
  const char* name;
  std::vector<const char*> arguments;  // after the program's name
  std::string wrong;                   // what read() says; empty: taken
  Settings expected;                   // when taken
};

// Reads the arguments into a Settings of its own with the options every case
// shares; the read's answer and the settings.
std::pair<std::string, Settings> readArguments(const std::vector<const char*>& arguments) {
  Settings s;
  Options options;
  options.number("--runs", s.runs)
      .number("--calls", s.calls)
      .number("--queued", s.queued, 0)
      .text("--only", s.only, "a|b")
      .custom("--collector", "URL", [&s](const std::string& value) -> std::string {
        if (value.rfind("http://127.0.0.1:", 0) != 0) return "--collector takes a loopback URL, not " + value;
        s.port = std::stoi(value.substr(17));
        return {};
      });
  std::vector<const char*> argv{"bench"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::string wrong = options.read(static_cast<int>(argv.size()), argv.data());
  return {std::move(wrong), s};
}

TEST(BenchOptionsTest, ReadsEachArgumentOrSaysWhatIsWrong) {
  const std::string usage = "usage: bench [--runs N] [--calls N] [--queued N] [--only a|b] [--collector URL]";
  const Case cases[] = {
      {"nothing given keeps the defaults", {}, "", Settings{}},
      {"every option",
       {"--runs", "3", "--calls", "7", "--queued", "0", "--only", "b", "--collector", "http://127.0.0.1:8080"},
       "",
       with([](Settings& s) {
         s.runs = 3;
         s.calls = 7;
         s.queued = 0;
         s.only = "b";
         s.port = 8080;
       })},
      {"a later value wins", {"--runs", "2", "--runs", "9"}, "", with([](Settings& s) { s.runs = 9; })},
      {"a value may look like an option", {"--only", "--runs"}, "",
       with([](Settings& s) { s.only = "--runs"; })},
      {"a count over an int", {"--calls", "5000000000"}, "", with([](Settings& s) { s.calls = 5'000'000'000u; })},
      {"the last option without its value", {"--runs", "2", "--calls"}, "--calls needs a value", {}},
      {"an argument that is no option", {"--runs", "2", "--fast"}, usage, {}},
      {"a bare value", {"3"}, usage, {}},
      {"zero runs", {"--runs", "0"}, "counts must be positive", {}},
      {"zero calls", {"--calls", "0"}, "counts must be positive", {}},
      {"a negative count where zero is allowed", {"--queued", "-1"}, "counts must be positive", {}},
      {"a range is checked after every argument is read", {"--runs", "0", "--bogus"}, usage, {}},
      {"trailing letters", {"--runs", "5x"}, "--runs takes a whole number, not 5x", {}},
      {"an empty number", {"--runs", ""}, "--runs takes a whole number, not ", {}},
      {"a number too large for an int", {"--runs", "99999999999"},
       "--runs takes a whole number, not 99999999999", {}},
      {"a negative unsigned count", {"--calls", "-1"}, "--calls takes a whole number, not -1", {}},
      {"a custom option's refusal", {"--collector", "http://example.com:1"},
       "--collector takes a loopback URL, not http://example.com:1", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto [wrong, settings] = readArguments(c.arguments);
    EXPECT_EQ(wrong, c.wrong);
    if (c.wrong.empty()) {
      EXPECT_TRUE(settings == c.expected);
    }
  }
}

TEST(BenchOptionsTest, ExitsWithStatusTwoAndTheReasonOnStandardError) {
  int runs = 1;
  const char* argv[] = {"bench", "--runs", "0"};
  EXPECT_EXIT(Options().number("--runs", runs).readOrExit(3, argv), ::testing::ExitedWithCode(2),
              "^counts must be positive\n$");
}

}  // namespace
}  // namespace korvel::bench
