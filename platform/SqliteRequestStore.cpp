// The request store that keeps records in SQLite: callers append to the
// journal front as with the journal store; the writer thread moves each group
// of appended records into the database in one transaction (WAL, synchronous
// FULL, so a commit is the group sync) together with the deletes of finished
// requests, and removes journal segments once everything in them is moved.
// The same transaction records how far each segment was moved, so a restart
// replays only what had not been moved yet.
#include <fcntl.h>
#include <unistd.h>

#include <sqlite3.h>

#include <map>

#include "platform/RequestStore.h"

namespace korvel::platform {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDatabaseName = "requests.sqlite";

class Statement {
 public:
  Statement() = default;
  Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr); }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(Statement&& other) noexcept {
    std::swap(statement_, other.statement_);
    return *this;
  }
  sqlite3_stmt* get() const { return statement_; }
  explicit operator bool() const { return statement_ != nullptr; }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

class SqliteRequestStore final : public RequestStore {
 public:
  explicit SqliteRequestStore(const RequestStoreOptions& options) : front_(options) {}
  ~SqliteRequestStore() override { closeDatabase(); }

  bool open() {
    const fs::path& dir = front_.options().directory;
    std::error_code ec;
    if (!front_.lockDirectory()) return false;
    if (!openDatabase()) {
      // Unreadable: set the files aside and start an empty database.
      closeDatabase();
      for (const char* suffix : {"", "-wal", "-shm"}) {
        const fs::path file = dir / (std::string(kDatabaseName) + suffix);
        if (fs::exists(file, ec)) front_.setAside(file, lastError_);
      }
      if (!openDatabase()) {
        front_.logger().log(LogLevel::Error, "cannot open a request database: " + lastError_);
        return false;
      }
    }
    uint32_t highestEpoch = 0;
    {
      Statement maxId(db_, "SELECT max(id) FROM requests");
      if (maxId && sqlite3_step(maxId.get()) == SQLITE_ROW) {
        highestEpoch = static_cast<uint32_t>(
            static_cast<uint64_t>(sqlite3_column_int64(maxId.get(), 0)) >> 32);
      }
    }
    return front_.open(highestEpoch);
  }

  uint32_t epoch() const override { return front_.epoch(); }

  bool append(std::string_view frame, uint64_t id) override { return front_.append(frame, id); }

  std::vector<StoredRequest> recover() override {
    // How far each segment was already moved: replaying a moved record
    // would bring back one that was since delivered.
    std::map<uint32_t, uint64_t> moved;
    {
      Statement progress(db_, "SELECT segment, moved FROM progress");
      while (progress && sqlite3_step(progress.get()) == SQLITE_ROW) {
        moved[static_cast<uint32_t>(sqlite3_column_int64(progress.get(), 0))] =
            static_cast<uint64_t>(sqlite3_column_int64(progress.get(), 1));
      }
    }
    for (uint32_t number : front_.earlierSegments()) {
      auto contents = front_.readSegment(number);
      const fs::path path = front_.segmentPath(number);
      if (!contents.headerOk) {
        // Empty: a kill between creating the file and writing its header.
        if (contents.fileBytes == 0) {
          front_.removeSegmentFiles(number);
        } else {
          front_.setAside(path, "not a journal segment");
        }
        continue;
      }
      const auto done = moved.find(number);
      begin();
      for (size_t i = 0; i < contents.records.size(); ++i) {
        if (done == moved.end() || contents.offsets[i] >= done->second) insert(contents.records[i]);
      }
      forgetProgress(number);
      if (!commit()) continue;  // kept; tried again at the next start
      if (contents.tail == FrameStatus::Truncated || contents.tail == FrameStatus::Corrupt) {
        front_.setAside(path, std::string(contents.tail == FrameStatus::Truncated
                                              ? "torn record at its end"
                                              : "bad record checksum") +
                                  " at byte " + std::to_string(contents.validBytes));
      } else {
        front_.removeSegmentFiles(number);
      }
    }

    std::vector<StoredRequest> pending;
    Statement all(db_,
                  "SELECT id, created, priority, policy, retry, kind, payload FROM requests "
                  "ORDER BY id");
    while (all && sqlite3_step(all.get()) == SQLITE_ROW) {
      StoredRequest r;
      r.id = static_cast<uint64_t>(sqlite3_column_int64(all.get(), 0));
      r.createdMillis = sqlite3_column_int64(all.get(), 1);
      r.priority = sqlite3_column_int(all.get(), 2);
      r.configurationPolicy = sqlite3_column_int(all.get(), 3);
      r.retryCount = sqlite3_column_int(all.get(), 4);
      if (auto* kind = sqlite3_column_text(all.get(), 5)) {
        r.kind.assign(reinterpret_cast<const char*>(kind),
                      static_cast<size_t>(sqlite3_column_bytes(all.get(), 5)));
      }
      if (auto* payload = sqlite3_column_blob(all.get(), 6)) {
        r.payload.assign(static_cast<const char*>(payload),
                         static_cast<size_t>(sqlite3_column_bytes(all.get(), 6)));
      }
      pending.push_back(std::move(r));
    }
    stored_ = pending.size();
    return pending;
  }

