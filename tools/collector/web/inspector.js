// The beacon inspector page: a live list of the collector's beacons, a
// filter, a beacon's parameters and the sessions as timelines. Everything
// comes from the collector's /api.
"use strict";

const $ = (selector) => document.querySelector(selector);
// chosen: the beacon whose details each tab shows (a tab shows its own).
const state = { filter: new URLSearchParams(), next: null, selected: null, view: "beacons",
                known: new Set(), session: null, chosen: { beacons: null, sessions: null } };

function text(tag, content, className) {
  const element = document.createElement(tag);
  if (content !== undefined && content !== null) element.textContent = content;
  if (className) element.className = className;
  return element;
}

function time(ms) {
  const d = new Date(ms);
  return d.toLocaleTimeString([], { hour12: false }) + "." + String(d.getMilliseconds()).padStart(3, "0");
}

function param(beacon, key) {
  const pair = beacon.params.find((p) => p[0] === key);
  return pair ? pair[1] : null;
}

// "pageview type=scroll screenname=home bad" -> the list's query items.
function parseFilter(input) {
  const query = new URLSearchParams();
  for (const token of input.trim().split(/\s+/).filter(Boolean)) {
    const eq = token.indexOf("=");
    if (token === "bad" || token === "good") { query.set("good", token === "good" ? "true" : "false"); continue; }
    if (token === "retry") { query.set("verdict", "retry"); continue; }
    if (eq < 0) { query.set("event", token); continue; }
    const key = token.slice(0, eq), value = token.slice(eq + 1);
    if (["event", "type", "session", "sessionid", "uuid", "inid", "appversion", "since", "until"].includes(key)) query.set(key, value);
    else query.append("param", key + "=" + value);
  }
  return query;
}

async function api(path) {
  const response = await fetch(path);
  const body = await response.json();
  if (!response.ok) throw new Error(body.error || response.statusText);
  return body;
}

function row(beacon) {
  const tr = document.createElement("tr");
  tr.dataset.id = beacon.id;
  tr.className = beacon.verdict;
  if (!state.known.has(beacon.id)) tr.classList.add("fresh");
  // A page view has no type; its screen name tells the rows apart instead.
  const screen = beacon.event === "pageview" ? param(beacon, "screenname") : null;
  tr.append(text("td", beacon.id), text("td", time(beacon.received)), text("td", beacon.event, "event"),
            screen !== null && !beacon.type ? text("td", screen, "screen") : text("td", beacon.type || ""),
            text("td", beacon.sessionid ? beacon.sessionid.slice(0, 8) : "—"));
  const verdict = text("td", beacon.verdict === "good" ? "good" : beacon.verdict + ": " + beacon.reasons.join("; "), "verdict");
  tr.append(verdict);
  if (state.selected === beacon.id) tr.classList.add("selected");
  tr.addEventListener("click", () => select(beacon));
  return tr;
}

async function refresh() {
  try {
    const [page, counts] = await Promise.all([
      api("/api/beacons?" + state.filter.toString()), api("/api/counts")]);
    const body = $("#beacons tbody");
    body.replaceChildren(...page.beacons.map(row));
    const empty = $("#empty");
    empty.hidden = page.beacons.length > 0;
    empty.textContent = !state.filter.toString() ? "No beacons yet: they appear here as they arrive."
      : `No beacon matches the filter “${$("#filter").value.trim()}”.`;
    for (const b of page.beacons) state.known.add(b.id);
    state.next = page.next;
    $("#older").hidden = page.next === null;
    $("#counts").textContent = `${counts.total} beacons · ${counts.good} good · ${counts.retry} resent · ${counts.bad} bad`;
    $("#filter-error").textContent = "";
    if (state.view === "sessions") await loadSessions();
  } catch (error) {
    $("#filter-error").textContent = error.message;
  }
}

async function older() {
  if (state.next === null) return;
  const query = new URLSearchParams(state.filter);
  query.set("before", state.next);
  const page = await api("/api/beacons?" + query.toString());
  $("#beacons tbody").append(...page.beacons.map(row));
  state.next = page.next;
  $("#older").hidden = page.next === null;
}

// The session's common parameters: those every one of its beacons carries
// with the same value (the reporter's own keys differ from beacon to beacon).
function commonKeys(beacons) {
  if (beacons.length < 2) return new Set(["clientbeaconuuid", "clientcreationtimestamp", "sessionid"]);
  const keys = new Map(beacons[0].params);
  for (const b of beacons.slice(1)) {
    const own = new Map(b.params);
    for (const [k, v] of keys) if (own.get(k) !== v) keys.delete(k);
  }
  const common = new Set(keys.keys());
  common.add("clientbeaconuuid");
  common.add("clientcreationtimestamp");
  return common;
}

function paramTable(pairs) {
  const table = document.createElement("table");
  for (const [k, v] of pairs) {
    const tr = document.createElement("tr");
    tr.append(text("td", k), text("td", v));
    table.append(tr);
  }
  return table;
}

function showHint() {
  $("#detail").replaceChildren(text("p", "Select a beacon to see its parameters.", "hint"));
}

