#include <korvel/overlay/ImGuiWindowHost.h>

#include <GL/gl.h>
#include <SDL.h>
#include <imgui.h>
#include <imgui_impl_opengl3.h>
#include <imgui_impl_sdl.h>

#include <cfloat>

#if defined(__SANITIZE_ADDRESS__)
#include <dlfcn.h>
#include <link.h>
#endif

#include <korvel/debug/KVRDebugMessageCenter.h>
#include <korvel/debug/KVRDebugOverlayWindow.h>
#include <korvel/overlay/Fonts.h>
#include <korvel/overlay/MouseRouting.h>
#include <korvel/overlay/OverlayChrome.h>
#include <korvel/platform/Env.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/Pasteboard.h>
#include <korvel/ui/ViewNode.h>
#include <korvel/ui/UIEnv.h>

namespace korvel::overlay {
namespace {

constexpr const char* kGlslVersion = "#version 130";
constexpr Uint64 kFrameMillis = 16;

// Mesa unloads its OpenGL driver (and what the driver loaded) when the
// display closes. Memory the driver keeps for the life of the process is
// then referenced only from unmapped globals, and LeakSanitizer reports it as
// leaked by an unknown module. Under LeakSanitizer every shared object loaded
// so far is pinned (never unloaded), so those references stay visible.
void pinLoadedSharedObjects() {
#if defined(__SANITIZE_ADDRESS__)
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void*) {
        if (info->dlpi_name != nullptr && info->dlpi_name[0] != '\0') {
          dlopen(info->dlpi_name, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
        }
        return 0;
      },
      nullptr);
#endif
}

// One ImGui context with the mouse as routed to it.
struct Layer {
  ImGuiContext* context = nullptr;
  bool platformReady = false;  // the SDL2 backend
  bool rendererReady = false;  // the OpenGL 3 backend
  FontSet fonts;
  ImVec2 mouse{-FLT_MAX, -FLT_MAX};
  bool down[3] = {};
  // Pressed since the last frame: a click shorter than a frame still
  // reaches ImGui as one frame of the button held.
  bool pressed[3] = {};

  bool anyDown() const { return down[0] || down[1] || down[2]; }
  void leave() {
    if (!anyDown()) mouse = ImVec2(-FLT_MAX, -FLT_MAX);
  }
};

int imguiButton(Uint8 sdlButton) {
  switch (sdlButton) {
    case SDL_BUTTON_LEFT: return 0;
    case SDL_BUTTON_RIGHT: return 1;
    case SDL_BUTTON_MIDDLE: return 2;
    default: return -1;
  }
}

}  // namespace

struct ImGuiWindowHost::Impl {
  Options options;
  SDL_Window* window = nullptr;
  SDL_GLContext gl = nullptr;
  bool videoInitialised = false;
  Layer application;
  Layer overlay;
  MouseRouter router;
  std::unique_ptr<OverlayRenderer> renderer;
  // What the overlay's ImGui wanted in its last frame.
  bool overlayPopupWantsMouse = false;
  bool overlayWantsKeyboard = false;
  bool applicationWantsText = false;
  uint64_t pasteboardChangeCount = 0;

  ~Impl() {
    KVRDebugOverlayWindow::setDefaultPresenter(nullptr);
    renderer.reset();
    for (Layer* layer : {&overlay, &application}) {
      if (layer->context == nullptr) continue;
      ImGui::SetCurrentContext(layer->context);
      if (layer->rendererReady) ImGui_ImplOpenGL3_Shutdown();
      if (layer->platformReady) ImGui_ImplSDL2_Shutdown();
      ImGui::DestroyContext(layer->context);
    }
    if (gl != nullptr) SDL_GL_DeleteContext(gl);
    if (window != nullptr) SDL_DestroyWindow(window);
    if (videoInitialised) SDL_QuitSubSystem(SDL_INIT_VIDEO);
  }

  bool makeLayer(Layer& layer) {
    layer.context = ImGui::CreateContext();
    ImGui::SetCurrentContext(layer.context);
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;  // nothing written to the working directory
    ImGui::StyleColorsDark();
    layer.fonts.loadIntoCurrentContext();
    layer.platformReady = ImGui_ImplSDL2_InitForOpenGL(window, gl);
    layer.rendererReady = layer.platformReady && ImGui_ImplOpenGL3_Init(kGlslVersion);
    return layer.rendererReady;
  }

  void setScreenSize() {
    int w = 0, h = 0;
    SDL_GetWindowSize(window, &w, &h);
    ui::Screen::setMainScreenSize({static_cast<double>(w), static_cast<double>(h)});
    if (auto shown = OverlayRenderer::visibleOverlayWindow()) {
      shown->setFrame(ui::Screen::mainScreenBounds());
    }
  }

