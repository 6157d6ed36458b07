// NFD through ICU's normaliser, straight on the UTF-8 bytes.
#include <korvel/pageviews/internal/Normalization.h>

#include <limits>

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>

namespace korvel::pageviews::internal {

namespace {

const icu::Normalizer2* nfdNormalizer() {
  // ICU keeps one immutable instance per process; it is safe on any thread.
  static const icu::Normalizer2* const instance = [] {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* n = icu::Normalizer2::getNFDInstance(status);
    return U_SUCCESS(status) ? n : nullptr;
  }();
  return instance;
}

}  // namespace

std::optional<std::string> nfdOfWellFormedUTF8(std::string_view text) {
  // ICU's StringPiece is 32-bit.
  if (text.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return std::nullopt;
  const icu::Normalizer2* nfd = nfdNormalizer();
  if (nfd == nullptr) return std::nullopt;

  const icu::StringPiece source(text.data(), static_cast<int32_t>(text.size()));
  UErrorCode status = U_ZERO_ERROR;
  if (nfd->isNormalizedUTF8(source, status) && U_SUCCESS(status)) return std::string(text);

  std::string result;
  result.reserve(text.size() + text.size() / 2);
  icu::StringByteSink<std::string> sink(&result);
  status = U_ZERO_ERROR;
  nfd->normalizeUTF8(0, source, sink, nullptr, status);
  if (U_FAILURE(status)) return std::nullopt;
  return result;
}

}  // namespace korvel::pageviews::internal
