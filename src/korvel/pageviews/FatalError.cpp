#include <korvel/pageviews/FatalError.h>

#include <cstdio>
#include <cstdlib>

namespace korvel {

void fatalError(std::string_view message) {
  // Straight to stderr: the log sink belongs to an Env that may itself be in
  // the state that brought us here.
  std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace korvel
