// The inspector's HTTP side, on the collector's own port:
//
//   GET    /                      the page (assets embedded in the program;
//                                 /favicon.ico answers 204, not a beacon)
//   GET    /api/beacons?filter    a page of beacons, newest first
//   GET    /api/good?filter       the same, good ones (and resends) only
//   GET    /api/bad?filter        the same, bad ones only
//   GET    /api/count?filter      {"count":n}
//   GET    /api/beacons/<uuid>    every record of that uuid
//   GET    /api/counts            totals by verdict, event and type
//   GET    /api/sessions          the sessions, newest first
//   GET    /api/sessions/<id>     one session's timeline
//   GET    /api/events            the events the library makes
//   POST   /api/reset             forgets everything (DELETE /api/beacons too)
//   GET    /api/stream            server-sent events: {"last":id,"beacons":[...]}
//   any    /api/<anything else>   404 {"error":...}: a mistyped address is
//                                 not taken for a beacon
//
// POST and DELETE answer at once whether or not the request carries a body.
// The filter items are those of BeaconFilter::fromQuery.
#pragma once

#include <atomic>
#include <memory>

namespace httplib {
class Server;
}

namespace korvel::tools {

class BeaconStore;

// Registers the routes (before the collector's catch-all). Streams end when
// *stopping becomes true.
void installInspectorRoutes(httplib::Server& http, std::shared_ptr<BeaconStore> store,
                            const std::atomic<bool>* stopping);

}  // namespace korvel::tools
