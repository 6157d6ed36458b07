// The user-interface seam: just enough of a screen life cycle for the
// library's page-view tracking and debug screens, with no toolkit behind it.
//
// A host adapts its own toolkit here, in one place:
//  - imperative screens derive from ViewController (or one of its two
//    variants) and the host calls viewWillAppear / viewDidDisappear when its
//    toolkit shows and hides them;
//  - declarative screens are View values (a content callback plus event
//    handlers); the host keeps one ViewHost per on-screen identity and calls
//    appear / update / disappear on it as its toolkit renders.
//
// Everything here is main-thread only, like the toolkits it stands for.
#pragma once

#include <korvel/export.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <typeindex>
#include <typeinfo>
#include <utility>
#include <vector>

#include <korvel/foundation/KeyedArchive.h>

namespace korvel::ui {

// ---------------------------------------------------------------------------
// Imperative screens

// Where a screen's interface file lives.
struct KORVEL_EXPORT Bundle {
  std::string identifier;
  friend bool operator==(const Bundle&, const Bundle&) = default;
};

// The archive a toolkit restores a screen from (an interface file or saved
// state). ViewController reads the optional texts "nibName" and
// "nibBundle".
using Coder = KeyedUnarchiver;

// A screen's archive could not be read (a key of the wrong kind).
class KORVEL_EXPORT CoderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class KORVEL_EXPORT ViewController {
 public:
  // No interface file: the screen builds its views in code.
  ViewController() = default;
  ViewController(std::optional<std::string> nibName, std::optional<Bundle> bundle)
      : nibName_(std::move(nibName)), nibBundle_(std::move(bundle)) {}
  // As the archive describes the screen; throws CoderError when it cannot
  // be read. makeFromCoder() turns that into a null result.
  explicit ViewController(const Coder& coder);

  virtual ~ViewController() = default;
  ViewController(const ViewController&) = delete;
  ViewController& operator=(const ViewController&) = delete;

  const std::optional<std::string>& nibName() const { return nibName_; }
  const std::optional<Bundle>& nibBundle() const { return nibBundle_; }

  // Makes the screen's views once: loadView(), then viewDidLoad(). Showing
  // the screen loads them too.
  void loadViewIfNeeded();
  bool isViewLoaded() const { return viewLoaded_; }
  // After the views were made. Overrides call the base implementation first.
  virtual void viewDidLoad() {}

  // Called by the toolkit just before the screen is shown (after loading
  // its views) and just after it was removed. Overrides call the base
  // implementation first.
  virtual void viewWillAppear(bool animated);
  virtual void viewDidDisappear(bool animated);

  // From viewWillAppear until viewDidDisappear.
  bool isVisible() const { return visible_; }

  // What the screen is called where a toolkit shows it (a navigation bar, a
  // page title); empty until set. Screens that keep their own title
  // override it.
  virtual const std::string& title() const { return title_; }
  void setTitle(std::string title) { title_ = std::move(title); }

 protected:
  // Makes the views and connects them, as an interface file would; nothing
  // by default.
  virtual void loadView() {}

 private:
  std::optional<std::string> nibName_;
  std::optional<Bundle> nibBundle_;
  bool viewLoaded_ = false;
  bool visible_ = false;
  std::string title_;
};

// How a collection screen lays out its items.
struct KORVEL_EXPORT CollectionViewLayout {
  enum class ScrollDirection { Vertical, Horizontal };
  ScrollDirection scrollDirection = ScrollDirection::Vertical;
  double itemSpacing = 10;
  double lineSpacing = 10;
  friend bool operator==(const CollectionViewLayout&, const CollectionViewLayout&) = default;
};

class KORVEL_EXPORT CollectionViewController : public ViewController {
 public:
  explicit CollectionViewController(CollectionViewLayout layout) : layout_(layout) {}
  CollectionViewController() = default;
  CollectionViewController(std::optional<std::string> nibName, std::optional<Bundle> bundle)
      : ViewController(std::move(nibName), std::move(bundle)) {}
  explicit CollectionViewController(const Coder& coder) : ViewController(coder) {}

  const CollectionViewLayout& collectionViewLayout() const { return layout_; }

 private:
  CollectionViewLayout layout_;
};

enum class TableViewStyle { Plain, Grouped, InsetGrouped };

class KORVEL_EXPORT TableViewController : public ViewController {
 public:
  explicit TableViewController(TableViewStyle style) : style_(style) {}
  TableViewController() = default;
  TableViewController(std::optional<std::string> nibName, std::optional<Bundle> bundle)
      : ViewController(std::move(nibName), std::move(bundle)) {}
  explicit TableViewController(const Coder& coder) : ViewController(coder) {}

  TableViewStyle style() const { return style_; }

 private:
  TableViewStyle style_ = TableViewStyle::Plain;
};

// Restores a screen of class T from an archive, passing any further
// arguments after the coder: null when the archive cannot be read.
template <class T, class... Args>
std::unique_ptr<T> makeFromCoder(const Coder& coder, Args&&... args) {
  try {
    return std::make_unique<T>(coder, std::forward<Args>(args)...);
  } catch (const CoderError&) {
    return nullptr;
  }
}

// ---------------------------------------------------------------------------
// Declarative screens

// A value kept for a view's identity. Each description of a view makes a
// fresh State; once the description is hosted, the State reads and writes
// the storage its identity kept from the first description, so the initial
// values of later descriptions are ignored.
template <class T>
class State {
 public:
  // Every new identity starts from a copy of initial.
  explicit State(T initial) {
    auto kept = std::make_shared<const T>(std::move(initial));
    cell_ = std::make_shared<Cell>();
    cell_->storage = std::make_shared<T>(*kept);
    cell_->makeInitial = [kept] { return *kept; };
  }
  // The first identity starts from a value made now, every further identity
  // hosting the same description from one made for it (unique ids, for
  // instance).
  static State perIdentity(std::function<T()> makeInitial) {
    State state(makeInitial());
    state.cell_->makeInitial = std::move(makeInitial);
    return state;
  }