  // Hands an event to one layer's ImGui backend.
  static void forward(Layer& layer, const SDL_Event& event) {
    ImGui::SetCurrentContext(layer.context);
    ImGui_ImplSDL2_ProcessEvent(&event);
  }

  Layer& layerFor(MouseLayer which) {
    return which == MouseLayer::Overlay ? overlay : application;
  }
  Layer& otherThan(const Layer& layer) { return &layer == &overlay ? application : overlay; }

  MouseLayer routeMouse(MouseEventKind kind, int button, int x, int y) {
    MouseEventContext context;
    context.overlayPopupWantsMouse = overlayPopupWantsMouse;
    if (auto shown = OverlayRenderer::visibleOverlayWindow()) {
      context.overlayHitsPoint =
          shown->takesTouchAt({static_cast<double>(x), static_cast<double>(y)});
    }
    return router.route(kind, button, context);
  }

  void handleMouse(const SDL_Event& event) {
    switch (event.type) {
      case SDL_MOUSEMOTION: {
        Layer& target = layerFor(
            routeMouse(MouseEventKind::Motion, -1, event.motion.x, event.motion.y));
        target.mouse = ImVec2(static_cast<float>(event.motion.x), static_cast<float>(event.motion.y));
        otherThan(target).leave();
        break;
      }
      case SDL_MOUSEBUTTONDOWN:
      case SDL_MOUSEBUTTONUP: {
        const int button = imguiButton(event.button.button);
        const bool down = event.type == SDL_MOUSEBUTTONDOWN;
        Layer& target = layerFor(routeMouse(
            down ? MouseEventKind::ButtonDown : MouseEventKind::ButtonUp, button, event.button.x,
            event.button.y));
        target.mouse = ImVec2(static_cast<float>(event.button.x), static_cast<float>(event.button.y));
        if (button >= 0) {
          target.down[button] = down;
          if (down) target.pressed[button] = true;
        }
        otherThan(target).leave();
        break;
      }
      case SDL_MOUSEWHEEL: {
        int x = 0, y = 0;
        SDL_GetMouseState(&x, &y);
        forward(layerFor(routeMouse(MouseEventKind::Wheel, -1, x, y)), event);
        break;
      }
      default:
        break;
    }
  }

  void toggleOverlay() {
    if (auto center = KVRDebugMessageCenter::defaultCenter()) center->toggleDebugViewVisibility();
  }

  // False when the window was closed.
  bool pollEvents() {
    bool open = true;
    SDL_Event event;
    while (SDL_PollEvent(&event)) {
      switch (event.type) {
        case SDL_QUIT:
          open = false;
          break;
        case SDL_MOUSEMOTION:
        case SDL_MOUSEBUTTONDOWN:
        case SDL_MOUSEBUTTONUP:
        case SDL_MOUSEWHEEL:
          if (options.mouseInput) handleMouse(event);
          break;
        case SDL_KEYDOWN: {
          const auto key = event.key.keysym.scancode;
          const bool typing = overlayWantsKeyboard || applicationWantsText;
          if (!event.key.repeat &&
              (key == SDL_SCANCODE_F1 || (key == SDL_SCANCODE_GRAVE && !typing))) {
            toggleOverlay();
            break;
          }
          forward(overlayWantsKeyboard ? overlay : application, event);
          break;
        }
        case SDL_TEXTINPUT:
          forward(overlayWantsKeyboard ? overlay : application, event);
          break;
        case SDL_KEYUP:
          // Both, so a key pressed in one layer is never left held in it.
          forward(application, event);
          forward(overlay, event);
          break;
        case SDL_WINDOWEVENT:
          if (event.window.event == SDL_WINDOWEVENT_SIZE_CHANGED) setScreenSize();
          if (event.window.event == SDL_WINDOWEVENT_LEAVE) {
            application.leave();
            overlay.leave();
          }
          if (event.window.event == SDL_WINDOWEVENT_CLOSE) open = false;
          forward(application, event);
          forward(overlay, event);
          break;
        default:
          forward(application, event);
          forward(overlay, event);
          break;
      }
    }
    return open;
  }

  void beginFrame(Layer& layer) {
    ImGui::SetCurrentContext(layer.context);
    ImGui_ImplOpenGL3_NewFrame();
    ImGui_ImplSDL2_NewFrame();
    // The backend read the mouse from SDL's global state; each layer sees
    // only what was routed to it.
    ImGuiIO& io = ImGui::GetIO();
    io.MousePos = layer.mouse;
    for (int i = 0; i < 3; ++i) {
      io.MouseDown[i] = layer.down[i] || layer.pressed[i];
      layer.pressed[i] = false;
    }
    ImGui::NewFrame();
  }

