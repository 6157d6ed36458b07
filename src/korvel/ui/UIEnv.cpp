#include <korvel/ui/UIEnv.h>

#include <atomic>

#include <korvel/ui/MainQueue.h>

namespace korvel::ui {

namespace {

class LinuxUIEnv : public UIEnv {
 public:
  MainQueue& mainQueue() override { return mainQueue_; }
  std::unique_ptr<AudioPlayer> makeAudioPlayer(const std::string& path) override {
    return makeDefaultAudioPlayer(path);
  }

 private:
  MainQueue mainQueue_;
};

std::atomic<UIEnv*> currentUIEnv{nullptr};

}  // namespace

UIEnv& UIEnv::Default() {
  // Never destroyed: screens may still post to the main queue while the
  // process exits.
  static LinuxUIEnv* instance = new LinuxUIEnv;
  return *instance;
}

UIEnv& uiEnv() {
  UIEnv* e = currentUIEnv.load(std::memory_order_acquire);
  return e != nullptr ? *e : UIEnv::Default();
}

ScopedUIEnv::ScopedUIEnv(UIEnv& replacement)
    : previous_(currentUIEnv.exchange(&replacement, std::memory_order_acq_rel)) {}

ScopedUIEnv::~ScopedUIEnv() { currentUIEnv.store(previous_, std::memory_order_release); }

}  // namespace korvel::ui
