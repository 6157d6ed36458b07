// korvel-demo: a scripted host session against a beacon collector embedded in
// this process, on 127.0.0.1. It starts the library, launches, recognises a
// song, shows a few pages, taps a few things and goes to the background;
// the first beacon's road is printed step by step, then one line per beacon
// as the collector receives and checks it, then a summary.
//
// Exits 0 when every beacon the library submitted arrived, 1 when one was
// lost, 2 when the demo could not start.
//
//   korvel-demo [--keep] [--inspect]
//       --keep leaves the temporary store directory; --inspect keeps the
//       collector open after the session and prints the address of its
//       inspector page (until Ctrl-C)
//   korvel-demo --window [--keep]
//       the same host as a desktop application with buttons for its pages
//       and the debug overlay above it (F1 or ` toggles the overlay)
//   korvel-demo --window --screenshot PATH [--frames N] [--page P]
//       the scripted session, then the overlay on the beacon log (or on
//       page P, 0 to 5): draws N frames (5 by default), saves the last as a
//       PNG, prints one line per log row drawn ("rendered log row: <event>")
//       and exits as above (2 also when the screenshot could not be written)
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "demo/DemoSession.h"
#ifdef KORVEL_HAVE_OVERLAY
#include "demo/DemoWindow.h"
#endif

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: korvel-demo [--keep] [--inspect]\n"
               "       korvel-demo --window [--keep] [--screenshot PATH [--frames N] [--page P]]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool keepStore = false;
  bool inspect = false;
  bool window = false;
  std::optional<std::string> screenshot;
  int frames = 5;
  long page = 0;
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (std::strcmp(arg, "--keep") == 0) {
      keepStore = true;
    } else if (std::strcmp(arg, "--inspect") == 0) {
      inspect = true;
    } else if (std::strcmp(arg, "--window") == 0) {
      window = true;
    } else if (std::strcmp(arg, "--screenshot") == 0 && i + 1 < argc) {
      screenshot = argv[++i];
    } else if (std::strcmp(arg, "--frames") == 0 && i + 1 < argc) {
      char* end = nullptr;
      const long n = std::strtol(argv[++i], &end, 10);
      if (*end != 0 || n < 1 || n > 10000) return usage();
      frames = static_cast<int>(n);
    } else if (std::strcmp(arg, "--page") == 0 && i + 1 < argc) {
      char* end = nullptr;
      page = std::strtol(argv[++i], &end, 10);
      if (*end != 0 || page < 0 || page > 5) return usage();
    } else {
      return usage();
    }
  }
  if (inspect && window) {
    std::fprintf(stderr, "korvel-demo: --inspect is for the scripted session, not --window\n");
    return 2;
  }
  if (screenshot && !window) {
    std::fprintf(stderr, "korvel-demo: --screenshot needs --window\n");
    return 2;
  }

  if (window) {
#ifdef KORVEL_HAVE_OVERLAY
    korvel::demo::WindowOptions options;
    options.keepStore = keepStore;
    options.screenshotPath = screenshot;
    options.frames = frames;
    options.page = static_cast<size_t>(page);
    return korvel::demo::runWindowed(options);
#else
    (void)frames;
    (void)page;
    std::fprintf(stderr,
                 "korvel-demo: --window is not available: this build has no debug overlay "
                 "(it needs libimgui-dev, libsdl2-dev, OpenGL and libpng; run scripts/setup "
                 "and configure again with -DKORVEL_BUILD_OVERLAY=ON)\n");
    return 2;
#endif
  }

  if (inspect) korvel::demo::DemoSession::blockInterrupts();
  korvel::demo::DemoSession demo(keepStore, inspect);
  if (!demo.start()) return 2;
  demo.runScript();
  return demo.finish();
}
