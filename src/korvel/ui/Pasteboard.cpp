#include <korvel/ui/Pasteboard.h>

#include <korvel/foundation/internal/Mutex.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::ui {

struct Pasteboard::Impl {
  mutable Mutex mutex_;
  Item item_ KORVEL_GUARDED_BY(mutex_);
  uint64_t changeCount_ KORVEL_GUARDED_BY(mutex_) = 0;
};

Pasteboard::Pasteboard() : impl_(std::make_unique<Impl>()) {}

Pasteboard::~Pasteboard() = default;

Pasteboard& Pasteboard::general() {
  static Pasteboard* pasteboard = new Pasteboard;
  return *pasteboard;
}

void Pasteboard::setString(std::string_view text) {
  Item item;
  item.emplace(std::string(kPasteboardTypePlainText), dataFromString(text));
  setItem(std::move(item));
}

void Pasteboard::setData(Data data, std::string_view type) {
  Item item;
  item.emplace(std::string(type), std::move(data));
  setItem(std::move(item));
}

void Pasteboard::setItem(Item item) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.item_ = std::move(item);
  ++d.changeCount_;
}

void Pasteboard::clear() { setItem({}); }

std::optional<std::string> Pasteboard::string() const {
  auto data = dataForType(kPasteboardTypePlainText);
  if (!data) return std::nullopt;
  return std::string(data->begin(), data->end());
}

std::optional<Data> Pasteboard::dataForType(std::string_view type) const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  auto it = d.item_.find(type);
  if (it == d.item_.end()) return std::nullopt;
  return it->second;
}

Pasteboard::Item Pasteboard::item() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.item_;
}

uint64_t Pasteboard::changeCount() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.changeCount_;
}

}  // namespace korvel::ui
