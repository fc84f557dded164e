#include "DashboardPage.h"

namespace qxpemu {

const std::string& dashboardPage() {
    static const std::string page = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>qxp-emulator</title>
<style>
  body { font: 14px/1.4 system-ui, sans-serif; margin: 0; color: #1d2430; background: #f4f6f9; }
  header { background: #1d2430; color: #fff; padding: 10px 20px; display: flex; align-items: center; gap: 16px; }
  header h1 { font-size: 18px; margin: 0; }
  header .status { font-size: 12px; opacity: .8; }
  main { padding: 16px 20px; display: grid; gap: 16px; grid-template-columns: 1fr 1fr; }
  section { background: #fff; border-radius: 6px; padding: 12px 14px; box-shadow: 0 1px 2px rgba(0,0,0,.08); overflow: auto; }
  section.wide { grid-column: 1 / span 2; }
  h2 { font-size: 15px; margin: 0 0 8px; }
  table { border-collapse: collapse; width: 100%; font-size: 13px; }
  th, td { text-align: left; padding: 3px 6px; border-bottom: 1px solid #e6e9ef; vertical-align: top; }
  th { color: #5b6475; font-weight: 600; }
  td.num { text-align: right; font-variant-numeric: tabular-nums; }
  .passing { color: #1a7f37; font-weight: 600; }
  .critical { color: #c62828; font-weight: 600; }
  .muted { color: #7a8394; }
  .summary span { margin-right: 14px; }
  button { font: inherit; padding: 3px 10px; border: 1px solid #9aa3b2; border-radius: 4px; background: #fff; cursor: pointer; }
  button.danger { border-color: #c62828; color: #c62828; }
  form { display: flex; flex-wrap: wrap; gap: 6px; margin-top: 8px; align-items: center; }
  input, select { font: inherit; padding: 2px 4px; }
  #error { color: #c62828; }
</style>
</head>
<body>
<header>
  <h1>qxp-emulator</h1>
  <span class="status" id="status">connecting…</span>
  <span id="error"></span>
  <span style="flex:1"></span>
  <button class="danger" id="reset" title="Forget mailboxes, services, records and fault rules">Reset emulator</button>
</header>
<main>
  <section id="identity"><h2>Identity</h2><div class="summary" id="identity-summary"></div>
    <table><thead><tr><th>Key id</th><th>Current</th></tr></thead><tbody id="keys"></tbody></table></section>
  <section id="faults"><h2>Fault rules</h2>
    <table><thead><tr><th>Method</th><th>Path pattern</th><th>Status</th><th>Delay ms</th><th>Drop</th><th>Times left</th></tr></thead><tbody id="fault-rows"></tbody></table>
    <form id="fault-form">
      <select name="method"><option value="">any</option><option>GET</option><option>POST</option><option>PUT</option><option>DELETE</option></select>
      <input name="pathPattern" placeholder="path pattern (regex)" required size="28">
      <input name="status" type="number" placeholder="status" min="0" max="999" size="5">
      <input name="delayMs" type="number" placeholder="delay ms" min="0" size="6">
      <label><input name="drop" type="checkbox"> drop</label>
      <input name="times" type="number" placeholder="times (-1: always)" value="1" size="6">
      <button type="submit">Add rule</button>
      <button type="button" id="clear-faults">Clear all</button>
    </form></section>
  <section class="wide" id="mailboxes"><h2>Mailboxes</h2><div class="summary" id="mailbox-summary"></div>
    <table><thead><tr><th>Id</th><th>Subscriptions</th><th>Queued</th><th>Poll parked</th><th>Last poll</th><th>Expires in</th></tr></thead><tbody id="mailbox-rows"></tbody></table>
    <div class="summary"><button id="prev">‹ previous</button> <span id="page"></span> <button id="next">next ›</button></div></section>
  <section class="wide" id="services"><h2>Services</h2>
    <table><thead><tr><th>Type</th><th>Instance</th><th>Address</th><th>Health</th><th>Reported</th><th>Last heartbeat</th><th>Heartbeats</th></tr></thead><tbody id="service-rows"></tbody></table></section>
  <section id="notifications"><h2>Last notifications</h2>
    <table><thead><tr><th>Time</th><th>Topic</th><th>Content</th><th>Mailboxes</th></tr></thead><tbody id="notification-rows"></tbody></table></section>
  <section id="requests"><h2>Last requests</h2>
    <table><thead><tr><th>Time</th><th>Method</th><th>Path</th><th>Status</th><th>ms</th></tr></thead><tbody id="request-rows"></tbody></table></section>
</main>
<script>
"use strict";
let page = 0;
let pages = 1;
const $ = (id) => document.getElementById(id);

function cell(row, text, className) {
  const td = document.createElement("td");
  td.textContent = text === null || text === undefined ? "" : String(text);
  if (className) td.className = className;
  row.appendChild(td);
  return td;
}

function fill(bodyId, items, columns, empty) {
  const body = $(bodyId);
  const rows = [];
  for (const item of items) {
    const tr = document.createElement("tr");
    for (const column of columns) column(tr, item);
    rows.push(tr);
  }
  if (rows.length === 0) {
    const tr = document.createElement("tr");
    const td = cell(tr, empty, "muted");
    td.colSpan = 9;
    rows.push(tr);
  }
  body.replaceChildren(...rows);
}

function age(ms) {
  if (ms === null || ms === undefined) return "—";
  return ms < 1000 ? ms + " ms ago" : (ms / 1000).toFixed(1) + " s ago";
}

function summary(id, parts) {
  const target = $(id);
  target.replaceChildren(...parts.map((text) => {
    const span = document.createElement("span");
    span.textContent = text;
    return span;
  }));
}

function render(data) {
  const identity = data.identity;
  summary("identity-summary", [
    "tokens issued: " + identity.tokensIssued,
    "token lifetime: " + identity.tokenLifetimeSeconds + " s",
    "longest poll: " + identity.maxPollSeconds + " s",
    "clients: " + identity.clients.map((c) => c.clientId + " (" + c.account + ")").join(", "),
  ]);
  fill("keys", identity.keys, [
    (tr, k) => cell(tr, k.kid),
    (tr, k) => cell(tr, k.current ? "signing" : "retired", k.current ? "passing" : "muted"),
  ], "no keys");

  const boxes = data.mailboxes;
  pages = Math.max(1, boxes.pages);
  summary("mailbox-summary", [
    "mailboxes: " + boxes.total,
    "polls parked: " + boxes.parkedPolls,
    "mail queued: " + boxes.queuedMail,
  ]);
  $("page").textContent = "page " + (boxes.page + 1) + " of " + pages;
  fill("mailbox-rows", boxes.items, [
    (tr, m) => cell(tr, m.id),
    (tr, m) => cell(tr, m.subscriptions.join(", ")),
    (tr, m) => cell(tr, m.queued, "num"),
    (tr, m) => cell(tr, m.pollParked ? "yes" : "no", m.pollParked ? "passing" : "muted"),
    (tr, m) => cell(tr, age(m.lastPollAgeMs)),
    (tr, m) => cell(tr, m.expiresInMs === null ? "—" : (m.expiresInMs / 1000).toFixed(0) + " s"),
  ], "no mailboxes");

  fill("service-rows", data.services, [
    (tr, s) => cell(tr, s.serviceType),
    (tr, s) => cell(tr, s.serviceInstance),
    (tr, s) => cell(tr, s.serviceAddress + ":" + s.servicePort),
    (tr, s) => cell(tr, s.status, s.status),
    (tr, s) => cell(tr, s.reportedHealth),
    (tr, s) => cell(tr, age(s.lastHeartbeatAgeMs)),
    (tr, s) => cell(tr, s.heartbeats, "num"),
  ], "no services");

  fill("notification-rows", data.notifications, [
    (tr, n) => cell(tr, n.time.substring(11, 23)),
    (tr, n) => cell(tr, n.topic),
    (tr, n) => cell(tr, n.content),
    (tr, n) => cell(tr, n.deliveredTo, "num"),
  ], "no notifications yet");

  fill("request-rows", data.requests, [
    (tr, r) => cell(tr, r.time.substring(11, 23)),
    (tr, r) => cell(tr, r.method),
    (tr, r) => cell(tr, r.path),
    (tr, r) => cell(tr, r.status === 0 ? "dropped" : r.status, r.status >= 400 || r.status === 0 ? "critical" : ""),
    (tr, r) => cell(tr, r.durationMs, "num"),
  ], "no requests yet");

  fill("fault-rows", data.faults, [
    (tr, f) => cell(tr, f.method || "any"),
    (tr, f) => cell(tr, f.pathPattern),
    (tr, f) => cell(tr, f.status || "—"),
    (tr, f) => cell(tr, f.delayMs, "num"),
    (tr, f) => cell(tr, f.drop ? "yes" : "no"),
    (tr, f) => cell(tr, f.times === -1 ? "always" : f.times, "num"),
  ], "no fault rules");
}

async function refresh() {
  try {
    const answer = await fetch("/_emulator/dashboard?page=" + page, { cache: "no-store" });
    if (!answer.ok) throw new Error("dashboard answered " + answer.status);
    render(await answer.json());
    $("status").textContent = "updated " + new Date().toLocaleTimeString();
    $("error").textContent = "";
  } catch (error) {
    $("error").textContent = String(error.message || error);
  }
  setTimeout(refresh, 1000);
}

async function control(method, path, body) {
  const answer = await fetch(path, {
    method,
    headers: body ? { "Content-Type": "application/json" } : {},
    body: body ? JSON.stringify(body) : undefined,
  });
  if (!answer.ok) $("error").textContent = method + " " + path + ": " + (await answer.text());
}

$("reset").addEventListener("click", async () => {
  if (confirm("Reset the emulator? Mailboxes, services, records and fault rules are forgotten.")) {
    await control("POST", "/_emulator/reset");
  }
});
$("clear-faults").addEventListener("click", () => control("DELETE", "/_emulator/faults"));
$("fault-form").addEventListener("submit", async (event) => {
  event.preventDefault();
  const form = event.target;
  const rule = { method: form.method.value, pathPattern: form.pathPattern.value, drop: form.drop.checked };
  for (const name of ["status", "delayMs", "times"]) {
    if (form[name].value !== "") rule[name] = Number(form[name].value);
  }
  await control("POST", "/_emulator/faults", rule);
});
$("prev").addEventListener("click", () => { if (page > 0) page -= 1; });
$("next").addEventListener("click", () => { if (page + 1 < pages) page += 1; });
refresh();
</script>
</body>
</html>
)html";
    return page;
}

}  // namespace qxpemu
