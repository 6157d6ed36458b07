// The toolkit-neutral pieces the debug screens stand on: the table's update
// rules, rich text for the pasteboard and locale-aware sorting.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <korvel/debug/Locale.h>
#include <korvel/ui/Pasteboard.h>
#include <korvel/ui/RichText.h>
#include <korvel/ui/TableView.h>

using korvel::ui::TextColor;
using korvel::ui::FontWeight;
using korvel::ui::IndexPath;
using korvel::ui::Pasteboard;
using korvel::ui::StyledText;
using korvel::ui::TableCell;
using korvel::ui::TableRowAnimation;
using korvel::ui::TableView;
using korvel::ui::kPasteboardTypeRTF;
using korvel::ui::rtfFromStyledText;

namespace korvel::ui {
namespace {

// MARK: - Table

struct Rows : TableViewDataSource, TableViewDelegate {
  std::vector<size_t> counts{3};
  bool highlight = true;
  std::vector<IndexPath> selectedCalls, deselectedCalls;
  size_t numberOfSections() const override { return counts.size(); }
  size_t numberOfRowsInSection(size_t s) const override { return counts[s]; }
  TableCell cellForRow(IndexPath p) const override {
    TableCell cell;
    cell.text = std::to_string(p.section) + ":" + std::to_string(p.row);
    return cell;
  }
  bool shouldHighlightRow(IndexPath) const override { return highlight; }
  void didSelectRow(IndexPath p) override { selectedCalls.push_back(p); }
  void didDeselectRow(IndexPath p) override { deselectedCalls.push_back(p); }
};

struct TableFixture {
  Rows rows;
  TableView table;
  TableFixture() {
    table.setDataSource(&rows);
    table.setDelegate(&rows);
    table.reloadData();
  }
};

TEST(TableViewTest, ShowsTheCountsItLoadedUntilTold) {
  TableFixture f;
  f.rows.counts = {5};
  EXPECT_EQ(f.table.numberOfRowsInSection(0), 3u) << "the data changed, the table was not told";
  EXPECT_EQ(f.table.cellForRow({0, 4}).text, "") << "a row the table does not have";
  f.table.reloadData();
  EXPECT_EQ(f.table.numberOfRowsInSection(0), 5u);
  EXPECT_EQ(f.table.numberOfRowsInSection(1), 0u) << "one past the last section";
}

TEST(TableViewTest, InsertionsThatDoNotAddUpReloadInstead) {
  struct Case {
    const char* what;
    std::vector<size_t> after;
    std::vector<IndexPath> inserted;
    TableView::Update::Kind expected;
  };
  const Case cases[] = {
      {"one row at the top", {4}, {{0, 0}}, TableView::Update::Kind::Insert},
      {"one row at the end", {4}, {{0, 3}}, TableView::Update::Kind::Insert},
      {"two rows", {5}, {{0, 0}, {0, 1}}, TableView::Update::Kind::Insert},
      {"the data grew by two, one inserted", {5}, {{0, 0}}, TableView::Update::Kind::Reload},
      {"the data was cleared", {0}, {{0, 0}}, TableView::Update::Kind::Reload},
      {"past the end", {4}, {{0, 4}}, TableView::Update::Kind::Reload},
      {"a section that is not there", {4}, {{1, 0}}, TableView::Update::Kind::Reload},
      {"a section was added", {4, 1}, {{0, 0}}, TableView::Update::Kind::Reload},
  };
  for (const auto& c : cases) {
    TableFixture f;
    f.rows.counts = c.after;
    f.table.insertRows(c.inserted, TableRowAnimation::Automatic);
    EXPECT_EQ(f.table.lastUpdate().kind, c.expected) << c.what;
    EXPECT_EQ(f.table.numberOfRowsInSection(0), c.after[0]) << c.what;
  }
}

TEST(TableViewTest, SelectionMovesWithInsertedAndDeletedRows) {
  TableFixture f;
  f.table.setAllowsMultipleSelection(true);
  f.table.userTapRow({0, 0});
  f.table.userTapRow({0, 2});
  f.rows.counts = {4};
  f.table.insertRows({{0, 1}}, TableRowAnimation::None);
  EXPECT_EQ(f.table.indexPathsForSelectedRows(), (std::vector<IndexPath>{{0, 0}, {0, 3}}));
  f.rows.counts = {3};
  f.table.deleteRows({{0, 0}}, TableRowAnimation::None);
  EXPECT_EQ(f.table.indexPathsForSelectedRows(), (std::vector<IndexPath>{{0, 2}}));
  f.table.reloadData();
  EXPECT_TRUE(f.table.indexPathsForSelectedRows().empty());
}

TEST(TableViewTest, TapsSelectToggleOrAreRefused) {
  TableFixture f;
  f.table.userTapRow({0, 1});
  f.table.userTapRow({0, 2});
  EXPECT_EQ(f.table.indexPathsForSelectedRows(), (std::vector<IndexPath>{{0, 2}}))
      << "single selection replaces";
  f.table.setAllowsMultipleSelection(true);
  f.table.userTapRow({0, 0});
  f.table.userTapRow({0, 2});
  EXPECT_EQ(f.table.indexPathsForSelectedRows(), (std::vector<IndexPath>{{0, 0}}))
      << "a second tap deselects";
  EXPECT_EQ(f.rows.deselectedCalls, (std::vector<IndexPath>{{0, 2}}));
  f.table.userTapRow({0, 3});  // no such row
  EXPECT_EQ(f.rows.selectedCalls.size(), 3u);

  f.rows.highlight = false;
  f.table.userTapRow({0, 1});
  EXPECT_FALSE(f.table.isRowSelected({0, 1}));
  EXPECT_EQ(f.rows.selectedCalls.size(), 3u);
  EXPECT_TRUE(f.table.userLongPressRow({0, 1}).empty()) << "the delegate offers no menu";
}

// MARK: - Rich text

TEST(RichTextTest, EncodesRunsWithWeightSizeAndColour) {
  StyledText text("key", FontWeight::Bold, 12, TextColor::SystemBlue);
  text.append(" = value", FontWeight::Regular, 12);
  text.append("\nnext", FontWeight::Heavy, 14);
  EXPECT_EQ(rtfFromStyledText(text),
            "{\\rtf1\\ansi\\ansicpg1252\\deff0\\uc1\n"
            "{\\fonttbl{\\f0\\fswiss\\fcharset0 Helvetica;}}\n"
            "{\\colortbl;\\red0\\green122\\blue255;\\red0\\green0\\blue0;}\n"
            "{\\f0\\b\\fs24\\cf1 key}"
            "{\\f0\\b0\\fs24\\cf2  = value}"
            "{\\f0\\b\\fs28\\cf2 \\line\nnext}"
            "}");
}

TEST(RichTextTest, EscapesWhatRTFGivesMeaningAndEverythingOutsideASCII) {
  struct Case {
    const char* text;
    const char* body;
  };
  const Case cases[] = {
      {"a\\b", "a\\\\b"},
      {"{x}", "\\{x\\}"},
      {"tab\there", "tab\\tab here"},
      {"crlf\r\nend", "crlf\\line\nend"},
      {"caf\xC3\xA9", "caf\\u233?"},                       // é
      {"\xE2\x80\xAF", "\\u8239?"},                         // narrow no-break space
      {"\xEF\xBF\xBD", "\\u-3?"},                           // U+FFFD, above 32767
      {"\xF0\x9F\x98\x80", "\\u-10179?\\u-8704?"},          // an emoji: a surrogate pair
      {"bad\xFFz", "bad\\u-3?z"},                           // invalid byte
      {"cut\xE2\x82", "cut\\u-3?\\u-3?"},                   // truncated sequence
      {"\xC0\xAF", "\\u-3?\\u-3?"},                         // overlong "/"
      {"bell\x07", "bell"},
  };
  for (const auto& c : cases) {
    const std::string rtf = rtfFromStyledText(StyledText(c.text, FontWeight::Regular, 13));
    const std::string expected = std::string("{\\f0\\b0\\fs26\\cf1 ") + c.body + "}}";
    ASSERT_GE(rtf.size(), expected.size());
    EXPECT_EQ(rtf.substr(rtf.size() - expected.size()), expected) << c.text;
  }
  EXPECT_EQ(rtfFromStyledText(StyledText()),
            "{\\rtf1\\ansi\\ansicpg1252\\deff0\\uc1\n"
            "{\\fonttbl{\\f0\\fswiss\\fcharset0 Helvetica;}}\n{\\colortbl;}\n}");
}

// MARK: - Pasteboard

TEST(PasteboardTest, EachWriteReplacesTheContent) {
  Pasteboard pasteboard;
  pasteboard.setString("plain");
  const auto first = pasteboard.changeCount();
  pasteboard.setData(dataFromString("{\\rtf1}"), kPasteboardTypeRTF);
  EXPECT_GT(pasteboard.changeCount(), first);
  EXPECT_EQ(pasteboard.string(), std::nullopt) << "the plain text went with the old content";
  EXPECT_EQ(pasteboard.dataForType("public.rtf"), dataFromString("{\\rtf1}"));
  pasteboard.setString("");
  EXPECT_EQ(pasteboard.string(), "") << "an empty text is still a text";
}

// MARK: - Locale

TEST(LocaleTest, SortsAsTheLocaleDoesIgnoringCaseOnly) {
  setCurrentLocaleIdentifier("de_DE");
  EXPECT_EQ(sortedLocalizedCaseInsensitive({"b", "Z", "a", "A", "ä", "B10", "b2"}),
            (std::vector<std::string>{"A", "a", "ä", "b", "B10", "b2", "Z"}))
      << "letters ignore case; digits compare as characters, not numbers";
  EXPECT_EQ(localizedCaseInsensitiveCompare("ABC", "abc"), 0);
  EXPECT_LT(localizedCaseInsensitiveCompare("abc", "ABD"), 0);
  EXPECT_NE(localizedCaseInsensitiveCompare("a", "ä"), 0) << "accents count";
  setCurrentLocaleIdentifier("sv_SE");
  EXPECT_EQ(sortedLocalizedCaseInsensitive({"ä", "z"}), (std::vector<std::string>{"z", "ä"}))
      << "Swedish sorts ä after z";
  setCurrentLocaleIdentifier(std::nullopt);
}

// The POSIX locale (what LANG=C.UTF-8 gives ICU) orders by code point, upper
// case first; case must still not count there.
TEST(LocaleTest, CaseIsIgnoredInEveryLocale) {
  for (const char* locale : {"en_US_POSIX", "C", "POSIX", "c", "en_US", "de_DE", "ja_JP", "",
                             "no_such_locale"}) {
    SCOPED_TRACE(locale);
    setCurrentLocaleIdentifier(locale);
    EXPECT_EQ(sortedLocalizedCaseInsensitive({"Beta", "Apple_x", "b", "alpha", "ALPHA"}),
              (std::vector<std::string>{"ALPHA", "alpha", "Apple_x", "b", "Beta"}));
    EXPECT_EQ(localizedCaseInsensitiveCompare("Apple_x", "aPPLE_X"), 0);
    EXPECT_LT(localizedCaseInsensitiveCompare("alpha", "Apple_x"), 0);
    EXPECT_GT(localizedCaseInsensitiveCompare("Zeta", "beta"), 0);
  }
  setCurrentLocaleIdentifier(std::nullopt);
}

}  // namespace
}  // namespace korvel::ui
