#include <korvel/ui/UI.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <korvel/foundation/KeyedArchive.h>

namespace korvel::ui {
namespace {

std::optional<KeyedUnarchiver> archive(const std::function<void(KeyedArchiver&)>& fill) {
  KeyedArchiver archiver;
  fill(archiver);
  return KeyedUnarchiver::open(archiver.encodedData());
}

TEST(ViewControllerTest, ReadsItsInterfaceFileFromTheArchive) {
  auto full = archive([](KeyedArchiver& a) {
    a.encodeObject("nibName", std::string("Main"));
    a.encodeObject("nibBundle", std::string("com.korvel.app"));
  });
  ASSERT_TRUE(full);
  auto screen = makeFromCoder<TableViewController>(*full);
  ASSERT_NE(screen, nullptr);
  EXPECT_EQ(screen->nibName(), "Main");
  EXPECT_EQ(screen->nibBundle(), Bundle{"com.korvel.app"});

  auto empty = archive([](KeyedArchiver&) {});
  ASSERT_TRUE(empty);
  auto plain = makeFromCoder<ViewController>(*empty);
  ASSERT_NE(plain, nullptr);
  EXPECT_EQ(plain->nibName(), std::nullopt);
  EXPECT_EQ(plain->nibBundle(), std::nullopt);

  const std::vector<std::function<void(KeyedArchiver&)>> brokenArchives = {
      [](KeyedArchiver& a) { a.encodeInt("nibName", 1); },
      [](KeyedArchiver& a) { a.encodeBool("nibBundle", true); }};
  for (const auto& fill : brokenArchives) {
    auto broken = archive(fill);
    ASSERT_TRUE(broken);
    EXPECT_EQ(makeFromCoder<CollectionViewController>(*broken), nullptr);
    EXPECT_THROW(ViewController{*broken}, CoderError);
  }
}

TEST(ViewHostTest, AppearAndDisappearRunTheirActionsInOrderOnce) {
  std::vector<std::string> events;
  const View view = View()
                        .onAppear([&] { events.push_back("appear 1"); })
                        .onDisappear([&] { events.push_back("disappear 1"); })
                        .onAppear([&] { events.push_back("appear 2"); })
                        .onDisappear([&] { events.push_back("disappear 2"); });
  ViewHost host;
  host.disappear();  // never shown
  host.appear(view);
  host.appear(view);  // already visible
  EXPECT_TRUE(host.isVisible());
  host.disappear();
  host.disappear();
  EXPECT_EQ(events, (std::vector<std::string>{"appear 1", "appear 2", "disappear 1",
                                              "disappear 2"}));
}

TEST(ViewHostTest, OnChangeFiresOnlyForALaterDifferentValue) {
  std::vector<std::string> changes;
  auto describe = [&](int count, std::string title) {
    return View()
        .onChange<int>(count, [&](const int& v) { changes.push_back("count " + std::to_string(v)); })
        .onChange<std::string>(title, [&](const std::string& v) { changes.push_back("title " + v); });
  };
  ViewHost host;
  host.appear(describe(1, "a"));
  host.update(describe(1, "a"));
  host.update(describe(2, "a"));
  host.update(describe(2, "b"));
  host.update(describe(3, "c"));
  EXPECT_EQ(changes, (std::vector<std::string>{"count 2", "title b", "count 3", "title c"}));
}

TEST(ViewHostTest, StateLivesAsLongAsTheIdentity) {
  std::vector<int> seen;
  auto describe = [&](int initial) {
    State<int> counter(initial);
    return View().state(counter).onAppear([&seen, counter] {
      seen.push_back(counter.value());
      counter.set(counter.value() + 1);
    });
  };
  {
    ViewHost host;
    host.appear(describe(10));
    host.disappear();
    host.appear(describe(99));  // a later initial value is ignored
    host.disappear();
  }
  ViewHost fresh;  // a new identity starts over
  fresh.appear(describe(99));
  EXPECT_EQ(seen, (std::vector<int>{10, 11, 99}));
}

TEST(ViewHostTest, IdentitiesSharingADescriptionKeepSeparateState) {
  int made = 0;
  const auto state = State<int>::perIdentity([&made] { return ++made * 100; });
  std::vector<int> seen;
  const View view = View().state(state).onAppear([&seen, state] { seen.push_back(state.value()); });
  ViewHost first;
  ViewHost second;
  first.appear(view);
  second.appear(view);
  first.disappear();
  first.appear(view);
  EXPECT_EQ(seen, (std::vector<int>{100, 200, 100}));

  State<std::string> copied("x");
  const View other = View().state(copied);
  ViewHost a;
  ViewHost b;
  a.appear(other);
  copied.set("changed by a");
  b.appear(other);
  EXPECT_EQ(copied.value(), "x");  // b started from its own copy of the initial value
}

TEST(ViewHostTest, AStateSlotOfAnotherTypeStartsOver) {
  ViewHost host;
  State<int> number(5);
  host.appear(View().state(number));
  number.set(6);

  State<std::string> text("fresh");
  host.update(View().state(text));
  EXPECT_EQ(text.value(), "fresh");

  State<int> again(0);
  host.update(View().state(again));
  EXPECT_EQ(again.value(), 0);
}

TEST(ViewHostTest, HandlersMayUpdateTheirOwnHost) {
  ViewHost host;
  std::vector<int> changes;
  std::function<View(int)> describe = [&](int value) {
    return View().onChange<int>(value, [&](const int& v) {
      changes.push_back(v);
      if (v < 3) host.update(describe(v + 1));
    });
  };
  host.appear(describe(0));
  host.update(describe(1));
  EXPECT_EQ(changes, (std::vector<int>{1, 2, 3}));
}

}  // namespace
}  // namespace korvel::ui
