// Alarms: a banner in the header, seen from every view, counts the alarms no
// operator has acknowledged; it opens the journal of interlock trips,
// warnings and returns to OK, newest first, each with its acknowledgement or
// a button to give it. The journal is fetched again whenever its sequence
// number moves (a new alarm or an acknowledgement anywhere).
import * as api from "./api.js";
import { coalesce } from "./coalesce.js";
import { h } from "./dom.js";
import { dateTime, stampMs } from "./format.js";
import { toast } from "./notices.js";

const SHOWN = 200;
const KIND_WORDS = { trip: "TRIPPED", warning: "WARNING", ok: "OK" };

// Stamps come as strings of nanoseconds: a JavaScript number would round them.
const alarmTime = (nanoseconds) => dateTime(stampMs(BigInt(nanoseconds)));

async function acknowledge(id) {
  const answer = await api.acknowledgeAlarms(id);
  if (!answer.ok) toast(`Not acknowledged: ${answer.error}`);
}

export class AlarmPanel {
  constructor(live) {
    this.banner = document.getElementById("alarm-banner");
    this.section = document.getElementById("alarm-panel");
    this.list = h("ol", { class: "alarm-list" });
    this.ackAll = h("button", { type: "button", class: "alarm-ack-all", onclick: () => acknowledge() },
      "Acknowledge all");
    const close = h("button", { type: "button", class: "link", onclick: () => (this.section.hidden = true) }, "close");
    this.section.replaceChildren(h("div", { class: "alarm-head" }, h("h2", {}, "Alarms"), this.ackAll, close), this.list);
    this.banner.addEventListener("click", () => {
      this.section.hidden = !this.section.hidden;
      if (!this.section.hidden) this.section.scrollIntoView({ block: "nearest" });
    });
    this.entries = new Map();  // id -> alarm
    this.last = 0;
    this.soon = coalesce(() => this.fetch(), 100);
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

  async fetch() {
    try {
      const answer = await api.alarmsAfter(this.last, SHOWN);
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
      : h("button", { type: "button", class: "alarm-ack-button", onclick: () => acknowledge(alarm.id) },
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
