#include <korvel/ui/UI.h>

namespace korvel::ui {

namespace {

std::optional<std::string> optionalText(const Coder& coder, std::string_view key) {
  if (!coder.containsValueForKey(key)) return std::nullopt;
  auto text = coder.decodeString(key);
  if (!text) throw CoderError("the archive's \"" + std::string(key) + "\" is not text");
  return text;
}

}  // namespace

ViewController::ViewController(const Coder& coder)
    : nibName_(optionalText(coder, "nibName")) {
  if (auto bundle = optionalText(coder, "nibBundle")) nibBundle_ = Bundle{std::move(*bundle)};
}

void ViewController::loadViewIfNeeded() {
  if (viewLoaded_) return;
  viewLoaded_ = true;
  loadView();
  viewDidLoad();
}

void ViewController::viewWillAppear(bool) {
  visible_ = true;
  loadViewIfNeeded();
}

void ViewController::viewDidDisappear(bool) { visible_ = false; }

View View::onAppear(std::function<void()> action) const {
  View copy = *this;
  copy.appearActions_.push_back(std::move(action));
  return copy;
}

View View::onDisappear(std::function<void()> action) const {
  View copy = *this;
  copy.disappearActions_.push_back(std::move(action));
  return copy;
}

void ViewHost::bindStates(const View& view) {
  // Slots are matched by position, as a view's structure fixes their order;
  // a slot whose type changed starts over with the new initial value.
  if (states_.size() > view.states_.size()) {
    states_.erase(states_.begin() + static_cast<std::ptrdiff_t>(view.states_.size()), states_.end());
  }
  for (size_t i = 0; i < view.states_.size(); ++i) {
    const auto& slot = view.states_[i];
    if (i == states_.size()) states_.push_back(KeptState{slot.type, nullptr});
    if (states_[i].type != slot.type) states_[i] = KeptState{slot.type, nullptr};
    slot.bind(states_[i].storage);
  }
}

void ViewHost::update(const View& view) {
  auto previous = std::exchange(current_, std::make_shared<const View>(view));
  // Held locally: a handler may hand this host yet another description.
  const auto next = current_;
  bindStates(*next);
  if (!previous) return;
  for (size_t i = 0; i < next->changes_.size() && i < previous->changes_.size(); ++i) {
    const auto& watch = next->changes_[i];
    const auto& old = previous->changes_[i];
    if (watch.type != old.type) continue;
    if (watch.differsFrom(old.value.get())) watch.fire();
  }
}

void ViewHost::appear(const View& view) {
  update(view);
  if (visible_) return;
  visible_ = true;
  const auto shown = current_;
  bindStates(*shown);
  for (const auto& action : shown->appearActions_) {
    if (action) action();
  }
}

void ViewHost::disappear() {
  if (!visible_ || !current_) return;
  visible_ = false;
  const auto shown = current_;
  bindStates(*shown);
  for (const auto& action : shown->disappearActions_) {
    if (action) action();
  }
}

}  // namespace korvel::ui
