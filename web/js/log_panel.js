// The log: the newest records first, errors marked, fetched whenever the
// log's own value changes.
import * as api from "./api.js";
import { h } from "./dom.js";
import { logTime } from "./format.js";

const KEPT = 300;

export class LogPanel {
  constructor(live) {
    this.list = document.getElementById("log-records");
    this.last = 0;
    this.pending = null;
    this.errorsOnly = document.getElementById("log-errors-only");
    this.errorsOnly.addEventListener("change", () => this.list.classList.toggle("errors-only", this.errorsOnly.checked));
    const toggle = document.getElementById("log-toggle");
    toggle.addEventListener("click", () => {
      const hidden = this.list.classList.toggle("collapsed");
      toggle.textContent = hidden ? "show" : "hide";
    });
    this.fetch();
    live.watch("log/value", () => this.soon());
    live.onStatus((status) => status === "live" && this.soon());
  }

  soon() {
    if (this.pending) return;
    this.pending = setTimeout(() => {
      this.pending = null;
      this.fetch();
    }, 150);
  }

  async fetch() {
    try {
      const answer = await api.logAfter(this.last);
      for (const record of answer.records) this.add(record);
      this.last = Math.max(this.last, answer.last ?? 0);
    } catch {
      // The connection status already tells that the instrument is away.
    }
  }

  add(record) {
    if (record.seq <= this.last) return;
    this.last = record.seq;
    const item = h("li", { class: `log-record ${record.level}` },
      h("span", { class: "log-time" }, logTime(record.stamp)),
      h("span", { class: "log-level" }, record.level),
      h("span", { class: "log-source" }, `${record.source}:${record.line}`),
      h("span", { class: "log-text" }, record.text));
    this.list.prepend(item);
    while (this.list.children.length > KEPT) this.list.lastElementChild.remove();
  }
}
