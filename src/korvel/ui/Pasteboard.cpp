#include <korvel/ui/Pasteboard.h>

namespace korvel::platform {

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
  MutexLock lock(mutex_);
  item_ = std::move(item);
  ++changeCount_;
}

void Pasteboard::clear() { setItem({}); }

std::optional<std::string> Pasteboard::string() const {
  auto data = dataForType(kPasteboardTypePlainText);
  if (!data) return std::nullopt;
  return std::string(data->begin(), data->end());
}

std::optional<Data> Pasteboard::dataForType(std::string_view type) const {
  MutexLock lock(mutex_);
  auto it = item_.find(type);
  if (it == item_.end()) return std::nullopt;
  return it->second;
}

Pasteboard::Item Pasteboard::item() const {
  MutexLock lock(mutex_);
  return item_;
}

uint64_t Pasteboard::changeCount() const {
  MutexLock lock(mutex_);
  return changeCount_;
}

}  // namespace korvel::platform
