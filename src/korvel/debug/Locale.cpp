#include <korvel/debug/Locale.h>

#include <unicode/ucal.h>
#include <unicode/ucol.h>
#include <unicode/udat.h>
#include <unicode/uloc.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <memory>

#include <korvel/foundation/internal/Mutex.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace {

struct Settings {
  Mutex mutex;
  std::optional<std::string> locale KORVEL_GUARDED_BY(mutex);
  std::optional<std::string> timeZone KORVEL_GUARDED_BY(mutex);
};

Settings& settings() {
  static Settings* s = new Settings;
  return *s;
}

std::u16string toUTF16(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  u_strFromUTF8WithSub(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()),
                       0xFFFD, nullptr, &status);
  std::u16string out(static_cast<size_t>(length), u'\0');
  status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(out.data(), length, nullptr, text.data(),
                       static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
  return U_SUCCESS(status) ? out : std::u16string();
}

std::string toUTF8(const UChar* text, int32_t length) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t needed = 0;
  u_strToUTF8WithSub(nullptr, 0, &needed, text, length, 0xFFFD, nullptr, &status);
  std::string out(static_cast<size_t>(needed), '\0');
  status = U_ZERO_ERROR;
  u_strToUTF8WithSub(out.data(), needed, nullptr, text, length, 0xFFFD, nullptr, &status);
  return U_SUCCESS(status) ? out : std::string();
}

UDateFormatStyle icuStyle(DateFormatStyle style) {
  switch (style) {
    case DateFormatStyle::None: return UDAT_NONE;
    case DateFormatStyle::Short: return UDAT_SHORT;
    case DateFormatStyle::Medium: return UDAT_MEDIUM;
    case DateFormatStyle::Long: return UDAT_LONG;
    case DateFormatStyle::Full: return UDAT_FULL;
  }
  return UDAT_NONE;
}

struct CollatorCloser {
  void operator()(UCollator* c) const { ucol_close(c); }
};
using Collator = std::unique_ptr<UCollator, CollatorCloser>;

Collator openSecondaryStrengthCollator(const char* locale) {
  UErrorCode status = U_ZERO_ERROR;
  Collator collator(ucol_open(locale, &status));
  if (U_FAILURE(status)) return nullptr;
  ucol_setStrength(collator.get(), UCOL_SECONDARY);
  return collator;
}

bool ignoresCase(const UCollator* collator) {
  return ucol_strcoll(collator, u"a", 1, u"A", 1) == UCOL_EQUAL;
}

// Case-insensitive and accent-sensitive: secondary strength. A locale whose
// rules make case a primary difference (the POSIX locale, which LANG=C gives
// ICU, orders by code point with all capitals first) is compared by the root
// rules instead, which ignore case at that strength.
Collator openCaseInsensitiveCollator() {
  Collator collator = openSecondaryStrengthCollator(currentLocaleIdentifier().c_str());
  if (collator && ignoresCase(collator.get())) return collator;
  return openSecondaryStrengthCollator("");
}

int compareWith(UCollator* collator, std::string_view a, std::string_view b) {
  if (collator) {
    UErrorCode status = U_ZERO_ERROR;
    const UCollationResult r =
        ucol_strcollUTF8(collator, a.data(), static_cast<int32_t>(a.size()), b.data(),
                         static_cast<int32_t>(b.size()), &status);
    if (U_SUCCESS(status)) return r == UCOL_LESS ? -1 : (r == UCOL_GREATER ? 1 : 0);
  }
  // Without a collator, plain byte order is still a total order.
  return a < b ? -1 : (b < a ? 1 : 0);
}

}  // namespace

std::string currentLocaleIdentifier() {
  {
    auto& s = settings();
    MutexLock lock(s.mutex);
    if (s.locale) return *s.locale;
  }
  return uloc_getDefault();
}

void setCurrentLocaleIdentifier(std::optional<std::string> identifier) {
  auto& s = settings();
  MutexLock lock(s.mutex);
  s.locale = std::move(identifier);
}

std::string currentTimeZoneIdentifier() {
  {
    auto& s = settings();
    MutexLock lock(s.mutex);
    if (s.timeZone) return *s.timeZone;
  }
  UChar zone[128];
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = ucal_getDefaultTimeZone(zone, 128, &status);
  if (U_FAILURE(status) || length <= 0 || length > 128) return "UTC";
  return toUTF8(zone, length);
}

void setCurrentTimeZoneIdentifier(std::optional<std::string> identifier) {
  auto& s = settings();
  MutexLock lock(s.mutex);
  s.timeZone = std::move(identifier);
}

std::string formatDate(double secondsSince1970, DateFormatStyle dateStyle,
                       DateFormatStyle timeStyle) {
  const std::string locale = currentLocaleIdentifier();
  const std::u16string zone = toUTF16(currentTimeZoneIdentifier());
  UErrorCode status = U_ZERO_ERROR;
  UDateFormat* format =
      udat_open(icuStyle(timeStyle), icuStyle(dateStyle), locale.c_str(), zone.data(),
                static_cast<int32_t>(zone.size()), nullptr, 0, &status);
  if (U_FAILURE(status)) return {};
  UChar buffer[256];
  const int32_t length =
      udat_format(format, secondsSince1970 * 1000.0, buffer, 256, nullptr, &status);
  udat_close(format);
  if (U_FAILURE(status) || length < 0 || length > 256) return {};
  return toUTF8(buffer, length);
}

int localizedCaseInsensitiveCompare(std::string_view a, std::string_view b) {
  Collator collator = openCaseInsensitiveCollator();
  return compareWith(collator.get(), a, b);
}

std::vector<std::string> sortedLocalizedCaseInsensitive(std::vector<std::string> texts) {
  Collator collator = openCaseInsensitiveCollator();
  std::sort(texts.begin(), texts.end(), [&](const std::string& a, const std::string& b) {
    const int r = compareWith(collator.get(), a, b);
    return r != 0 ? r < 0 : a < b;
  });
  return texts;
}

}  // namespace korvel
