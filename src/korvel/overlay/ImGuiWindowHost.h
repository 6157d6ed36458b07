// A desktop window for a host application with the debug overlay above it:
// SDL2, an OpenGL 3 context and Dear ImGui.
//
// The window has two ImGui layers, each its own ImGui context: the
// application's, drawn by the host's callback, and the overlay's, drawn by
// OverlayRenderer from whatever the debug message center shows. The overlay
// layer is composited on top. Every mouse event goes to exactly one layer
// (MouseRouter: the overlay window's hit test, presses kept by the layer
// they started on, popups), so clicks on empty overlay areas reach the
// application; keys go to the overlay while one of its text fields has the
// keyboard.
//
// Each frame also pumps the Env's main queue, so the library's main-thread
// work (log appends, timers, completions) runs between frames on this
// thread, and mirrors the general pasteboard into the system clipboard.
//
// F1 toggles the overlay through the debug message center, and so does the
// backtick key while nobody is typing.
//
// Main thread only: make, use and destroy the host on the thread that runs
// the main queue.
#pragma once

#include <korvel/export.h>

#include <functional>
#include <memory>
#include <string>

#include <korvel/overlay/Screenshot.h>

namespace korvel::overlay {

class OverlayRenderer;

class KORVEL_EXPORT ImGuiWindowHost {
 public:
  struct Options {
    std::string title = "Korvel";
    int width = 1280;
    int height = 800;
    // Keeps frames at most 60 a second (off for screenshots, where frames
    // are drawn as fast as they can be).
    bool throttle = true;
    // Off: the mouse is ignored (screenshots do not depend on where the
    // pointer happens to be).
    bool mouseInput = true;
  };

  // Opens the window; null with the reason in error when there is no
  // display or no OpenGL 3.
  static std::unique_ptr<ImGuiWindowHost> open(const Options& options, std::string& error);
  ~ImGuiWindowHost();
  ImGuiWindowHost(const ImGuiWindowHost&) = delete;
  ImGuiWindowHost& operator=(const ImGuiWindowHost&) = delete;

  // Draws one frame: events, the main queue, the application's layer (the
  // callback runs with the application's ImGui context current), the
  // overlay's, then presents. With capture, the finished frame is read back
  // into it before it is presented. False once the user closed the window.
  bool frame(const std::function<void()>& drawApplication, Image* capture = nullptr);

  // The window's size in points (what hit testing and layout use).
  int width() const;
  int height() const;

  OverlayRenderer& overlay();

 private:
  struct Impl;
  explicit ImGuiWindowHost(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace korvel::overlay
