#include <korvel/debug/KVRDebugLogsDataProvider.h>

#include <korvel/debug/KVRDebugLogEntry.h>
#include <korvel/platform/Env.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/UIEnv.h>

namespace korvel {

std::shared_ptr<KVRDebugLogsDataProvider> KVRDebugLogsDataProvider::make() {
  return std::shared_ptr<KVRDebugLogsDataProvider>(new KVRDebugLogsDataProvider());
}

void KVRDebugLogsDataProvider::addLogEntry(EntryPtr entry) {
  if (!entry) return;
  ui::uiEnv().mainQueue().async(
      [weak = weak_from_this(), entry = std::move(entry)]() mutable {
        auto self = weak.lock();
        if (!self) return;
        self->entries_.push_back(std::move(entry));
        if (auto delegate = self->delegate()) delegate->entryAddedToLog();
      });
}

void KVRDebugLogsDataProvider::clearLogEntries() { entries_.clear(); }

}  // namespace korvel
