// The log: the newest records first, errors marked, fetched whenever the
// log's own value changes. After the connection comes back it checks whether
// the program restarted (its record numbers start again): then it marks the
// restart and goes on with the new program's records.
import * as api from "./api.js";
import { coalesce } from "./coalesce.js";
import { h } from "./dom.js";
import { logTime } from "./format.js";

const KEPT = 300;

export class LogPanel {
  constructor(live) {
    this.list = document.getElementById("log-records");
    this.last = 0;           // sequence number of the newest record shown
    this.lastStamp = null;   // and its stamp: together they tell one program run
    this.recheck = false;    // the connection was lost: the program may have restarted
    this.soon = coalesce(() => this.fetch(), 150);
    this.errorsOnly = document.getElementById("log-errors-only");
    this.errorsOnly.addEventListener("change", () => this.list.classList.toggle("errors-only", this.errorsOnly.checked));
    const toggle = document.getElementById("log-toggle");
    toggle.addEventListener("click", () => {
      const hidden = this.list.classList.toggle("collapsed");
      toggle.textContent = hidden ? "show" : "hide";
    });
    this.fetch();
    live.watch("log/value", () => this.soon());
    live.onStatus((status) => {
      if (status === "offline") this.recheck = true;
      if (status === "live") this.soon();
    });
  }

  async fetch() {
    try {
      if (this.recheck && this.last > 0) {
        // The newest record shown, asked for again: same number and stamp
        // means the same program run. The server answers the newest records
        // after a number, so all of them are asked for (what was logged
        // meanwhile comes too); only a record of that number with another
        // stamp, or fewer records than shown, tells a restart.
        const again = await api.logAfter(this.last - 1, 10000);
        const same = again.records.find((r) => r.seq === this.last);
        this.recheck = false;
        if (same ? same.stamp !== this.lastStamp : (again.last ?? 0) < this.last) this.restarted();
      }
      const answer = await api.logAfter(this.last);
      if ((answer.last ?? 0) < this.last) {
        this.restarted();
        return this.fetch();
      }
      for (const record of answer.records) this.add(record);
    } catch {
      // The connection status already tells that the instrument is away.
    }
  }

  restarted() {
    this.last = 0;
    this.lastStamp = null;
    this.list.prepend(h("li", { class: "log-record restart" }, "— the program restarted —"));
  }

  add(record) {
    if (record.seq <= this.last) return;
    this.last = record.seq;
    this.lastStamp = record.stamp;
    const item = h("li", { class: `log-record ${record.level}` },
      h("span", { class: "log-time" }, logTime(record.stamp)),
      h("span", { class: "log-level" }, record.level),
      h("span", { class: "log-source" }, `${record.source}:${record.line}`),
      h("span", { class: "log-text" }, record.text));
    this.list.prepend(item);
    while (this.list.children.length > KEPT) this.list.lastElementChild.remove();
  }
}
