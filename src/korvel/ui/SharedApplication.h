// The application object as far as leaving the application through a URL
// goes: openURL() hands a URL to whatever opens it (a browser, another
// application).
//
// What openURL() does is a replaceable implementation, as a method of a
// dynamic runtime is: the application may define its own (the host
// installs how it opens URLs with setOpenURLImplementation()), and without
// one it inherits the default, which opens nothing and answers false. Debug
// tools exchange the implementation at run time (see KVRStayInAppSwizzler);
// exchanging it back restores the former behaviour exactly.
//
// Any thread; an implementation runs outside the application's lock, so it
// may itself use the application.
#pragma once

#include <korvel/export.h>

#include <functional>
#include <memory>
#include <string>

namespace korvel::ui {

class KORVEL_EXPORT Application {
 public:
  // Answers whether the URL was handed on.
  using OpenURLImplementation = std::function<bool(const std::string& url)>;

  // The process's application object.
  static Application& shared();

  Application();
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // Opens url with the implementation in force.
  bool openURL(const std::string& url);

  // Whether the application defines openURL itself (rather than inheriting
  // the default).
  bool definesOpenURL() const;
  // The implementation in force: its own, else the inherited default.
  OpenURLImplementation openURLImplementation() const;
  // Defines (or redefines) the application's own implementation; an empty
  // one is ignored.
  void setOpenURLImplementation(OpenURLImplementation implementation);
  // Drops the application's own implementation; the default applies again.
  void removeOpenURLImplementation();
  // Puts implementation in as the application's own and hands back the one
  // in force before (the inherited default when it had none of its own).
  OpenURLImplementation exchangeOpenURLImplementation(OpenURLImplementation implementation);

  // The inherited behaviour: opens nothing.
  static bool defaultOpenURL(const std::string& url);

 private:
  // The application's own implementation and its lock.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace korvel::ui
