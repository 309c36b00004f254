// Alarms: a banner in the header, seen from every view, counts the alarms no
// operator has acknowledged; it opens the journal of interlock trips,
// warnings and returns to OK, newest first, each with its acknowledgement or
// a button to give it. The journal is fetched again whenever its sequence
// number moves (a new alarm or an acknowledgement anywhere).
import { h } from "./dom.js";
import { toast } from "./notices.js";

const SHOWN = 200;
const KIND_WORDS = { trip: "TRIPPED", warning: "WARNING", ok: "OK" };

// Stamps come as strings of nanoseconds: a JavaScript number would round them.
function stampDate(nanoseconds) {
  return new Date(Number(BigInt(nanoseconds) / 1000000n));
}

function alarmTime(nanoseconds) {
  const date = stampDate(nanoseconds);
  const time = date.toLocaleTimeString([], { hour12: false });
  return date.toDateString() === new Date().toDateString() ? time : `${date.toLocaleDateString()} ${time}`;
}

async function acknowledge(target) {
  try {
    const response = await fetch(target, { method: "POST" });
    if (response.ok) return;
    toast(`Not acknowledged: ${response.headers.get("X-Zel-Error") || `the server refused (${response.status})`}`);
  } catch (error) {
    toast(`No answer from the instrument: ${error.message}`);
  }
}

export class AlarmPanel {
  constructor(live) {
    this.banner = document.getElementById("alarm-banner");
    this.section = document.getElementById("alarm-panel");
    this.list = h("ol", { class: "alarm-list" });
    this.ackAll = h("button", { type: "button", class: "alarm-ack-all", onclick: () => acknowledge("/api/alarms/ack-all") },
      "Acknowledge all");
    const close = h("button", { type: "button", class: "link", onclick: () => (this.section.hidden = true) }, "close");
    this.section.replaceChildren(h("div", { class: "alarm-head" }, h("h2", {}, "Alarms"), this.ackAll, close), this.list);
    this.banner.addEventListener("click", () => {
      this.section.hidden = !this.section.hidden;
      if (!this.section.hidden) this.section.scrollIntoView({ block: "nearest" });
    });
    this.entries = new Map();  // id -> alarm
    this.last = 0;
    this.pending = null;
    live.watch("alarms/unacknowledged", (count) => this.showCount(Number(count)));
    live.watch("alarms/sequence", () => this.soon());
    // After a reconnect the instrument may have restarted: take the journal anew.
    live.onStatus((status) => {
      if (status !== "live") return;
      this.last = 0;
      this.entries.clear();
      this.soon();
    });
  }

  showCount(count) {
    this.banner.hidden = !(count > 0);
    this.banner.textContent = count === 1 ? "1 unacknowledged alarm" : `${count} unacknowledged alarms`;
    this.ackAll.disabled = !(count > 0);
  }

  soon() {
    if (this.pending) return;
    this.pending = setTimeout(() => {
      this.pending = null;
      this.fetch();
    }, 100);
  }

  async fetch() {
    try {
      const response = await fetch(`/api/alarms?after=${this.last}&limit=${SHOWN}`, { cache: "no-store" });
      if (!response.ok) return;
      const answer = await response.json();
      for (const alarm of answer.alarms) this.entries.set(alarm.id, alarm);
      this.last = Math.max(this.last, answer.last ?? 0);
      this.showCount(answer.unacknowledged);
      this.draw();
    } catch {
      // The connection status already tells that the instrument is away.
    }
  }

  draw() {
    const newest = [...this.entries.values()].sort((a, b) => b.id - a.id).slice(0, SHOWN);
    for (const id of this.entries.keys()) if (!newest.some((alarm) => alarm.id === id)) this.entries.delete(id);
    this.list.replaceChildren(...newest.map((alarm) => this.row(alarm)));
  }

  row(alarm) {
    const acknowledged = alarm.acknowledged_by !== null && alarm.acknowledged_by !== undefined;
    const state = acknowledged
      ? h("span", { class: "alarm-ack" }, `acknowledged by ${alarm.acknowledged_by} at ${alarmTime(alarm.acknowledged_at)}`)
      : h("button", { type: "button", class: "alarm-ack-button", onclick: () => acknowledge(`/api/alarms/${alarm.id}/ack`) },
        "Acknowledge");
    return h("li", { class: `alarm-row ${alarm.kind}${acknowledged ? " acknowledged" : ""}`,
      dataset: { id: alarm.id, path: alarm.path, kind: alarm.kind } },
    h("span", { class: "alarm-time" }, alarmTime(alarm.time)),
    h("span", { class: "alarm-kind" }, KIND_WORDS[alarm.kind] ?? alarm.kind),
    h("a", { class: "alarm-path", href: `#/${alarm.path}` }, alarm.path),
    h("span", { class: "alarm-text" }, alarm.text),
    state);
  }
}
