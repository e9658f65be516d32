"use strict";
// Demo client of the local VPN bridge: one button per XML-RPC method, each answer shown as text
// with its XML-RPC type, and a live panel (state, connection time, traffic) that refreshes every
// second while the VPN is connecting or connected. Runs on the page's single thread; calls may be
// in flight in parallel, each one updates only its own row.

// The service listens on both loopback addresses; the first one is tried first.
const ENDPOINTS = ["http://127.94.0.1:986/vpn", "http://127.0.0.1:986/vpn"];
// A command for the GUI application is answered only after the service has tried to launch the
// GUI and waited about 10 s for it; 15 s lets those defaults arrive, and still ends a call the
// service never answers.
const CALL_TIMEOUT_MS = 15000;
const LIVE_INTERVAL_MS = 1000;

// Method name and the argument inputs it takes, in parameter order.
const METHODS = [
  ["clientOS", []],
  ["clientVersion", []],
  ["authorize", ["server", "port", "webPort"]],
  ["connect", ["server", "port", "webPort"]],
  ["connectWithToken", ["server", "port", "webPort", "token"]],
  ["disconnect", ["token"]],
  ["suspend", ["token"]],
  ["resume", []],
  ["state", []],
  ["connectionTime", []],
  ["connectionTimeDisplayable", []],
  ["trafficRates", []],
  ["trafficTotals", []],
];
const INTEGER_ARGUMENTS = new Set(["port", "webPort"]);
// Answers to these may move the VPN towards "connected", so they (re)start the live panel.
const LIVE_TRIGGERS = new Set(["connect", "connectWithToken", "resume", "state"]);

// The service takes element text verbatim (no entity decoding), so arguments go in unescaped:
// escaping "&" would hand the GUI "&amp;".
function methodCallXML(method, params) {
  const paramXML = params
    .map(({type, text}) => `<param><value><${type}>${text}</${type}></value></param>`)
    .join("");
  return `<?xml version="1.0"?>\n<methodCall><methodName>${method}</methodName>` +
         `<params>${paramXML}</params></methodCall>\n`;
}

// The answer's one value. A string is written unescaped, so its text runs up to the last closing
// tag rather than the first. Returns null when the text is no method response.
function parseMethodResponse(text) {
  if (!text.includes("<methodResponse>")) return null;
  const open = /<value><(string|int|i4)>/.exec(text);
  if (!open) return {type: "no value", value: ""};
  const start = open.index + open[0].length;
  const end = text.lastIndexOf(`</${open[1]}></value>`);
  if (end < start) return null;
  return {type: open[1], value: text.slice(start, end)};
}

class CallError extends Error {}

async function post(url, body) {
  const response = await fetch(url, {
    method: "POST",
    headers: {"Content-Type": "text/xml"},
    body,
    cache: "no-store",
    signal: AbortSignal.timeout(CALL_TIMEOUT_MS),
  });
  if (!response.ok) throw new CallError(`HTTP status ${response.status}`);
  return response.text();
}

// Sends one call, to the second address when the first refuses or closes the connection.
// Resolves to {type, value, url}; rejects with a CallError that says why there is no answer.
async function callMethod(method, params) {
  const body = methodCallXML(method, params);
  for (const url of ENDPOINTS) {
    let text;
    try {
      text = await post(url, body);
    } catch (error) {
      // A silent service is not asked again on the other address: that would double the wait.
      if (error.name === "TimeoutError") {
        throw new CallError(`no answer within ${CALL_TIMEOUT_MS / 1000} s`);
      }
      if (error instanceof CallError) throw error;
      continue;  // refused, closed without a reply, or nothing listening: try the next address
    }
    document.getElementById("endpoint").textContent = new URL(url).host;
    const answer = parseMethodResponse(text);
    if (!answer) throw new CallError("the answer is not an XML-RPC method response");
    return {...answer, url};
  }
  if (await loopbackPermission() === "denied") {
    throw new CallError("blocked by the browser: this site may not reach apps on this device " +
                        "(permission \"loopback-network\" denied)");
  }
  throw new CallError("no answer: connection closed unanswered, or refused");
}

