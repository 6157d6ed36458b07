// The ImGui debug overlay on a real (virtual) display, an Xvfb the tests start
// themselves:
//  - `korvel-demo --window --screenshot` draws the beacon log: a PNG of the
//    window's size with a real picture in it, and log rows naming the
//    beacons the demo sent, newest first;
//  - mouse clicks reach the overlay only where it takes touches, and the
//    application everywhere else.
//
// Skipped when Xvfb is not installed or does not start. Under AddressSanitizer
// the demo runs with overlay-lsan.supp, and this program with the same list
// built in: SDL's D-Bus connection keeps a buffer until exit that
// LeakSanitizer would otherwise report as a leak of ours.
#include <SDL.h>
#include <fcntl.h>
#include <imgui.h>
#include <gtest/gtest.h>
#include <png.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <korvel/debug/KVRDebugMessageCenter.h>
#include <korvel/debug/KVRDebugOverlayViewController.h>
#include <korvel/debug/KVRDebugOverlayWindow.h>
#include <korvel/overlay/ImGuiWindowHost.h>
#include <korvel/overlay/OverlayChrome.h>
#include <korvel/platform/Env.h>
#include "support/TestEnv.h"

using korvel::ui::Point;

extern char** environ;

extern "C" const char* __lsan_default_suppressions() { return "leak:libdbus\n"; }

namespace {

using namespace std::chrono_literals;

constexpr int kWindowWidth = 1280;
constexpr int kWindowHeight = 800;

// Starts args[0] (looked up on PATH) with environment ("NAME=value"
// entries), its standard output, and its standard error too when quiet,
// going to the file output. Forked by hand rather than spawned: it must die
// with this process even when a test crashes, and must not hold the output
// pipe of whoever runs the tests (ctest waits for it to close). -1 when it
// could not be started.
pid_t launch(std::vector<std::string> args, std::vector<std::string> environment, const char* output,
             bool quiet) {
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  const int out = open(output, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const pid_t pid = out < 0 ? -1 : fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out, STDOUT_FILENO);
    if (quiet) dup2(out, STDERR_FILENO);
    execvpe(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  if (out >= 0) close(out);
  return pid;
}

// Waits for pid until the deadline; kills it when it is still running then.
// Its exit status, or nothing when it had to be killed.
std::optional<int> waitFor(pid_t pid, std::chrono::seconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (done < 0) return std::nullopt;
    if (std::chrono::steady_clock::now() > end) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return std::nullopt;
    }
    std::this_thread::sleep_for(50ms);
  }
}

// An Xvfb on a display it picks itself (-displayfd), stopped on destruction.
class Xvfb {
 public:
  // The display name (":N"), or nothing with the reason in why.
  std::optional<std::string> start(std::string& why) {
    why = "Xvfb is not installed or did not start";
    int fds[2];
    if (pipe(fds) != 0) return std::nullopt;
    fcntl(fds[0], F_SETFD, FD_CLOEXEC);  // Xvfb gets the write end alone
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) environment.emplace_back(*e);
    pid_ = launch({"Xvfb", "-displayfd", std::to_string(fds[1]), "-screen", "0", "1600x1000x24", "-nolisten",
                   "tcp"},
                  environment, "/dev/null", true);
    close(fds[1]);
    // Xvfb writes the display number once it accepts connections.
    std::string number;
    pollfd readable{fds[0], POLLIN, 0};
    const auto end = std::chrono::steady_clock::now() + 15s;
    while (pid_ > 0 && std::chrono::steady_clock::now() < end && number.find('\n') == std::string::npos) {
      if (poll(&readable, 1, 200) <= 0) continue;
      char buffer[32];
      const ssize_t n = read(fds[0], buffer, sizeof buffer);
      if (n <= 0) break;
      number.append(buffer, static_cast<size_t>(n));
    }
    close(fds[0]);
    if (number.find('\n') == std::string::npos) return std::nullopt;
    return ":" + number.substr(0, number.find('\n'));
  }

  ~Xvfb() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      if (!waitFor(pid_, 10s)) kill(pid_, SIGKILL);
    }
  }

 private:
  pid_t pid_ = -1;
};

struct Picture {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgb;
};

