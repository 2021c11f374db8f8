// The sandbox's dashboard. Everything shown comes from what clients sent, so
// it is put on the page as text nodes only, never parsed as HTML.
"use strict";

const token = new URLSearchParams(location.search).get("token") || "";

function $(id) { return document.getElementById(id); }

function el(tag, properties, ...children) {
  const node = document.createElement(tag);
  Object.assign(node, properties || {});
  for (const child of children)
    node.append(child instanceof Node ? child : document.createTextNode(String(child)));
  return node;
}

function withToken(path) {
  return path + (path.includes("?") ? "&" : "?") + "token=" + encodeURIComponent(token);
}

// Resolves to [status, parsed body]; a refusal's first error is in body.errors.
async function call(method, path, body) {
  const options = { method, headers: { "X-Sandbox-Token": token } };
  if (body !== undefined) {
    options.headers["Content-Type"] = "application/json";
    options.body = typeof body === "string" ? body : JSON.stringify(body);
  }
  const response = await fetch(path, options);
  let parsed = {};
  try { parsed = await response.json(); } catch (e) { parsed = {}; }
  return [response.status, parsed];
}

function show(id, text, good) {
  const node = $(id);
  node.textContent = text;
  node.className = "message " + (good ? "good" : "bad");
}

// --- Requests ---------------------------------------------------------------

let lastRequest = 0;

function verdictText(request) {
  if (request.signature === "ok") return "valid (" + request.signature_form + ")";
  return request.signature;
}

function addRequest(request) {
  const verdictClass = request.signature === "ok" || request.signature === "unsigned" ? "good" : "bad";
  const row = el("tr", {},
    el("td", {}, request.id),
    el("td", {}, request.received_at.slice(11, 23)),
    el("td", {}, request.method),
    el("td", {}, request.target),
    el("td", { className: request.status >= 400 || request.status === 0 ? "bad" : "" },
       request.status === 0 ? "no answer" : request.status),
    el("td", { className: verdictClass + " verdict" }, verdictText(request)),
    el("td", {}, request.user_authorization ? "X-Authorization-User" : "-"),
    el("td", { className: "bad" }, request.fault));
  row.dataset.id = request.id;
  row.addEventListener("click", () => showRequest(request.id));
  $("requests").tBodies[0].prepend(row);
}

async function showRequest(id) {
  const [status, request] = await call("GET", "/_sandbox/requests/" + id);
  const detail = $("request-detail");
  detail.hidden = false;
  if (status !== 200) { detail.textContent = (request.errors || ["status " + status])[0]; return; }
  const headers = request.headers.map(([name, value]) => name + ": " + value).join("\n");
  detail.textContent = request.method + " " + request.target + "\n" + headers + "\n\n" + request.body;
}

async function pollRequests() {
  try {
    const [status, answer] = await call("GET", "/_sandbox/requests?summary&since=" + lastRequest);
    if (status === 200) {
      for (const request of answer.requests) {
        addRequest(request);
        lastRequest = Math.max(lastRequest, request.id);
      }
      show("status", "live", true);
    } else {
      show("status", (answer.errors || ["status " + status])[0], false);
    }
  } catch (e) {
    show("status", "the sandbox does not answer", false);
  }
}

// --- Scenario ---------------------------------------------------------------

async function loadScenario() {
  const [status, scenario] = await call("GET", "/_sandbox/scenario");
  if (status !== 200) return;
  $("next-checkin").value = scenario.next_checkin_after_seconds ?? "";
  delete scenario.next_checkin_after_seconds;
  $("scenario-editor").value = JSON.stringify(scenario, null, 2);
  const [, files] = await call("GET", "/_sandbox/scenarios");
  const select = $("scenario-files");
  select.replaceChildren(...(files.scenarios || []).map((name) =>
    el("option", { value: name, selected: name === scenario.name }, name)));
}

async function saveScenario() {
  let document;
  try {
    document = JSON.parse($("scenario-editor").value);
  } catch (e) {
    show("scenario-message", "Not JSON: " + e.message, false);
    return;
  }
  const after = $("next-checkin").value;
  if (document && typeof document === "object") {
    if (after === "") delete document.next_checkin_after_seconds;
    else document.next_checkin_after_seconds = Number(after);
  }
  const [status, answer] = await call("POST", "/_sandbox/scenario", document);
  if (status === 200) show("scenario-message", "Saved; now serving " + answer.scenario, true);
  else show("scenario-message", "Not saved: " + (answer.errors || ["status " + status])[0], false);
}