  void mirrorPasteboard() {
    auto& pasteboard = ui::Pasteboard::general();
    const uint64_t count = pasteboard.changeCount();
    if (count == pasteboardChangeCount) return;
    pasteboardChangeCount = count;
    if (auto text = pasteboard.string()) SDL_SetClipboardText(text->c_str());
  }
};

ImGuiWindowHost::ImGuiWindowHost(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
ImGuiWindowHost::~ImGuiWindowHost() = default;

std::unique_ptr<ImGuiWindowHost> ImGuiWindowHost::open(const Options& options,
                                                       std::string& error) {
  auto impl = std::make_unique<Impl>();
  impl->options = options;
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
    error = std::string("cannot reach a display: ") + SDL_GetError();
    return nullptr;
  }
  impl->videoInitialised = true;
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 0);
  SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
  SDL_GL_SetAttribute(SDL_GL_DEPTH_SIZE, 0);
  impl->window = SDL_CreateWindow(options.title.c_str(), SDL_WINDOWPOS_CENTERED,
                                  SDL_WINDOWPOS_CENTERED, options.width, options.height,
                                  SDL_WINDOW_OPENGL | SDL_WINDOW_RESIZABLE | SDL_WINDOW_SHOWN);
  if (impl->window == nullptr) {
    error = std::string("cannot open a window: ") + SDL_GetError();
    return nullptr;
  }
  impl->gl = SDL_GL_CreateContext(impl->window);
  if (impl->gl == nullptr) {
    error = std::string("no OpenGL 3 context: ") + SDL_GetError();
    return nullptr;
  }
  SDL_GL_MakeCurrent(impl->window, impl->gl);
  SDL_GL_SetSwapInterval(options.throttle ? 1 : 0);
  if (!impl->makeLayer(impl->application) || !impl->makeLayer(impl->overlay)) {
    error = "cannot set up ImGui's SDL2 and OpenGL 3 backends";
    return nullptr;
  }
  pinLoadedSharedObjects();
  impl->renderer = std::make_unique<OverlayRenderer>();
  KVRDebugOverlayWindow::setDefaultPresenter(impl->renderer->presenter());
  impl->pasteboardChangeCount = ui::Pasteboard::general().changeCount();
  impl->setScreenSize();
  return std::unique_ptr<ImGuiWindowHost>(new ImGuiWindowHost(std::move(impl)));
}

bool ImGuiWindowHost::frame(const std::function<void()>& drawApplication, Image* capture) {
  Impl& d = *impl_;
  const Uint64 started = SDL_GetTicks64();
  const bool open = d.pollEvents();
  ui::uiEnv().mainQueue().runPending();
  d.mirrorPasteboard();

  d.beginFrame(d.application);
  if (drawApplication) drawApplication();
  ImGui::Render();
  d.applicationWantsText = ImGui::GetIO().WantTextInput;

  d.beginFrame(d.overlay);
  const auto shown = OverlayRenderer::visibleOverlayWindow();
  if (shown) {
    d.renderer->draw(*shown, {static_cast<double>(width()), static_cast<double>(height())});
  }
  d.renderer->drawPopups();
  ImGui::Render();
  const ImGuiIO& overlayIO = ImGui::GetIO();
  d.overlayPopupWantsMouse =
      overlayIO.WantCaptureMouse &&
      ImGui::IsPopupOpen("", ImGuiPopupFlags_AnyPopupId | ImGuiPopupFlags_AnyPopupLevel);
  d.overlayWantsKeyboard = overlayIO.WantTextInput || (shown && overlayIO.WantCaptureKeyboard);

  int drawableWidth = 0, drawableHeight = 0;
  SDL_GL_GetDrawableSize(d.window, &drawableWidth, &drawableHeight);
  glViewport(0, 0, drawableWidth, drawableHeight);
  glClearColor(0.10f, 0.11f, 0.13f, 1.0f);
  glClear(GL_COLOR_BUFFER_BIT);
  for (Layer* layer : {&d.application, &d.overlay}) {
    ImGui::SetCurrentContext(layer->context);
    ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
  }
  if (capture != nullptr) *capture = readBackBuffer(drawableWidth, drawableHeight);
  SDL_GL_SwapWindow(d.window);

  if (d.options.throttle) {
    const Uint64 spent = SDL_GetTicks64() - started;
    if (spent < kFrameMillis) SDL_Delay(static_cast<Uint32>(kFrameMillis - spent));
  }
  return open;
}

int ImGuiWindowHost::width() const {
  int w = 0;
  SDL_GetWindowSize(impl_->window, &w, nullptr);
  return w;
}

int ImGuiWindowHost::height() const {
  int h = 0;
  SDL_GetWindowSize(impl_->window, nullptr, &h);
  return h;
}

OverlayRenderer& ImGuiWindowHost::overlay() { return *impl_->renderer; }

}  // namespace korvel::overlay