std::optional<Picture> readPng(const std::string& path) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0) return std::nullopt;
  image.format = PNG_FORMAT_RGB;
  Picture picture;
  picture.width = static_cast<int>(image.width);
  picture.height = static_cast<int>(image.height);
  picture.rgb.resize(PNG_IMAGE_SIZE(image));
  if (png_image_finish_read(&image, nullptr, picture.rgb.data(), 0, nullptr) == 0) {
    png_image_free(&image);
    return std::nullopt;
  }
  return picture;
}

TEST(OverlayScreenshotTest, TheOverlayDrawsTheBeaconLogOfTheDemoSession) {
  Xvfb xvfb;
  std::string why;
  const auto display = xvfb.start(why);
  if (!display) GTEST_SKIP() << why;

  const std::filesystem::path directory = KORVEL_SCREENSHOT_DIR;
  std::filesystem::create_directories(directory);
  const auto png = directory / "overlay-beacon-log.png";
  const auto output = directory / "overlay-beacon-log.txt";
  std::filesystem::remove(png);

  std::vector<std::string> environment = {"DISPLAY=" + *display,
                                          "LSAN_OPTIONS=suppressions=" KORVEL_LSAN_SUPPRESSIONS,
                                          "SDL_AUDIODRIVER=dummy"};
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    if (entry.rfind("DISPLAY=", 0) != 0 && entry.rfind("LSAN_OPTIONS=", 0) != 0 &&
        entry.rfind("XDG_DOCUMENTS_DIR=", 0) != 0) {
      environment.push_back(entry);
    }
  }
  const pid_t demo = launch({KORVEL_DEMO_PATH, "--window", "--screenshot", png.string(), "--frames", "4"},
                            environment, output.c_str(), false);
  ASSERT_GT(demo, 0);
  const auto exitCode = waitFor(demo, 180s);
  ASSERT_TRUE(exitCode.has_value()) << "korvel-demo did not finish";

  std::ifstream in(output);
  std::vector<std::string> sent;
  std::vector<std::string> rendered;
  const std::string renderedPrefix = "rendered log row: ";
  for (std::string line; std::getline(in, line);) {
    // "  #<n>  <event>  <parameters>  <verdict>", as the demo printed it.
    if (line.rfind("  #", 0) == 0) {
      std::istringstream fields(line);
      std::string number;
      std::string event;
      if (fields >> number >> event) sent.push_back(event);
    }
    if (line.rfind(renderedPrefix, 0) == 0) rendered.push_back(line.substr(renderedPrefix.size()));
  }
  EXPECT_EQ(*exitCode, 0) << "every beacon should arrive; see " << output;

  // The picture: the window's size, and far from one flat colour.
  const auto picture = readPng(png.string());
  ASSERT_TRUE(picture.has_value()) << png << " is not a PNG";
  EXPECT_EQ(picture->width, kWindowWidth);
  EXPECT_EQ(picture->height, kWindowHeight);
  std::set<uint32_t> colours;
  for (size_t i = 0; i + 2 < picture->rgb.size(); i += 3) {
    colours.insert(picture->rgb[i] << 16 | picture->rgb[i + 1] << 8 | picture->rgb[i + 2]);
  }
  EXPECT_GT(colours.size(), 64u) << "the screenshot looks blank";

  // The log shows the newest beacon first: the rows drawn are the last
  // beacons sent, in reverse.
  ASSERT_GE(sent.size(), 10u);
  ASSERT_GE(rendered.size(), 3u) << "too few log rows drawn; see " << output;
  ASSERT_LE(rendered.size(), sent.size());
  for (size_t i = 0; i < rendered.size(); ++i) {
    EXPECT_EQ(rendered[i], sent[sent.size() - 1 - i]) << "row " << i;
  }
}

class AllowDebugging : public korvel::KVRDebugMessageCenterDelegate {
 public:
  bool isDebugCenterAllowed() override { return true; }
};

// Drives the window with synthetic mouse events; the application layer is
// one big button that counts its clicks.
class RoutingHarness {
 public:
  explicit RoutingHarness(korvel::overlay::ImGuiWindowHost& host) : host_(host) {}

  void frames(int n) {
    for (int i = 0; i < n; ++i) host_.frame([this] { drawApplication(); });
  }

