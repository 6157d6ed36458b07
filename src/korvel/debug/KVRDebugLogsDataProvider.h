// The in-memory debug log: every entry added while debugging, oldest first,
// with no size limit and no eviction. It lives as long as the debug message
// center that made it.
//
// Threads: addLogEntry() may be called from any thread; it hops to the main
// queue, appends there and then tells the delegate. Everything else
// (logEntries, clearLogEntries, the delegate) is main-thread only, so the list
// is only ever touched on the main thread.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <vector>

namespace korvel {

class KVRDebugLogEntry;

class KORVEL_EXPORT KVRDebugLogsDataProviderDelegate {
 public:
  virtual ~KVRDebugLogsDataProviderDelegate() = default;
  // An entry was appended (it is the last of logEntries()).
  virtual void entryAddedToLog() = 0;
};

class KORVEL_EXPORT KVRDebugLogsDataProvider : public std::enable_shared_from_this<KVRDebugLogsDataProvider> {
 public:
  using EntryPtr = std::shared_ptr<const KVRDebugLogEntry>;

  // Owned through a shared pointer, so queued appends can tell whether the
  // provider still exists when the main queue runs them.
  static std::shared_ptr<KVRDebugLogsDataProvider> make();

  // Queues the append on the main queue; the delegate is told after the
  // append. A null entry is ignored. Any thread.
  void addLogEntry(EntryPtr entry);
  // Empties the log at once, without telling the delegate. Main thread.
  void clearLogEntries();
  // Main thread.
  const std::vector<EntryPtr>& logEntries() const { return entries_; }

  // Held weakly. Main thread.
  std::shared_ptr<KVRDebugLogsDataProviderDelegate> delegate() const { return delegate_.lock(); }
  void setDelegate(std::weak_ptr<KVRDebugLogsDataProviderDelegate> delegate) {
    delegate_ = std::move(delegate);
  }

 private:
  KVRDebugLogsDataProvider() = default;

  std::vector<EntryPtr> entries_;
  std::weak_ptr<KVRDebugLogsDataProviderDelegate> delegate_;
};

}  // namespace korvel
