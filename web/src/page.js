// The live page: the script in an editor beside the picture it renders. Every edit, slider move
// or time change asks for a proxy at once (the server cancels the render it replaces) and, once
// the artist pauses, for the full resolution. The compiler's messages are marked at their lines;
// while the script does not compile, the last good picture stays.
import { EditorView, keymap, lineNumbers, highlightActiveLine, drawSelection } from "@codemirror/view";
import { EditorState } from "@codemirror/state";
import { defaultKeymap, history, historyKeymap } from "@codemirror/commands";
import { syntaxHighlighting, defaultHighlightStyle, bracketMatching } from "@codemirror/language";
import { setDiagnostics, lintGutter } from "@codemirror/lint";
import { kel } from "./kelLanguage.js";
import { Viewer } from "./viewer.js";
import { Controls, timeSlider } from "./controls.js";
import { requestJson, requestPreview } from "./wire.js";
import "./page.css";

// How long a pause in typing or dragging is before the full resolution is asked for.
const IDLE_MS = 300;

const $ = (id) => document.getElementById(id);
const session = await requestJson("/api/session");
const viewer = new Viewer($("viewport"), $("picture"), $("probe"));
const parameters = new Controls($("parameters"), () => preview(true));
let time = session.time;
timeSlider($("time"), session, (t) => {
  time = t;
  preview(true);
});

const editor = new EditorView({
  parent: $("editor"),
  state: EditorState.create({
    doc: session.text,
    extensions: [
      lineNumbers(),
      highlightActiveLine(),
      drawSelection(),
      history(),
      bracketMatching(),
      EditorView.lineWrapping,
      kel,
      syntaxHighlighting(defaultHighlightStyle),
      lintGutter(),
      keymap.of([{ key: "Mod-s", run: () => (save(), true) }, ...defaultKeymap, ...historyKeymap]),
      EditorView.updateListener.of((update) => update.docChanged && preview(true)),
    ],
  }),
});

$("script-name").textContent = session.script;
$("output-path").value = session.script.replace(/^.*\//, "").replace(/\.[^.]*$/, "") + ".exr";
for (const name of session.views) $("view").append(new Option(name, name));
$("view").addEventListener("change", () => preview(false));
$("fit").addEventListener("click", () => viewer.fit());
$("actual").addEventListener("click", () => viewer.actualSize());
$("stop").addEventListener("click", stop);
$("save").addEventListener("click", save);
$("render-file").addEventListener("click", renderToFile);
document.addEventListener("keydown", (e) => e.key === "Escape" && stop());
parameters.update(session.parameters);

function setStatus(text, kind = "") {
  $("status").textContent = text;
  $("status").className = kind;
}

// Requests on different connections may reach the server out of order: each carries this page's
// name and a number, and the server never lets an older one replace a newer one.
const page = Math.random().toString(36).slice(2);
let sequence = 0;
const ticket = () => ({ page, sequence: ++sequence });

function pageState() {
  return { script: editor.state.doc.toString(), values: parameters.values, time, view: $("view").value };
}

// Marks each message at its line (at its token when the column is known) and lists them.
function showMessages(messages) {
  const doc = editor.state.doc;
  const diagnostics = messages
    .filter((m) => m.line >= 1 && m.line <= doc.lines)
    .map((m) => {
      const line = doc.line(m.line);
      const from = m.column > 0 ? Math.min(line.from + m.column - 1, line.to) : line.from;
      return { from, to: m.column > 0 ? Math.min(from + 1, line.to) : line.to, severity: m.warning ? "warning" : "error", message: m.message };
    });
  editor.dispatch(setDiagnostics(editor.state, diagnostics));
  const list = $("messages");
  list.replaceChildren(
    ...messages.map((m) => {
      const item = document.createElement("li");
      item.className = m.warning ? "warning" : "error";
      item.dataset.line = m.line;
      item.textContent = m.line > 0 ? `line ${m.line}: ${m.message}` : m.message;
      return item;
    }),
  );
}

// The newest request is the only one whose answer is shown; an older one still on its way is
// abandoned (the server has cancelled its render already).
let latest = 0;
let inFlight = null;
let idleTimer = 0;

async function preview(proxy) {
  clearTimeout(idleTimer);
  if (proxy && session.proxyLevel === session.scaleLevel) proxy = false;
  const id = ++latest;
  inFlight?.abort();
  inFlight = new AbortController();
  const started = performance.now();
  setStatus(proxy ? "rendering a proxy…" : "rendering…", "busy");
  let info;
  try {
    // A proxy comes as bytes (a quarter of the floats' size), the full resolution as floats.
    const pixels = proxy ? "uint8" : "float32";
    info = await requestPreview({ ...pageState(), proxy, pixels, ...ticket() }, inFlight.signal);
  } catch (e) {
    if (id === latest && e.name !== "AbortError") setStatus(e.message, "error");
    return;
  }
  if (id !== latest) return;
  const received = performance.now();
  showMessages(info.messages);
  parameters.update(info.parameters);
  if (info.outcome === "rendered") {
    viewer.show(info, session.scaleLevel);
    // The moment the new picture is on screen: the benchmark reads it.
    requestAnimationFrame(() => {
      const at = performance.now();
      window.kelLive.shown = { id, started, received, at, scaleLevel: info.scaleLevel, server: info.milliseconds };
    });
    const errors = info.compiled ? "" : " (the script has errors: showing the input)";
    setStatus(`${proxy ? "proxy" : "full resolution"}, ${Math.round(performance.now() - started)} ms${errors}`, "done");
    if (proxy) idleTimer = setTimeout(() => preview(false), IDLE_MS);
  } else if (info.outcome === "refused") {
    setStatus("the script has errors: the picture is the last good one", "error");
  } else if (info.outcome === "cancelled") {
    setStatus(info.reason ? `cancelled ${info.reason}` : "cancelled", "cancelled");
  } else {
    setStatus(`the render failed: ${info.reason}`, "error");
  }
}

async function stop() {
  await requestJson("/api/stop", ticket());
}

async function save() {
  try {
    const reply = await requestJson("/api/save", { script: editor.state.doc.toString() });
    setStatus(`saved ${reply.path}`, "done");
  } catch (e) {
    setStatus(e.message, "error");
  }
}

async function renderToFile() {
  setStatus("rendering to a file…", "busy");
  try {
    const reply = await requestJson("/api/render-file", { ...pageState(), path: $("output-path").value, ...ticket() });
    setStatus(reply.ok ? `wrote ${reply.path}` : `${reply.path}: ${reply.message}`, reply.ok ? "done" : "error");
  } catch (e) {
    setStatus(e.message, "error");
  }
}

window.kelLive = { editor, shown: null };
preview(false);
