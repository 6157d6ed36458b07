#include "collector/InspectorRoutes.h"

#include <httplib.h>

#include <map>
#include <string>

#include "collector/BeaconStore.h"
#include "collector/InspectorAssets.h"
#include <korvel/beacon/KVRBeaconTypes.h>

namespace korvel::tools {

namespace {

using json = nlohmann::ordered_json;

void sendJson(httplib::Response& res, const json& body, int status = 200) {
  res.status = status;
  res.set_header("Cache-Control", "no-store");
  res.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace),
                  "application/json");
}

std::optional<BeaconFilter> filterOf(const httplib::Request& req, httplib::Response& res) {
  std::string error;
  const std::multimap<std::string, std::string> items(req.params.begin(), req.params.end());
  auto filter = BeaconFilter::fromQuery(items, &error);
  if (!filter) sendJson(res, {{"error", error}}, 400);
  return filter;
}

// Wraps a handler of a request whose body means nothing to it. httplib reads
// the body of a POST or DELETE before it routes, and one that announces no
// length (curl -X POST sends none, and an HTTP/1.1 request without a length
// has no body) until the client closes, or its read timeout. A handler given
// the reader instead reads only a body the request announces, so that the
// next request on the connection starts where it should.
httplib::Server::HandlerWithContentReader ignoringBody(httplib::Server::Handler handler) {
  return [handler = std::move(handler)](const httplib::Request& req, httplib::Response& res,
                                        const httplib::ContentReader& content) {
    if (req.has_header("Content-Length") || req.has_header("Transfer-Encoding")) {
      content([](const char*, size_t) { return true; });
    }
    handler(req, res);
  };
}

void noSuchRoute(const httplib::Request& req, httplib::Response& res) {
  sendJson(res, {{"error", "no such API: " + req.method + " " + req.path}}, 404);
}

}  // namespace

void installInspectorRoutes(httplib::Server& http, std::shared_ptr<BeaconStore> store,
                            const std::atomic<bool>* stopping) {
  auto asset = [&http](const char* path, std::string_view body, const char* type) {
    http.Get(path, [body, type](const httplib::Request&, httplib::Response& res) {
      res.set_content(std::string(body), type);
    });
  };
  asset("/", assets::index_html, "text/html; charset=utf-8");
  asset("/inspector.js", assets::inspector_js, "text/javascript; charset=utf-8");
  asset("/inspector.css", assets::inspector_css, "text/css; charset=utf-8");
  // Browsers ask for it on their own; it is not a beacon.
  http.Get("/favicon.ico", [](const httplib::Request&, httplib::Response& res) { res.status = 204; });

  auto listWith = [store](std::optional<bool> good) {
    return [store, good](const httplib::Request& req, httplib::Response& res) {
      auto filter = filterOf(req, res);
      if (!filter) return;
      if (good) filter->good = good;
      sendJson(res, store->list(*filter));
    };
  };
  http.Get("/api/beacons", listWith(std::nullopt));
  http.Get("/api/good", listWith(true));
  http.Get("/api/bad", listWith(false));
  http.Get("/api/count", [store](const httplib::Request& req, httplib::Response& res) {
    if (const auto filter = filterOf(req, res)) sendJson(res, {{"count", store->count(*filter)}});
  });
  http.Get(R"(/api/beacons/([^/]+))", [store](const httplib::Request& req, httplib::Response& res) {
    const json records = store->byUUID(req.matches[1]);
    if (records.empty()) {
      sendJson(res, {{"error", "no beacon with uuid " + std::string(req.matches[1])}}, 404);
    } else {
      sendJson(res, {{"beacons", records}});
    }
  });
  http.Get("/api/counts", [store](const httplib::Request&, httplib::Response& res) {
    sendJson(res, store->counts());
  });
  http.Get("/api/sessions", [store](const httplib::Request& req, httplib::Response& res) {
    int limit = 100;
    if (req.has_param("limit")) limit = std::atoi(req.get_param_value("limit").c_str());
    sendJson(res, {{"sessions", store->sessions(limit)}});
  });
  http.Get(R"(/api/sessions/([^/]+))",
           [store](const httplib::Request& req, httplib::Response& res) {
             const json timeline = store->session(req.matches[1]);
             sendJson(res, timeline, timeline["beacons"].empty() ? 404 : 200);
           });
  http.Get("/api/events", [](const httplib::Request&, httplib::Response& res) {
    json types = json::array();
    for (const auto& type : KVRBeaconFactory::beaconTypes()) {
      types.push_back({{"type", static_cast<int>(type.type)},
                       {"class", std::string(type.className)},
                       {"event", type.event ? json(*type.event) : json(nullptr)}});
    }
    sendJson(res, {{"types", types}});
  });
  auto reset = [store](const httplib::Request&, httplib::Response& res) {
    sendJson(res, {{"removed", store->reset()}});
  };
  http.Post("/api/reset", ignoringBody(reset));
  http.Delete("/api/beacons", ignoringBody(reset));

  http.Get("/api/stream", [store, stopping](const httplib::Request& req, httplib::Response& res) {
    // Starts after what the page already has ("after"), or now.
    int64_t last = store->lastID();
    if (req.has_param("after")) last = std::atoll(req.get_param_value("after").c_str());
    uint64_t resets = store->resets();
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [store, stopping, last, resets](size_t, httplib::DataSink& sink) mutable {
          if (stopping->load()) return false;
          store->waitNewerThan(last, std::chrono::milliseconds(500));
          if (stopping->load()) return false;
          // A burst is sent as a batch of the newest rows; the page asks
          // for the rest through the list when it wants them.
          BeaconFilter filter;
          filter.after = last;
          filter.limit = 200;
          json page = store->list(filter);
          auto& beacons = page["beacons"];
          std::string message;
          if (store->resets() != resets) {
            resets = store->resets();
            message = "event: reset\ndata: {}\n\n";
          }
          if (beacons.empty()) {
            message += ": idle\n\n";
          } else {
            last = beacons.back()["id"].get<int64_t>();
            const int64_t newest = store->lastID();
            json batch{{"last", last}, {"behind", newest - last}, {"beacons", beacons}};
            if (newest > last) last = newest;  // the page catches up through the list
            message += "data: " + batch.dump(-1, ' ', false, json::error_handler_t::replace) +
                      "\n\n";
          }
          return sink.write(message.data(), message.size());
        });
  });

  // Registered last: whatever else is under /api/ is a mistyped address,
  // not a beacon (the collector takes any other GET for one).
  const char* const elsewhere = R"(/api(/.*)?)";
  http.Get(elsewhere, noSuchRoute);
  http.Post(elsewhere, ignoringBody(noSuchRoute));
  http.Put(elsewhere, ignoringBody(noSuchRoute));
  http.Delete(elsewhere, ignoringBody(noSuchRoute));
}

}  // namespace korvel::tools