  void sync(std::span<const uint64_t> finished) override {
    if (front_.activeBytes() >= front_.options().segmentBytes) front_.rotate();
    // Finishes the segments callers closed and keeps a spare ready; the
    // records themselves become durable by the commit below.
    front_.syncActive();
    auto drained = front_.drain();
    const auto& appended = drained.appended;
    closed_.insert(closed_.end(), drained.closed.begin(), drained.closed.end());
    if (appended.empty() && finished.empty() && closed_.empty()) return;

    begin();
    std::map<uint32_t, int> files;
    std::map<uint32_t, uint64_t> movedTo;
    std::string frame;
    for (const auto& a : appended) {
      movedTo[a.segment] = std::max(movedTo[a.segment], a.offset + a.length);
      auto [it, inserted] = files.try_emplace(a.segment, -1);
      if (inserted) it->second = ::open(front_.segmentPath(a.segment).c_str(), O_RDONLY | O_CLOEXEC);
      frame.resize(a.length);
      StoredRequest record;
      size_t offset = 0;
      if (it->second >= 0 &&
          ::pread(it->second, frame.data(), a.length, static_cast<off_t>(a.offset)) ==
              static_cast<ssize_t>(a.length) &&
          decodeFrame(frame, offset, record) == FrameStatus::Ok) {
        insert(record);
        ++stored_;
      }
    }
    for (auto& [number, fd] : files) {
      if (fd >= 0) ::close(fd);
    }
    for (uint64_t id : finished) {
      sqlite3_reset(delete_.get());
      sqlite3_bind_int64(delete_.get(), 1, static_cast<sqlite3_int64>(id));
      if (sqlite3_step(delete_.get()) == SQLITE_DONE && sqlite3_changes(db_) > 0 && stored_ > 0) {
        --stored_;
      }
    }
    for (const auto& [number, end] : movedTo) {
      sqlite3_reset(progress_.get());
      sqlite3_bind_int64(progress_.get(), 1, number);
      sqlite3_bind_int64(progress_.get(), 2, static_cast<sqlite3_int64>(end));
      sqlite3_step(progress_.get());
    }
    for (uint32_t number : closed_) forgetProgress(number);
    // Until the commit succeeds the journal still holds every record.
    if (!commit()) return;
    for (uint32_t number : closed_) front_.removeSegmentFiles(number);
    closed_.clear();
  }

  void compact() override {
    if (front_.activeBytes() > 16) front_.rotate();
    sync({});
    exec("PRAGMA incremental_vacuum");
    sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
  }

  StoreStats stats() const override { return {front_.bytesOnDisk(), stored_}; }

