// The benchmarks' command lines: "--name value" pairs, each into a setting
// of the program's own.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace korvel::bench {

class Options {
 public:
  // A whole number; once every argument is read, one below `least` (given
  // or the default) makes the command line wrong.
  Options& number(std::string name, int& target, int least = 1);
  Options& number(std::string name, size_t& target, size_t least = 1);
  // Any text; `shape` stands for it in the usage line ("cpu|rss", "PATH").
  Options& text(std::string name, std::string& target, std::string shape);
  // A value `take` checks and keeps: it returns what is wrong with it, or
  // nothing when it took it.
  Options& custom(std::string name, std::string shape,
                  std::function<std::string(const std::string& value)> take);

  // "[--runs N] [--only cpu|rss]", in the order the options were given.
  std::string usage() const;

  // Reads argv[1] on into the settings: empty when every argument was
  // taken, else what to tell the user (the usage line for an argument that
  // is no option).
  std::string read(int argc, const char* const* argv) const;
  // read(), or prints what is wrong to stderr and exits with status 2.
  void readOrExit(int argc, const char* const* argv) const;

 private:
  struct Option {
    std::string name;
    std::string shape;
    std::function<std::string(const std::string&)> take;
    std::function<bool()> inRange;  // checked after the last argument
  };
  std::vector<Option> options_;
};

}  // namespace korvel::bench
