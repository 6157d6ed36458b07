#include "collector/BeaconStore.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "collector/BeaconCollector.h"
#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/beacon/KVRConstants.h>

using korvel::foundation::internal::MutexLock;

namespace korvel::tools {

namespace {

using json = nlohmann::ordered_json;

constexpr const char* kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS beacons (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  received INTEGER NOT NULL,
  status INTEGER NOT NULL,
  target TEXT NOT NULL,
  event TEXT NOT NULL,
  type TEXT,
  sessionid TEXT,
  uuid TEXT,
  created REAL,
  inid TEXT,
  appversion TEXT,
  verdict TEXT NOT NULL,
  reasons TEXT NOT NULL,
  retryof INTEGER,
  params TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS beacons_event ON beacons(event, id);
CREATE INDEX IF NOT EXISTS beacons_type ON beacons(type, id);
CREATE INDEX IF NOT EXISTS beacons_event_type ON beacons(event, type);
CREATE INDEX IF NOT EXISTS beacons_session_span ON beacons(sessionid, id, received, verdict);
CREATE INDEX IF NOT EXISTS beacons_uuid ON beacons(uuid, id);
CREATE INDEX IF NOT EXISTS beacons_received ON beacons(received);
CREATE INDEX IF NOT EXISTS beacons_verdict ON beacons(verdict, id);
)SQL";

constexpr const char* kColumns =
    "id, received, status, target, event, type, sessionid, uuid, created, inid, appversion, "
    "verdict, reasons, retryof, params";

// A prepared statement that finalizes itself.
class Statement {
 public:
  Statement(sqlite3* db, const std::string& sql) {
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
      std::fprintf(stderr, "korvel-collector: SQL error: %s in %s\n", sqlite3_errmsg(db),
                   sql.c_str());
      stmt_ = nullptr;
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  explicit operator bool() const { return stmt_ != nullptr; }
  sqlite3_stmt* get() const { return stmt_; }

  void bind(int index, const std::optional<std::string>& text) {
    if (text) {
      sqlite3_bind_text(stmt_, index, text->data(), static_cast<int>(text->size()),
                        SQLITE_TRANSIENT);
    } else {
      sqlite3_bind_null(stmt_, index);
    }
  }
  void bind(int index, int64_t value) { sqlite3_bind_int64(stmt_, index, value); }
  void bind(int index, std::optional<double> value) {
    if (value) {
      sqlite3_bind_double(stmt_, index, *value);
    } else {
      sqlite3_bind_null(stmt_, index);
    }
  }
  bool step() { return stmt_ && sqlite3_step(stmt_) == SQLITE_ROW; }
  void reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }

  std::optional<std::string> text(int column) const {
    if (sqlite3_column_type(stmt_, column) == SQLITE_NULL) return std::nullopt;
    const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    return std::string(data, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
  }
  int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }
  bool isNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

bool exec(sqlite3* db, const char* sql, std::string* error) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
  if (error) *error = message ? message : sqlite3_errmsg(db);
  sqlite3_free(message);
  return false;
}

json nullable(const std::optional<std::string>& text) {
  return text ? json(*text) : json(nullptr);
}

json rowToJson(const Statement& row) {
  json beacon;
  beacon["id"] = row.integer(0);
  beacon["received"] = row.integer(1);
  beacon["status"] = row.integer(2);
  beacon["event"] = *row.text(4);
  beacon["type"] = nullable(row.text(5));
  beacon["sessionid"] = nullable(row.text(6));
  beacon["uuid"] = nullable(row.text(7));
  beacon["created"] =
      row.isNull(8) ? json(nullptr) : json(sqlite3_column_double(row.get(), 8));
  beacon["inid"] = nullable(row.text(9));
  beacon["appversion"] = nullable(row.text(10));
  beacon["verdict"] = *row.text(11);
  beacon["reasons"] = json::parse(*row.text(12), nullptr, false);
  beacon["retryof"] = row.isNull(13) ? json(nullptr) : json(row.integer(13));
  beacon["target"] = *row.text(3);
  beacon["params"] = json::parse(*row.text(14), nullptr, false);
  return beacon;
}

std::vector<std::string> splitPath(std::string_view path) {
  std::vector<std::string> segments;
  while (!path.empty()) {
    if (path.front() == '/') {
      path.remove_prefix(1);
      continue;
    }
    const size_t slash = path.find('/');
    segments.emplace_back(path.substr(0, slash));
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash);
  }
  return segments;
}

std::optional<int64_t> parseInteger(const std::string& text) {
  int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<double> parseSeconds(const std::optional<std::string>& text) {
  if (!text || text->empty()) return std::nullopt;
  double value = 0;
  const auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (ec != std::errc() || end != text->data() + text->size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

// The writer's statements, prepared once.
struct BeaconStore::Writes {
  explicit Writes(sqlite3* db)
      : earlier(db, "SELECT id, event, params FROM beacons WHERE uuid = ? ORDER BY id LIMIT 1"),
        sessionFirst(db,
                     "SELECT id, inid, appversion FROM beacons WHERE sessionid = ? AND "
                     "(inid IS NOT NULL OR appversion IS NOT NULL) ORDER BY id LIMIT 1"),
        insert(db,
               "INSERT INTO beacons (received, status, target, event, type, sessionid, uuid, "
               "created, inid, appversion, verdict, reasons, retryof, params) "
               "VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?)") {}
  Statement earlier;
  Statement sessionFirst;
  Statement insert;
};

std::optional<BeaconFilter> BeaconFilter::fromQuery(
    const std::multimap<std::string, std::string>& items, std::string* error) {
  BeaconFilter filter;
  auto fail = [&](const std::string& key, const std::string& value) {
    if (error) *error = "bad value for " + key + ": \"" + value + "\"";
    return std::nullopt;
  };
  for (const auto& [key, value] : items) {
    if (key == "event") {
      filter.event = value;
    } else if (key == "type") {
      filter.type = value;
    } else if (key == "session" || key == "sessionid") {
      filter.session = value;
    } else if (key == "uuid" || key == "clientbeaconuuid") {
      filter.uuid = value;
    } else if (key == "inid") {
      filter.inid = value;
    } else if (key == "appversion") {
      filter.appVersion = value;
    } else if (key == "verdict") {
      if (value != "good" && value != "retry" && value != "bad") return fail(key, value);
      filter.verdict = value;
    } else if (key == "good") {
      if (value != "true" && value != "false") return fail(key, value);
      filter.good = value == "true";
    } else if (key == "param") {
      const size_t eq = value.find('=');
      if (value.empty() || eq == 0) return fail(key, value);
      if (eq == std::string::npos) {
        filter.params.emplace_back(value, std::nullopt);
      } else {
        filter.params.emplace_back(value.substr(0, eq), value.substr(eq + 1));
      }
    } else if (key == "since" || key == "until" || key == "before" || key == "after" ||
               key == "limit") {
      const auto number = parseInteger(value);
      if (!number || *number < 0) return fail(key, value);
      if (key == "since") filter.sinceMs = *number;
      if (key == "until") filter.untilMs = *number;
      if (key == "before") filter.before = *number;
      if (key == "after") filter.after = *number;
      if (key == "limit") {
        if (*number < 1 || *number > kMaxLimit) return fail(key, value);
        filter.limit = static_cast<int>(*number);
      }
    } else {
      // Any other item selects on the parameter of that name.
      filter.params.emplace_back(key, value);
    }
  }
  return filter;
}

BeaconStore::BeaconStore(Options options) : options_(std::move(options)) {
  for (const auto& type : KVRBeaconFactory::beaconTypes()) {
    if (type.event) knownEvents_.insert(*type.event);
  }
  knownEvents_.insert(options_.webEvents.begin(), options_.webEvents.end());
  templateSegments_ = splitPath(options_.endpointTemplate);
}

std::shared_ptr<BeaconStore> BeaconStore::open(Options options, std::string* error) {
  std::shared_ptr<BeaconStore> store(new BeaconStore(std::move(options)));
  if (!store->prepare(error)) return nullptr;
  store->writer_ = std::thread([raw = store.get()] { raw->writerLoop(); });
  return store;
}

bool BeaconStore::prepare(std::string* error) {
  std::string name = ":memory:";
  if (!options_.file.empty()) {
    // Created private to the user before SQLite opens it.
    const int fd = ::open(options_.file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
      if (error) *error = options_.file.string() + ": " + std::strerror(errno);
      return false;
    }
    ::close(fd);
    name = options_.file.string();
  }
  if (sqlite3_open(name.c_str(), &db_) != SQLITE_OK) {
    if (error) *error = name + ": " + (db_ ? sqlite3_errmsg(db_) : "cannot open");
    return false;
  }
  if (!exec(db_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", error)) return false;
  if (!exec(db_, kSchema, error)) return false;
  writes_ = std::make_unique<Writes>(db_);
  Statement last(db_, "SELECT IFNULL(MAX(id), 0) FROM beacons");
  if (last.step()) {
    MutexLock lock(queueMutex_);
    lastID_ = last.integer(0);
  }
  return true;
}

BeaconStore::~BeaconStore() {
  {
    MutexLock lock(queueMutex_);
    stopping_ = true;
  }
  queueChanged_.signalAll();
  if (writer_.joinable()) writer_.join();
  writes_.reset();
  sqlite3_close(db_);
}

void BeaconStore::add(ArrivedRequest request) {
  {
    MutexLock lock(queueMutex_);
    queue_.push_back(std::move(request));
    ++queued_;
  }
  queueChanged_.signalAll();
}

void BeaconStore::sync() {
  MutexLock lock(queueMutex_);
  const uint64_t target = queued_;
  while (written_ < target && !stopping_) queueChanged_.wait(queueMutex_);
}

int64_t BeaconStore::lastID() const {
  MutexLock lock(queueMutex_);
  return lastID_;
}

void BeaconStore::waitNewerThan(int64_t id, std::chrono::milliseconds timeout) const {
  const auto until = std::chrono::steady_clock::now() + timeout;
  MutexLock lock(queueMutex_);
  while (lastID_ <= id && !stopping_) {
    if (!queueChanged_.waitUntil(queueMutex_, until)) return;
  }
}

void BeaconStore::writerLoop() {
  // Batches keep the commit cost per beacon small; a batch is bounded so
  // that queries get the connection between two.
  constexpr size_t kBatch = 2000;
  std::vector<ArrivedRequest> batch;
  for (;;) {
    {
      MutexLock lock(queueMutex_);
      while (queue_.empty() && !stopping_) queueChanged_.wait(queueMutex_);
      if (queue_.empty()) return;
      if (queue_.size() <= kBatch) {
        batch.swap(queue_);
      } else {
        batch.assign(std::make_move_iterator(queue_.begin()),
                     std::make_move_iterator(queue_.begin() + kBatch));
        queue_.erase(queue_.begin(), queue_.begin() + kBatch);
      }
    }
    int64_t last = 0;
    {
      MutexLock db(dbMutex_);
      exec(db_, "BEGIN", nullptr);
      for (const auto& request : batch) write(request);
      if (options_.maxBeacons > 0) {
        const std::string trim =
            "DELETE FROM beacons WHERE id <= (SELECT MAX(id) FROM beacons) - " +
            std::to_string(options_.maxBeacons);
        exec(db_, trim.c_str(), nullptr);
      }
      exec(db_, "COMMIT", nullptr);
      last = sqlite3_last_insert_rowid(db_);
    }
    {
      MutexLock lock(queueMutex_);
      written_ += batch.size();
      if (last > lastID_) lastID_ = last;
    }
    batch.clear();
    queueChanged_.signalAll();
  }
}

void BeaconStore::write(const ArrivedRequest& request) {
  const CollectedBeacon beacon = CollectedBeacon::decode(request.target);
  const auto uuid = beacon.value(KVRBeaconUUIDKey);
  const auto createdText = beacon.value(KVRBeaconCreationTimestampKey);
  const auto sessionID = beacon.value("sessionid");

  json params = json::array();
  for (const auto& [k, v] : beacon.params) params.push_back({k, v});
  const std::string paramsText =
      params.dump(-1, ' ', false, json::error_handler_t::replace);

  // The inid and app version at their places in the endpoint's path.
  std::optional<std::string> inid;
  std::optional<std::string> appVersion;
  const auto segments = splitPath(beacon.path);
  if (segments.size() == templateSegments_.size() + 1) {
    for (size_t i = 0; i < templateSegments_.size(); ++i) {
      if (templateSegments_[i] == "{inid}") inid = segments[i];
      if (templateSegments_[i] == "{appversion}") appVersion = segments[i];
    }
  }

  json reasons = json::array();
  std::string verdict = "good";
  std::optional<int64_t> retryOf;
  auto bad = [&](std::string reason) {
    reasons.push_back(std::move(reason));
    verdict = "bad";
  };

  if (knownEvents_.count(beacon.event) == 0) {
    bad("event \"" + beacon.event +
        "\" is not one the library makes (a web page's own event must be allowed)");
  }
  for (const auto key : {KVRBeaconUUIDKey, KVRBeaconCreationTimestampKey, std::string_view("sessionid")}) {
    const auto value = beacon.value(key);
    if (!value || value->empty()) bad("missing " + std::string(key));
  }
  for (const auto& escape : beacon.malformed) {
    bad("malformed percent-encoding \"" + escape + "\"");
  }
  const auto created = parseSeconds(createdText);
  if (createdText && !createdText->empty() && !created) {
    bad("clientcreationtimestamp \"" + *createdText + "\" is not a number of seconds");
  }
  if (created) {
    const double arrival = static_cast<double>(request.receivedMs) / 1000.0;
    if (*created > arrival + static_cast<double>(options_.maxFutureSkew.count())) {
      bad("created " + std::to_string(static_cast<int64_t>(*created - arrival)) +
          " s after it arrived (in the future)");
    } else if (*created < arrival - static_cast<double>(options_.maxAge.count())) {
      bad("created " + std::to_string(static_cast<int64_t>((arrival - *created) / 86400.0)) +
          " days before it arrived (too old)");
    }
  }
  if (uuid && !uuid->empty()) {
    Statement& earlier = writes_->earlier;
    earlier.reset();
    earlier.bind(1, uuid);
    if (earlier.step()) {
      const int64_t first = earlier.integer(0);
      if (earlier.text(1) == beacon.event && earlier.text(2) == paramsText) {
        retryOf = first;
        reasons.push_back("resend of #" + std::to_string(first));
        if (verdict == "good") verdict = "retry";
      } else {
        bad("uuid already received with other parameters (#" + std::to_string(first) + ")");
      }
    }
    earlier.reset();
  }
  if (sessionID && !sessionID->empty() && (inid || appVersion)) {
    Statement& first = writes_->sessionFirst;
    first.reset();
    first.bind(1, sessionID);
    if (first.step()) {
      const auto sessionINID = first.text(1);
      const auto sessionVersion = first.text(2);
      const std::string where = " (#" + std::to_string(first.integer(0)) + ")";
      if (inid && sessionINID && *inid != *sessionINID) {
        bad("inid " + *inid + " differs from the session's " + *sessionINID + where);
      }
      if (appVersion && sessionVersion && *appVersion != *sessionVersion) {
        bad("app version " + *appVersion + " differs from the session's " + *sessionVersion +
            where);
      }
    }
    first.reset();
  }

  Statement& insert = writes_->insert;
  insert.reset();
  insert.bind(1, request.receivedMs);
  insert.bind(2, static_cast<int64_t>(request.status));
  insert.bind(3, std::optional<std::string>(request.target));
  insert.bind(4, std::optional<std::string>(beacon.event));
  insert.bind(5, beacon.value(KVRBeaconTypeJSONKey));
  insert.bind(6, sessionID);
  insert.bind(7, uuid);
  insert.bind(8, created);
  insert.bind(9, inid);
  insert.bind(10, appVersion);
  insert.bind(11, std::optional<std::string>(verdict));
  insert.bind(12, std::optional<std::string>(reasons.dump()));
  if (retryOf) {
    insert.bind(13, *retryOf);
  } else {
    insert.bind(13, std::optional<std::string>());
  }
  insert.bind(14, std::optional<std::string>(paramsText));
  if (sqlite3_step(insert.get()) != SQLITE_DONE) {
    std::fprintf(stderr, "korvel-collector: cannot store %s: %s\n", request.target.c_str(),
                 sqlite3_errmsg(db_));
  }
}

json BeaconStore::select(const std::string& where, const std::vector<std::string>& bindings,
                         const std::string& tail) {
  sync();
  MutexLock db(dbMutex_);
  Statement query(db_, std::string("SELECT ") + kColumns + " FROM beacons" +
                           (where.empty() ? "" : " WHERE " + where) + " " + tail);
  for (size_t i = 0; i < bindings.size(); ++i) {
    query.bind(static_cast<int>(i + 1), std::optional<std::string>(bindings[i]));
  }
  json rows = json::array();
  while (query.step()) rows.push_back(rowToJson(query));
  return rows;
}

namespace {

// The WHERE clause of a filter and its bound values.
std::pair<std::string, std::vector<std::string>> whereClause(const BeaconFilter& filter) {
  std::vector<std::string> terms;
  std::vector<std::string> bindings;
  auto equal = [&](const char* column, const std::optional<std::string>& value) {
    if (!value) return;
    terms.push_back(std::string(column) + " = ?");
    bindings.push_back(*value);
  };
  equal("event", filter.event);
  equal("type", filter.type);
  equal("sessionid", filter.session);
  equal("uuid", filter.uuid);
  equal("inid", filter.inid);
  equal("appversion", filter.appVersion);
  equal("verdict", filter.verdict);
  if (filter.good) terms.push_back(*filter.good ? "verdict != 'bad'" : "verdict = 'bad'");
  for (const auto& [key, value] : filter.params) {
    if (value) {
      terms.push_back(
          "EXISTS (SELECT 1 FROM json_each(params) p WHERE p.value->>0 = ? AND p.value->>1 = ?)");
      bindings.push_back(key);
      bindings.push_back(*value);
    } else {
      terms.push_back("EXISTS (SELECT 1 FROM json_each(params) p WHERE p.value->>0 = ?)");
      bindings.push_back(key);
    }
  }
  auto number = [&](const char* term, const std::optional<int64_t>& value) {
    if (value) terms.push_back(std::string(term) + std::to_string(*value));
  };
  number("received >= ", filter.sinceMs);
  number("received < ", filter.untilMs);
  number("id < ", filter.before);
  number("id > ", filter.after);
  std::string where;
  for (const auto& term : terms) where += (where.empty() ? "" : " AND ") + term;
  return {where, bindings};
}

}  // namespace

json BeaconStore::list(const BeaconFilter& filter) {
  const auto [where, bindings] = whereClause(filter);
  const bool oldestFirst = filter.after.has_value();
  // One more than asked tells whether another page follows.
  json rows = select(where, bindings,
                     std::string("ORDER BY id ") + (oldestFirst ? "ASC" : "DESC") + " LIMIT " +
                         std::to_string(filter.limit + 1));
  json next = nullptr;
  if (rows.size() > static_cast<size_t>(filter.limit)) {
    rows.erase(rows.end() - 1);
    if (!oldestFirst) next = rows.back()["id"];
  }
  json answer;
  answer["beacons"] = std::move(rows);
  answer["next"] = next;
  return answer;
}

int64_t BeaconStore::count(const BeaconFilter& filter) {
  const auto [where, bindings] = whereClause(filter);
  sync();
  MutexLock db(dbMutex_);
  Statement query(db_, "SELECT COUNT(*) FROM beacons" + (where.empty() ? "" : " WHERE " + where));
  for (size_t i = 0; i < bindings.size(); ++i) {
    query.bind(static_cast<int>(i + 1), std::optional<std::string>(bindings[i]));
  }
  return query.step() ? query.integer(0) : 0;
}

json BeaconStore::counts() {
  sync();
  MutexLock db(dbMutex_);
  json answer;
  int64_t total = 0;
  std::map<std::string, int64_t> verdicts{{"good", 0}, {"retry", 0}, {"bad", 0}};
  Statement byVerdict(db_, "SELECT verdict, COUNT(*) FROM beacons GROUP BY verdict");
  while (byVerdict.step()) {
    verdicts[*byVerdict.text(0)] = byVerdict.integer(1);
    total += byVerdict.integer(1);
  }
  answer["total"] = total;
  for (const char* verdict : {"good", "retry", "bad"}) answer[verdict] = verdicts[verdict];
  json events = json::object();
  Statement byEvent(db_,
                    "SELECT event, type, COUNT(*) FROM beacons GROUP BY event, type "
                    "ORDER BY event, type");
  while (byEvent.step()) {
    auto& event = events[*byEvent.text(0)];
    if (!event.contains("total")) {
      event["total"] = 0;
      event["types"] = json::object();
    }
    event["total"] = event["total"].get<int64_t>() + byEvent.integer(2);
    if (const auto type = byEvent.text(1)) event["types"][*type] = byEvent.integer(2);
  }
  answer["events"] = std::move(events);
  return answer;
}

json BeaconStore::byUUID(const std::string& uuid) {
  return select("uuid = ?", {uuid}, "ORDER BY id");
}

json BeaconStore::sessions(int limit) {
  sync();
  MutexLock db(dbMutex_);
  Statement query(db_,
                  "SELECT sessionid, MIN(received), MAX(received), COUNT(*), "
                  "SUM(verdict = 'bad') FROM beacons WHERE sessionid IS NOT NULL "
                  "GROUP BY sessionid ORDER BY MAX(id) DESC LIMIT " +
                      std::to_string(std::clamp(limit, 1, BeaconFilter::kMaxLimit)));
  json list = json::array();
  while (query.step()) {
    list.push_back({{"sessionid", *query.text(0)},
                    {"first", query.integer(1)},
                    {"last", query.integer(2)},
                    {"beacons", query.integer(3)},
                    {"bad", query.integer(4)}});
  }
  return list;
}

json BeaconStore::session(const std::string& sessionID) {
  json beacons = select("sessionid = ?", {sessionID}, "ORDER BY id");
  json pageviews = json::array();
  for (const auto& beacon : beacons) {
    if (beacon["event"] != "pageview") continue;
    json view{{"id", beacon["id"]}, {"screen", nullptr}, {"duration", nullptr},
              {"received", beacon["received"]}};
    for (const auto& pair : beacon["params"]) {
      if (pair[0] == kKVRScreenName) view["screen"] = pair[1];
      if (pair[0] == kKVRDuration) {
        if (const auto seconds = parseSeconds(pair[1].get<std::string>())) {
          view["duration"] = *seconds;
        }
      }
    }
    pageviews.push_back(std::move(view));
  }
  json answer;
  answer["sessionid"] = sessionID;
  answer["beacons"] = std::move(beacons);
  answer["pageviews"] = std::move(pageviews);
  return answer;
}

int64_t BeaconStore::reset() {
  sync();
  int64_t removed = 0;
  {
    MutexLock db(dbMutex_);
    exec(db_, "DELETE FROM beacons", nullptr);
    removed = sqlite3_changes(db_);
  }
  {
    MutexLock lock(queueMutex_);
    ++resets_;
  }
  queueChanged_.signalAll();
  return removed;
}

uint64_t BeaconStore::resets() const {
  MutexLock lock(queueMutex_);
  return resets_;
}

}  // namespace korvel::tools