 private:
  bool exec(const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
      lastError_ = message != nullptr ? message : sqlite3_errmsg(db_);
      sqlite3_free(message);
      return false;
    }
    return true;
  }

  bool openDatabase() {
    const fs::path path = front_.options().directory / kDatabaseName;
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
      lastError_ = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
      return false;
    }
    // Freed pages are given back by compact(); must be set before the
    // first table exists.
    if (!exec("PRAGMA auto_vacuum=INCREMENTAL") || !exec("PRAGMA journal_mode=WAL") ||
        !exec("PRAGMA synchronous=FULL")) {
      return false;
    }
    {
      Statement check(db_, "PRAGMA quick_check");
      if (!check || sqlite3_step(check.get()) != SQLITE_ROW) {
        lastError_ = sqlite3_errmsg(db_);
        return false;
      }
      const auto* result = reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0));
      if (result == nullptr || std::string_view(result) != "ok") {
        lastError_ = std::string("integrity check: ") + (result != nullptr ? result : "?");
        return false;
      }
    }
    if (!exec("CREATE TABLE IF NOT EXISTS requests (id INTEGER PRIMARY KEY, created INTEGER NOT "
              "NULL, priority INTEGER NOT NULL, policy INTEGER NOT NULL, retry INTEGER NOT NULL, "
              "kind TEXT NOT NULL, payload BLOB NOT NULL)")) {
      return false;
    }
    if (!exec("CREATE TABLE IF NOT EXISTS progress (segment INTEGER PRIMARY KEY, moved INTEGER NOT "
              "NULL)")) {
      return false;
    }
    progress_ = Statement(db_, "INSERT OR REPLACE INTO progress (segment, moved) VALUES (?, ?)");
    forget_ = Statement(db_, "DELETE FROM progress WHERE segment = ?");
    insert_ = Statement(db_,
                        "INSERT OR IGNORE INTO requests (id, created, priority, policy, retry, "
                        "kind, payload) VALUES (?, ?, ?, ?, ?, ?, ?)");
    delete_ = Statement(db_, "DELETE FROM requests WHERE id = ?");
    if (!insert_ || !delete_ || !progress_ || !forget_) {
      lastError_ = sqlite3_errmsg(db_);
      return false;
    }
    return true;
  }

  void closeDatabase() {
    insert_ = Statement();
    delete_ = Statement();
    progress_ = Statement();
    forget_ = Statement();
    if (db_ != nullptr) sqlite3_close_v2(db_);
    db_ = nullptr;
  }

  void begin() { exec("BEGIN"); }

  bool commit() {
    if (exec("COMMIT")) return true;
    front_.logger().log(LogLevel::Error, "request database commit failed: " + lastError_);
    exec("ROLLBACK");
    return false;
  }

  void forgetProgress(uint32_t segment) {
    sqlite3_reset(forget_.get());
    sqlite3_bind_int64(forget_.get(), 1, segment);
    sqlite3_step(forget_.get());
  }

  void insert(const StoredRequest& r) {
    sqlite3_stmt* s = insert_.get();
    sqlite3_reset(s);
    sqlite3_bind_int64(s, 1, static_cast<sqlite3_int64>(r.id));
    sqlite3_bind_int64(s, 2, r.createdMillis);
    sqlite3_bind_int(s, 3, r.priority);
    sqlite3_bind_int(s, 4, r.configurationPolicy);
    sqlite3_bind_int(s, 5, r.retryCount);
    sqlite3_bind_text(s, 6, r.kind.data(), static_cast<int>(r.kind.size()), SQLITE_STATIC);
    sqlite3_bind_blob(s, 7, r.payload.data(), static_cast<int>(r.payload.size()), SQLITE_STATIC);
    sqlite3_step(s);
  }

  JournalFront front_;
  sqlite3* db_ = nullptr;
  Statement insert_;
  Statement delete_;
  Statement progress_;  // how far a journal segment was moved
  Statement forget_;
  std::string lastError_;
  std::vector<uint32_t> closed_;  // rotated segments, removed once moved
  uint64_t stored_ = 0;
};

}  // namespace

std::unique_ptr<RequestStore> openSqliteRequestStore(const RequestStoreOptions& options) {
  auto store = std::make_unique<SqliteRequestStore>(options);
  if (!store->open()) return nullptr;
  return store;
}

}  // namespace korvel::platform
