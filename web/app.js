// The ZEL operator page: the system tree with live values, the interlock
// overview and the log, all drawn from what the instrument describes.
import { AlarmPanel } from "./js/alarm_panel.js";
import { AdminView } from "./js/admin_view.js";
import { InterlockPanel } from "./js/interlock_panel.js";
import { LiveConnection } from "./js/live.js";
import { LogPanel } from "./js/log_panel.js";
import { LoginBox } from "./js/login.js";
import { showNode } from "./js/node_view.js";
import { TreeNav } from "./js/tree_nav.js";

const live = new LiveConnection();
const showHiddenBox = document.getElementById("show-hidden");
showHiddenBox.checked = localStorage.getItem("zel.showHidden") === "true";
const options = () => ({ showHidden: showHiddenBox.checked });

const nav = new TreeNav(document.getElementById("tree"), options());
const interlocks = new InterlockPanel(live);
new LogPanel(live);
new AlarmPanel(live);
const login = new LoginBox(document.getElementById("login"), document.getElementById("login-dialog"));
login.refresh().catch(() => {});
new AdminView(document.getElementById("login"));

const STATUS_TEXT = { live: "Live", connecting: "Connecting…", offline: "Disconnected — values are not live" };
live.onStatus((status) => {
  const box = document.getElementById("connection");
  box.className = `connection ${status}`;
  box.querySelector(".text").textContent = STATUS_TEXT[status] ?? status;
  document.body.classList.toggle("offline", status === "offline");
});

let stopView = () => {};
let drawn = 0;
async function route() {
  const path = decodeURIComponent(location.hash.replace(/^#\/?/, "")).replace(/\/+$/, "");
  const turn = ++drawn;
  stopView();
  stopView = () => {};
  const stop = await showNode(document.getElementById("view"), path, live, options());
  if (turn !== drawn) return stop();  // the operator went on meanwhile
  stopView = stop;
  nav.reveal(path);
}

async function loadAll() {
  // The node in view first: its values are what the operator waits for.
  route();
  interlocks.load().catch(() => {});
  try {
    const root = await nav.load();
    const name = root.label || "Instrument";
    document.getElementById("instrument").textContent = name;
    document.title = `ZEL — ${name}`;
  } catch (error) {
    document.getElementById("instrument").textContent = "Instrument not reachable";
  }
  nav.reveal(nav.current);
}

const trendsBox = document.getElementById("show-trends");
trendsBox.checked = localStorage.getItem("zel.trends") !== "off";
trendsBox.addEventListener("change", () => {
  localStorage.setItem("zel.trends", trendsBox.checked ? "on" : "off");
  route();
});
showHiddenBox.addEventListener("change", () => {
  localStorage.setItem("zel.showHidden", String(showHiddenBox.checked));
  nav.showHidden = showHiddenBox.checked;
  loadAll();
});
window.addEventListener("hashchange", route);
// After a reconnect the instrument may have restarted: draw everything again.
let wasOffline = false;
live.onStatus((status) => {
  if (status === "offline") wasOffline = true;
  if (status === "live" && wasOffline) {
    wasOffline = false;
    loadAll();
  }
});
loadAll();