async function switchScenario() {
  const [status, answer] = await call("POST", "/_sandbox/scenario", { name: $("scenario-files").value });
  if (status !== 200) { show("scenario-message", (answer.errors || ["status " + status])[0], false); return; }
  await loadScenario();
  show("scenario-message", "Now serving " + answer.scenario, true);
}

// --- Preview ----------------------------------------------------------------

async function makePreview() {
  show("preview-message", "drawing...", true);
  const [status, answer] = await call("POST", "/_sandbox/preview");
  const images = (answer.images || []).map((name) =>
    el("figure", {}, el("img", { src: withToken("/_sandbox/preview/" + encodeURIComponent(name)) + "&t=" + Date.now(),
                                 alt: name }),
       el("figcaption", {}, name)));
  $("preview-images").replaceChildren(...images);
  if (status === 200) show("preview-message", "", true);
  else show("preview-message", (answer.errors || ["status " + status])[0], false);
}

// --- Faults -----------------------------------------------------------------

function showFaults(faults) {
  const rows = Object.entries(faults || {}).map(([route, fault]) => {
    const clear = el("button", {}, "Clear");
    clear.addEventListener("click", async () => {
      const [, answer] = await call("DELETE", "/_sandbox/faults?route=" + encodeURIComponent(route));
      showFaults(answer.faults);
    });
    return el("tr", {}, el("td", {}, route), el("td", {}, fault), el("td", {}, clear));
  });
  $("faults").tBodies[0].replaceChildren(...rows);
}

async function armFault() {
  const count = $("fault-count").value;
  const fault = $("fault-kind").value.trim() + (count ? "*" + count : "");
  const [status, answer] = await call("POST", "/_sandbox/faults", { route: $("fault-route").value, fault });
  if (status === 200) { showFaults(answer.faults); show("fault-message", "armed", true); }
  else show("fault-message", (answer.errors || ["status " + status])[0], false);
}

async function loadFaults() {
  const [status, answer] = await call("GET", "/_sandbox/faults");
  if (status === 200) showFaults(answer.faults);
}

// --- Feedback ---------------------------------------------------------------

function attachmentLine(upload) {
  const parts = [upload.filename + " (" + upload.content_type + ", " + upload.byte_size + " bytes) "];
  if (upload.uploaded) {
    parts.push(el("span", { className: "good" }, "size and checksum match "));
    const path = "/_sandbox/uploads/" + upload.id;
    parts.push(el("a", { href: withToken(path + "?inline"), target: "_blank", rel: "noopener" }, "open"), " ");
    parts.push(el("a", { href: withToken(path), download: upload.filename, className: "download" }, "download"));
  } else {
    parts.push(el("span", { className: "bad" }, upload.problem || "bytes not received"));
  }
  return el("li", {}, ...parts);
}

let shownFeedback = "";

async function loadFeedback() {
  const [status, answer] = await call("GET", "/_sandbox/feedback");
  // Redrawn only on change, so that a link is not replaced under the pointer.
  const text = JSON.stringify(answer);
  if (status !== 200 || text === shownFeedback) return;
  shownFeedback = text;
  const items = answer.feedback.slice().reverse().map((feedback) =>
    el("div", { className: "feedback" },
       el("h3", { className: "feedback-title" }, feedback.title),
       el("div", {}, "from " + feedback.submitted_by),
       el("pre", {}, feedback.message),
       el("ul", {}, ...feedback.attachments.map(attachmentLine))));
  $("feedback").replaceChildren(...items);
}

// ----------------------------------------------------------------------------

document.addEventListener("DOMContentLoaded", () => {
  $("scenario-save").addEventListener("click", saveScenario);
  $("scenario-reload").addEventListener("click", loadScenario);
  $("scenario-switch").addEventListener("click", switchScenario);
  $("preview-make").addEventListener("click", makePreview);
  $("fault-arm").addEventListener("click", armFault);
  loadScenario();
  const tick = () => Promise.all([pollRequests(), loadFaults(), loadFeedback()]);
  tick();
  setInterval(tick, 1000);
});