  void click(korvel::ui::Point point) {
    const int x = static_cast<int>(point.x);
    const int y = static_cast<int>(point.y);
    SDL_Event motion{};
    motion.type = SDL_MOUSEMOTION;
    motion.motion.x = x;
    motion.motion.y = y;
    SDL_PushEvent(&motion);
    frames(1);
    SDL_Event press{};
    press.type = SDL_MOUSEBUTTONDOWN;
    press.button.button = SDL_BUTTON_LEFT;
    press.button.state = SDL_PRESSED;
    press.button.clicks = 1;
    press.button.x = x;
    press.button.y = y;
    SDL_PushEvent(&press);
    frames(1);
    SDL_Event release = press;
    release.type = SDL_MOUSEBUTTONUP;
    release.button.state = SDL_RELEASED;
    SDL_PushEvent(&release);
    frames(2);
  }

  int applicationClicks() const { return applicationClicks_; }

 private:
  void drawApplication() {
    const ImGuiViewport* viewport = ImGui::GetMainViewport();
    ImGui::SetNextWindowPos(viewport->Pos);
    ImGui::SetNextWindowSize(viewport->Size);
    ImGui::Begin("application", nullptr, ImGuiWindowFlags_NoDecoration);
    if (ImGui::Button("everywhere", ImGui::GetContentRegionAvail())) ++applicationClicks_;
    ImGui::End();
  }

  korvel::overlay::ImGuiWindowHost& host_;
  int applicationClicks_ = 0;
};

korvel::ui::Point centreOf(const korvel::ui::Rect& r) {
  return {r.minX() + r.size.width / 2, r.minY() + r.size.height / 2};
}

TEST(OverlayScreenshotTest, ClicksReachTheOverlayOnlyWhereItTakesTouches) {
  using namespace korvel;
  Xvfb xvfb;
  std::string why;
  const auto display = xvfb.start(why);
  if (!display) GTEST_SKIP() << why;
  setenv("DISPLAY", display->c_str(), 1);

  korvel::testing::TestEnv env;
  platform::ScopedEnv scope(env);
  KVRDebugMessageCenter::setDebugMessageCenterDelegate(std::make_shared<AllowDebugging>());
  KVRDebugMessageCenter::defaultCenter()->startDebugging();
  {
    overlay::ImGuiWindowHost::Options options;
    options.width = 1000;
    options.height = 700;
    options.throttle = false;
    auto host = overlay::ImGuiWindowHost::open(options, why);
    ASSERT_NE(host, nullptr) << why;
    RoutingHarness harness(*host);
    auto center = KVRDebugMessageCenter::defaultCenter();
    center->presentDebugMenu();
    harness.frames(3);
    auto window = center->debugWindow();
    ASSERT_NE(window, nullptr);
    auto overlayController = window->debugOverlayViewController();
    ASSERT_NE(overlayController, nullptr);
    // The views follow what was drawn: the panel leaves the left of the
    // window to the application.
    const ui::Rect panel = overlayController->pageView()->frame();
    const ui::Rect passive = overlayController->passiveButtonView()->frame();
    ASSERT_GT(panel.minX(), 100);
    ASSERT_FALSE(passive.isEmpty());
    const ui::Point emptyOverlayArea{panel.minX() / 2, panel.minY() + 100};
    const ui::Point insidePanel{centreOf(panel).x, panel.maxY() - 40};

    harness.click(emptyOverlayArea);
    EXPECT_EQ(harness.applicationClicks(), 1) << "an empty overlay area lets the click through";
    harness.click(insidePanel);
    EXPECT_EQ(harness.applicationClicks(), 1) << "the panel takes its clicks";

    harness.click(centreOf(passive));
    ASSERT_TRUE(overlayController->passiveMode());
    harness.click(insidePanel);
    EXPECT_EQ(harness.applicationClicks(), 2) << "a passive panel lets clicks through";
    harness.click(centreOf(passive));
    ASSERT_FALSE(overlayController->passiveMode());

    const auto& buttons = host->overlay().buttonFrames();
    const auto close = buttons.find(&overlayController->closeButton());
    ASSERT_NE(close, buttons.end());
    harness.click(centreOf(close->second));
    EXPECT_FALSE(center->showingDebugMenu()) << "the close button hides the menu";
    harness.click(insidePanel);
    EXPECT_EQ(harness.applicationClicks(), 3) << "without the overlay everything is the application's";
  }
  KVRDebugMessageCenter::stopDebugging();
  KVRDebugMessageCenter::setDebugMessageCenterDelegate(nullptr);
}

}  // namespace
