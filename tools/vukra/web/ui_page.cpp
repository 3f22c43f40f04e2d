#include "ui_page.h"

namespace vukra::web {

const std::string& ui_page() {
    static const std::string page = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>vukra serve</title>
<style>
body { font-family: system-ui, sans-serif; margin: 1.5em; color: #222; }
h1 { font-size: 1.3em; margin: 0 0 .3em; }
#line { display: inline-block; padding: .1em .6em; border-radius: .8em; color: #fff; background: #888; }
#line.up { background: #2a7d2a; } #line.down { background: #b22; }
table { border-collapse: collapse; margin-top: 1em; }
th, td { text-align: left; padding: .35em .7em; border-bottom: 1px solid #ddd; vertical-align: middle; }
th { background: #f2f2f2; }
td.value { font-family: ui-monospace, monospace; min-width: 8em; }
td.value.error { color: #b22; }
.ro { font-size: .75em; background: #eee; border-radius: .5em; padding: 0 .4em; color: #555; }
.elements span { display: inline-block; margin-right: .6em; padding: 0 .3em; background: #f4f4f4; }
svg { width: 180px; height: 32px; }
polyline { fill: none; stroke: #2a5db0; stroke-width: 1.5; }
input { width: 9em; } #message { color: #b22; margin-top: 1em; min-height: 1.2em; }
</style>
</head>
<body>
<h1>vukra serve</h1>
<div>Device: <span id="line">?</span></div>
<table>
<thead><tr><th>Register</th><th>Table</th><th>Type</th><th>Value</th><th>Last 10 min</th><th>Set</th></tr></thead>
<tbody id="rows"></tbody>
</table>
<div id="message"></div>
<script>
"use strict";
const KEEP_MS = 10 * 60 * 1000;
const rows = {}, trends = {};
const $ = (tag, props) => Object.assign(document.createElement(tag), props || {});

function say(text) { document.getElementById("message").textContent = text; }

function setLine(state) {
  const line = document.getElementById("line");
  line.textContent = {up: "answering", down: "not answering"}[state] || "no news from vukra serve";
  line.className = state;
}

function row(reg) {
  if (rows[reg.name]) return rows[reg.name];
  const tr = $("tr");
  tr.dataset.name = reg.name;
  const name = $("td", {textContent: reg.name});
  if (reg.access === "R") name.append(" ", $("span", {className: "ro", textContent: "read-only"}));
  const value = $("td", {className: "value"});
  const trend = $("td");
  const set = $("td");
  if (reg.access.includes("W")) {
    const form = $("form");
    const input = $("input", {name: reg.name, placeholder: "new value"});
    form.append(input, " ", $("button", {textContent: "Set"}));
    form.onsubmit = (event) => { event.preventDefault(); write(reg.name, input.value, input); };
    set.append(form);
  }
  tr.append(name, $("td", {textContent: reg.table}), $("td", {textContent: reg.type}), value, trend, set);
  document.getElementById("rows").append(tr);
  rows[reg.name] = {tr, value, trend, time: ""};
  return rows[reg.name];
}

function show(reg) {
  const r = row(reg);
  if (reg.time && reg.time < r.time) return; // an older reading than the one shown
  r.time = reg.time || r.time;
  r.value.classList.toggle("error", reg.status !== "ok");
  r.value.replaceChildren();
  if (reg.status !== "ok") r.value.textContent = reg.error || "error";
  else if (Array.isArray(reg.value)) {
    const list = $("div", {className: "elements"});
    reg.value.forEach((v, i) => list.append($("span", {title: "element " + i, textContent: v})));
    r.value.append(list);
  } else r.value.textContent = String(reg.value);
  r.value.dataset.value = reg.status === "ok" ? JSON.stringify(reg.value) : "";
  if (reg.status === "ok" && typeof reg.value === "number") plot(reg.name, r, reg.value);
}

function plot(name, r, value) {
  const now = Date.now(), points = trends[name] || (trends[name] = []);
  points.push([now, value]);
  while (points.length && points[0][0] < now - KEEP_MS) points.shift();
  let low = Math.min(...points.map(p => p[1])), high = Math.max(...points.map(p => p[1]));
  if (high === low) { high += 1; low -= 1; }
  const svg = document.createElementNS("http://www.w3.org/2000/svg", "svg");
  svg.setAttribute("viewBox", "0 0 180 32");
  const line = document.createElementNS("http://www.w3.org/2000/svg", "polyline");
  line.setAttribute("points", points.map(([t, v]) =>
    ((t - (now - KEEP_MS)) / KEEP_MS * 178 + 1).toFixed(1) + "," + (31 - (v - low) / (high - low) * 30).toFixed(1)).join(" "));
  svg.append(line);
  const title = document.createElementNS("http://www.w3.org/2000/svg", "title");
  title.textContent = "from " + low + " to " + high;
  svg.append(title);
  r.trend.replaceChildren(svg);
}

function value(text) {
  const t = text.trim();
  if (/^-?\d+(\.\d+)?([eE][-+]?\d+)?$/.test(t)) return Number(t);
  return t;
}

async function write(name, text, input) {
  say("");
  const answer = await fetch("api/registers/" + encodeURIComponent(name), {
    method: "PUT", credentials: "same-origin",
    headers: {"Content-Type": "application/json"}, body: JSON.stringify({value: value(text)})});
  const body = await answer.json().catch(() => ({}));
  if (!answer.ok) { say(name + ": " + (body.error || answer.status)); return; }
  input.value = "";
  if (body.status) show(body);
}

async function load() {
  const answer = await fetch("api/registers", {cache: "no-store"});
  (await answer.json()).forEach(show);
}

const events = new EventSource("api/events");
events.addEventListener("value", (e) => show(JSON.parse(e.data)));
events.addEventListener("line", (e) => setLine(JSON.parse(e.data).state));
// Again when the stream comes back: what changed meanwhile was not heard.
events.onopen = () => load().catch((e) => say("cannot load the registers: " + e));
events.onerror = () => setLine("unknown");
</script>
</body>
</html>
)html";
    return page;
}

} // namespace vukra::web