// Chromium's Local Network Access asks the user before a page from a public address may reach
// loopback; a denied (or, for a non-secure page, impossible) permission fails like a network error.
async function loopbackPermission() {
  try {
    return (await navigator.permissions.query({name: "loopback-network"})).state;
  } catch {
    return "unknown";  // a browser without that permission
  }
}

function argumentParams(names) {
  return names.map((name) => {
    const text = document.getElementById(name).value.trim();
    return INTEGER_ARGUMENTS.has(name) ? {type: "int", text: text || "0"} : {type: "string", text};
  });
}

function showAnswer(method, state, type, value, detail) {
  const cell = document.getElementById(`answer-${method}`);
  cell.dataset.state = state;
  cell.querySelector(".type").textContent = type;
  const valueElement = cell.querySelector(".value");
  valueElement.textContent = value;
  valueElement.className = type === "string" ? "value string" : "value";
  cell.querySelector(".detail").textContent = detail;
}

async function onCall(method, argumentNames) {
  showAnswer(method, "pending", "", "", "waiting…");
  const started = performance.now();
  try {
    const answer = await callMethod(method, argumentParams(argumentNames));
    const ms = Math.round(performance.now() - started);
    showAnswer(method, "answered", answer.type, answer.value, `${new URL(answer.url).hostname}, ${ms} ms`);
    if (LIVE_TRIGGERS.has(method)) startLive();
  } catch (error) {
    showAnswer(method, "error", "error", error.message, "");
  }
}

function cell(tag, text, className) {
  const element = document.createElement(tag);
  if (text !== undefined) element.textContent = text;
  if (className) element.className = className;
  return element;
}

function buildTable() {
  const body = document.querySelector("#methods tbody");
  for (const [method, argumentNames] of METHODS) {
    const row = document.createElement("tr");
    const button = cell("button", method);
    button.id = `call-${method}`;
    button.addEventListener("click", () => onCall(method, argumentNames));
    const buttonCell = cell("td");
    buttonCell.append(button);
    const answer = cell("td", undefined, "answer");
    answer.id = `answer-${method}`;
    answer.dataset.state = "none";
    answer.append(cell("span", "", "type"), cell("span", "", "value"), cell("span", "", "detail"));
    row.append(buttonCell, cell("td", argumentNames.join(", ") || "none", "arguments"), answer);
    body.append(row);
  }
}

// Live panel: one "state" call per second; while connected, the time and traffic calls too.
let liveRunning = false;

function showLive(id, text) {
  document.getElementById(id).textContent = text;
}

async function liveTick() {
  const started = performance.now();
  let state;
  try {
    state = (await callMethod("state", [])).value;
    showLive("live-state", state);
    if (state === "connected") {
      const [seconds, shown, rates, totals] = await Promise.all(
        ["connectionTime", "connectionTimeDisplayable", "trafficRates", "trafficTotals"]
          .map((method) => callMethod(method, [])));
      showLive("live-time", `${shown.value} (${seconds.value} s)`);
      showLive("live-rates", rates.value);
      showLive("live-totals", totals.value);
    } else {
      for (const id of ["live-time", "live-rates", "live-totals"]) showLive(id, "–");
    }
    showLive("live-updated", new Date().toLocaleTimeString());
  } catch (error) {
    showLive("live-state", `error: ${error.message}`);
  }
  const live = state === "connected" || state === "connecting";
  document.getElementById("live").className = state === "connected" ? "connected" : "idle";
  showLive("live-badge", state === "connected" ? "connected, refreshed every second" : "not connected");
  if (!live) {
    liveRunning = false;
    return;
  }
  setTimeout(liveTick, Math.max(0, LIVE_INTERVAL_MS - (performance.now() - started)));
}

function startLive() {
  if (liveRunning) return;
  liveRunning = true;
  liveTick();
}

buildTable();
