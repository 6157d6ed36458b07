// Small widget states for the debug screens: what a switch, a text field, a
// button, a label and an activity indicator show, and the actions a user
// triggers on them. A host's renderer draws these and forwards the user's
// taps; tests inspect and drive them directly.
//
// Like the rest of the user interface, widgets are used on the main thread
// only.
#pragma once

#include <korvel/export.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace korvel::ui {

class KORVEL_EXPORT Switch {
 public:
  bool isOn() const { return on_; }
  // Programmatic change: no value-changed action.
  void setOn(bool on, bool animated = false) {
    on_ = on;
    (void)animated;
  }
  // The user flips the switch: toggles it and fires the value-changed action.
  void userToggle() {
    if (!enabled_) return;
    on_ = !on_;
    if (valueChanged) valueChanged();
  }
  bool isEnabled() const { return enabled_; }
  void setEnabled(bool enabled) { enabled_ = enabled; }

  std::function<void()> valueChanged;

 private:
  bool on_ = false;
  bool enabled_ = true;
};

class TextField;

// Answers the text field's questions (only the return key here).
class KORVEL_EXPORT TextFieldDelegate {
 public:
  virtual ~TextFieldDelegate() = default;
  // True lets the field process the return key.
  virtual bool textFieldShouldReturn(TextField& field) = 0;
};

class KORVEL_EXPORT TextField {
 public:
  const std::string& text() const { return text_; }
  void setText(std::string text) { text_ = std::move(text); }

  // Whether the field holds the keyboard.
  bool isFirstResponder() const { return firstResponder_; }
  void becomeFirstResponder() { firstResponder_ = true; }
  void resignFirstResponder() { firstResponder_ = false; }

  // The user presses return: the delegate's answer, true without delegate.
  bool userPressedReturn() {
    return delegate_ == nullptr || delegate_->textFieldShouldReturn(*this);
  }

  TextFieldDelegate* delegate() const { return delegate_; }
  void setDelegate(TextFieldDelegate* delegate) { delegate_ = delegate; }

 private:
  std::string text_;
  bool firstResponder_ = false;
  TextFieldDelegate* delegate_ = nullptr;  // not owned
};

class KORVEL_EXPORT Button {
 public:
  Button() = default;
  explicit Button(std::string title) : title_(std::move(title)) {}

  const std::string& title() const { return title_; }
  void setTitle(std::string title) { title_ = std::move(title); }
  bool isEnabled() const { return enabled_; }
  void setEnabled(bool enabled) { enabled_ = enabled; }
  bool isHidden() const { return hidden_; }
  void setHidden(bool hidden) { hidden_ = hidden; }
  // A symbol name for the button's image ("envelope", "play.fill"); empty
  // for a text-only button.
  const std::string& imageSystemName() const { return imageSystemName_; }
  void setImageSystemName(std::string name) { imageSystemName_ = std::move(name); }

  // The user taps the button: fires the action unless the button is
  // disabled or hidden. Returns whether the action ran.
  bool userTap() {
    if (!enabled_ || hidden_ || !action) return false;
    action();
    return true;
  }

  std::function<void()> action;

 private:
  std::string title_;
  std::string imageSystemName_;
  bool enabled_ = true;
  bool hidden_ = false;
};

class KORVEL_EXPORT Label {
 public:
  Label() = default;
  explicit Label(std::string text) : text_(std::move(text)) {}
  const std::string& text() const { return text_; }
  void setText(std::string text) { text_ = std::move(text); }

 private:
  std::string text_;
};

class KORVEL_EXPORT ActivityIndicator {
 public:
  bool isAnimating() const { return animating_; }
  void startAnimating() { animating_ = true; }
  void stopAnimating() { animating_ = false; }
  // Hidden while stopped (the common set-up of a spinner).
  bool isHidden() const { return hidesWhenStopped && !animating_; }

  bool hidesWhenStopped = true;

 private:
  bool animating_ = false;
};

// A screen's root view as far as gestures go: taps on empty areas of the
// screen go to its tap handlers, in the order they were added.
class KORVEL_EXPORT TapTarget {
 public:
  void addTapHandler(std::function<void()> handler) { handlers_.push_back(std::move(handler)); }
  // The user taps the view.
  void userTap() const {
    for (const auto& handler : handlers_) {
      if (handler) handler();
    }
  }
  size_t tapHandlerCount() const { return handlers_.size(); }

 private:
  std::vector<std::function<void()>> handlers_;
};

// Runs animations at once (a renderer interpolates towards the new state)
// and completion on the current Env's main queue after duration seconds.
KORVEL_EXPORT void animate(double duration, const std::function<void()>& animations,
             std::function<void()> completion);

}  // namespace korvel::ui
