#include "BenchOptions.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>

namespace korvel::bench {

namespace {

// The whole of text as a number of type T; false when it is not one or does
// not fit.
template <class T>
bool parseWhole(const std::string& text, T& out) {
  T value{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc() || stop != end) return false;
  out = value;
  return true;
}

template <class T>
std::function<std::string(const std::string&)> wholeNumberInto(const std::string& name, T& target) {
  return [name, &target](const std::string& value) -> std::string {
    if (parseWhole(value, target)) return {};
    return name + " takes a whole number, not " + value;
  };
}

}  // namespace

Options& Options::number(std::string name, int& target, int least) {
  auto take = wholeNumberInto(name, target);
  options_.push_back({std::move(name), "N", std::move(take), [&target, least] { return target >= least; }});
  return *this;
}

Options& Options::number(std::string name, size_t& target, size_t least) {
  auto take = wholeNumberInto(name, target);
  options_.push_back({std::move(name), "N", std::move(take), [&target, least] { return target >= least; }});
  return *this;
}

Options& Options::text(std::string name, std::string& target, std::string shape) {
  options_.push_back({std::move(name), std::move(shape),
                      [&target](const std::string& value) {
                        target = value;
                        return std::string();
                      },
                      nullptr});
  return *this;
}

Options& Options::custom(std::string name, std::string shape,
                         std::function<std::string(const std::string& value)> take) {
  options_.push_back({std::move(name), std::move(shape), std::move(take), nullptr});
  return *this;
}

std::string Options::usage() const {
  std::string line;
  for (const Option& o : options_) {
    if (!line.empty()) line += ' ';
    line += "[" + o.name + " " + o.shape + "]";
  }
  return line;
}

std::string Options::read(int argc, const char* const* argv) const {
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    const Option* option = nullptr;
    for (const Option& o : options_) {
      if (o.name == argument) option = &o;
    }
    if (option == nullptr) {
      return "usage: " + std::string(argc > 0 ? argv[0] : "") + " " + usage();
    }
    if (i + 1 >= argc) return option->name + " needs a value";
    if (std::string wrong = option->take(argv[++i]); !wrong.empty()) return wrong;
  }
  for (const Option& o : options_) {
    if (o.inRange && !o.inRange()) return "counts must be positive";
  }
  return {};
}

void Options::readOrExit(int argc, const char* const* argv) const {
  const std::string wrong = read(argc, argv);
  if (wrong.empty()) return;
  std::fprintf(stderr, "%s\n", wrong.c_str());
  std::exit(2);
}

}  // namespace korvel::bench