  const T& value() const { return *cell_->storage; }
  void set(T value) const { *cell_->storage = std::move(value); }

 private:
  friend class View;
  struct Cell {
    std::shared_ptr<T> storage;  // the hosting identity's, once hosted
    std::function<T()> makeInitial;
    bool claimed = false;  // storage was handed to a first identity
  };
  std::shared_ptr<Cell> cell_;
};

// A description of a piece of user interface: what to draw and what to do
// when it appears, disappears or a watched value changes. Modifiers return a
// modified copy; descriptions are cheap to copy and never change.
class KORVEL_EXPORT View {
 public:
  View() = default;
  // content draws the view with the host's toolkit (an ImGui window body,
  // for instance); it may be empty.
  explicit View(std::function<void()> content) : content_(std::move(content)) {}

  void render() const {
    if (content_) content_();
  }

  View onAppear(std::function<void()> action) const;
  View onDisappear(std::function<void()> action) const;

  // Calls action with the new value when a later description of the same
  // view carries a different value (never for the first one).
  template <class T>
  View onChange(T value, std::function<void(const T&)> action) const {
    View copy = *this;
    auto stored = std::make_shared<const T>(std::move(value));
    copy.changes_.push_back(ChangeWatch{
        std::type_index(typeid(T)), stored,
        [stored](const void* previous) { return !(*static_cast<const T*>(previous) == *stored); },
        [stored, action = std::move(action)] {
          if (action) action(*stored);
        }});
    return copy;
  }

  // Keeps state's storage with the view's identity (see State).
  template <class T>
  View state(const State<T>& state) const {
    View copy = *this;
    auto cell = state.cell_;
    copy.states_.push_back(StateSlot{
        std::type_index(typeid(T)), [cell](std::shared_ptr<void>& kept) {
          // A new identity never shares storage another identity kept.
          if (!kept) {
            kept = cell->claimed ? std::make_shared<T>(cell->makeInitial()) : cell->storage;
            cell->claimed = true;
          }
          cell->storage = std::static_pointer_cast<T>(kept);
        }});
    return copy;
  }

  // Applies a modifier: any value with `View body(const View& content) const`.
  template <class Modifier>
  View modifier(const Modifier& modifier) const {
    return modifier.body(*this);
  }

 private:
  friend class ViewHost;

  struct ChangeWatch {
    std::type_index type;
    std::shared_ptr<const void> value;
    std::function<bool(const void* previous)> differsFrom;
    std::function<void()> fire;
  };
  struct StateSlot {
    std::type_index type;
    std::function<void(std::shared_ptr<void>& kept)> bind;
  };

  std::function<void()> content_;
  std::vector<std::function<void()>> appearActions_;
  std::vector<std::function<void()>> disappearActions_;
  std::vector<ChangeWatch> changes_;
  std::vector<StateSlot> states_;
};

// One on-screen identity of a view: keeps its state and the values its
// change handlers last saw, for as long as the host keeps the ViewHost.
class KORVEL_EXPORT ViewHost {
 public:
  ViewHost() = default;
  ViewHost(const ViewHost&) = delete;
  ViewHost& operator=(const ViewHost&) = delete;

  // Takes a new description of this view (its body was evaluated again) and
  // runs the change handlers whose value differs from the last description.
  void update(const View& view);
  // Takes the description and, unless already visible, shows it: runs its
  // appear actions in the order they were added.
  void appear(const View& view);
  // Hides the view if visible: runs the current description's disappear
  // actions.
  void disappear();

  bool isVisible() const { return visible_; }
  // Draws the current description.
  void render() const {
    if (current_) current_->render();
  }

 private:
  struct KeptState {
    std::type_index type;
    std::shared_ptr<void> storage;
  };
  void bindStates(const View& view);

  std::shared_ptr<const View> current_;
  std::vector<KeptState> states_;
  bool visible_ = false;
};

// ---------------------------------------------------------------------------
// Alerts and modal presentation

enum class AlertStyle { Alert, ActionSheet };
enum class AlertActionStyle { Default, Cancel, Destructive };

struct KORVEL_EXPORT AlertAction {
  std::string title;
  AlertActionStyle style = AlertActionStyle::Default;
  std::function<void()> handler;  // may be empty: the button only closes the alert
};

// A message with buttons, shown modally by a Presenter.
struct KORVEL_EXPORT Alert {
  std::string title;
  std::string message;
  AlertStyle preferredStyle = AlertStyle::Alert;
  std::vector<AlertAction> actions;
};

// How a presented screen covers the one that presents it.
enum class ModalPresentationStyle { Automatic, FullScreen, OverFullScreen, FormSheet };

// The kind of device the interface runs on.
enum class UserInterfaceIdiom { Unspecified, Phone, Pad, Mac };

// A screen that presents others modally; the host implements it over its
// toolkit (a window stack, a dialog), tests with a recording double.
class KORVEL_EXPORT Presenter {
 public:
  virtual ~Presenter() = default;
  virtual void presentViewController(std::shared_ptr<ViewController> screen,
                                     ModalPresentationStyle style, bool animated,
                                     std::function<void()> completion) = 0;
  virtual void presentAlert(Alert alert, bool animated, std::function<void()> completion) = 0;
  // Dismisses the screen this presenter presented last.
  virtual void dismissViewController(bool animated, std::function<void()> completion) = 0;
  virtual UserInterfaceIdiom userInterfaceIdiom() const { return UserInterfaceIdiom::Unspecified; }
};

}  // namespace korvel::ui