async function select(beacon) {
  state.chosen[state.view] = beacon;
  state.selected = beacon.id;
  document.querySelectorAll("tr.selected").forEach((tr) => tr.classList.remove("selected"));
  const tr = document.querySelector(`tr[data-id="${beacon.id}"]`);
  if (tr) tr.classList.add("selected");
  let siblings = [beacon];
  if (beacon.sessionid) {
    try { siblings = (await api("/api/sessions/" + encodeURIComponent(beacon.sessionid))).beacons; } catch (e) { /* a lone beacon */ }
  }
  // The user may have moved on to another tab or beacon meanwhile.
  if (state.chosen[state.view] !== beacon) return;
  const common = commonKeys(siblings);
  const detail = $("#detail");
  detail.replaceChildren();
  detail.append(text("h2", `#${beacon.id} ${beacon.event}${beacon.type ? " · " + beacon.type : ""}`));
  detail.append(text("div", `uuid ${beacon.uuid || "—"} · status ${beacon.status} · ${beacon.verdict}`));
  if (beacon.reasons.length) {
    const list = text("ul", null, "reasons");
    for (const reason of beacon.reasons) list.append(text("li", reason));
    detail.append(list);
  }
  detail.append(text("h2", "Reporter's parameters"));
  detail.append(paramTable(beacon.params.filter((p) => !common.has(p[0]))));
  const folded = document.createElement("details");
  folded.id = "common";
  folded.append(text("summary", `Common parameters (${beacon.params.filter((p) => common.has(p[0])).length})`));
  folded.append(paramTable(beacon.params.filter((p) => common.has(p[0]))));
  detail.append(folded);
  const raw = document.createElement("details");
  raw.append(text("summary", "Request"), text("code", beacon.target));
  detail.append(raw);
}

async function loadSessions() {
  const { sessions } = await api("/api/sessions");
  const list = $("#sessions");
  list.replaceChildren(...sessions.map((s) => {
    const li = text("li", `${s.sessionid} · ${s.beacons} beacons · ${time(s.first)}`);
    li.dataset.session = s.sessionid;
    if (s.bad > 0) li.classList.add("bad");
    li.addEventListener("click", () => timeline(s.sessionid));
    return li;
  }));
  if (state.session) await timeline(state.session);
}

async function timeline(sessionID) {
  state.session = sessionID;
  const data = await api("/api/sessions/" + encodeURIComponent(sessionID));
  // Another session was chosen while this one loaded: that one is drawn.
  if (state.session !== sessionID) return;
  const box = $("#timeline");
  box.replaceChildren(text("h2", "Session " + sessionID));
  const start = data.beacons.length ? data.beacons[0].received : 0;
  const views = new Map(data.pageviews.map((v) => [v.id, v]));
  for (const b of data.beacons) {
    const step = text("div", null, "step" + (b.verdict === "bad" ? " bad" : ""));
    step.append(text("span", "+" + ((b.received - start) / 1000).toFixed(2) + " s", "at"),
                text("span", b.event + (b.type ? " · " + b.type : "")),
                text("span", b.verdict === "bad" ? b.reasons.join("; ") : ""));
    step.addEventListener("click", () => select(b));
    box.append(step);
    const view = views.get(b.id);
    if (view) {
      // The bar's length is the duration (100 px a second, at most 400);
      // the label beside it stays on one line however short the bar.
      const line = text("div", null, "view");
      const bar = text("span", null, "bar");
      bar.style.width = Math.max(4, Math.min(400, (view.duration || 0) * 100)) + "px";
      line.append(bar, text("span", `page view: ${view.screen ?? "?"} · ${view.duration === null ? "?" : view.duration.toFixed(2) + " s"}`, "label"));
      box.append(line);
    }
  }
}

function show(view) {
  const changed = state.view !== view;
  state.view = view;
  $("#beacons-view").hidden = view !== "beacons";
  $("#sessions-view").hidden = view !== "sessions";
  $("#tab-beacons").classList.toggle("active", view === "beacons");
  $("#tab-sessions").classList.toggle("active", view === "sessions");
  if (changed) {
    // Each tab shows the details of the beacon chosen on it, or none.
    const chosen = state.chosen[view];
    state.selected = chosen ? chosen.id : null;
    document.querySelectorAll("tr.selected").forEach((tr) => tr.classList.remove("selected"));
    if (chosen) select(chosen); else showHint();
  }
  if (view === "sessions") loadSessions();
}

let pending = null;
function refreshSoon() {
  if (pending) return;
  pending = setTimeout(() => { pending = null; refresh(); }, 150);
}

function connect() {
  const stream = new EventSource("/api/stream");
  stream.onopen = () => { $("#live").textContent = "live"; $("#live").classList.remove("off"); };
  stream.onerror = () => { $("#live").textContent = "reconnecting"; $("#live").classList.add("off"); };
  stream.onmessage = refreshSoon;
  stream.addEventListener("reset", () => { state.known.clear(); refreshSoon(); });
}

$("#filter").addEventListener("input", () => { state.filter = parseFilter($("#filter").value); refreshSoon(); });
$("#older").addEventListener("click", older);
$("#tab-beacons").addEventListener("click", () => show("beacons"));
$("#tab-sessions").addEventListener("click", () => show("sessions"));
$("#reset").addEventListener("click", async () => {
  await fetch("/api/reset", { method: "POST" });
  state.chosen = { beacons: null, sessions: null };
  state.selected = null;
  showHint();
  refresh();
});
refresh();
connect();
