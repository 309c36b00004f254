// The interlock overview: one tile per interlock and permit, in the words of
// the domain (OK / WARNING / TRIP PENDING / TRIPPED, GRANTED / REVOKED and
// by which interlock), and the manager's summary, message, "Enable All" and
// report. While the page is offline nothing here claims a state.
import * as api from "./api.js";
import { h, title } from "./dom.js";
import { actionButton, fieldRow } from "./fields.js";
import { learnGuards } from "./guards.js";
import { colorState, interlockState, isInterlockType, isPermitType, permitState, summaryState, worst } from "./interlock_state.js";

export class InterlockPanel {
  constructor(live) {
    this.live = live;
    this.section = document.getElementById("interlocks");
    this.tiles = document.getElementById("interlock-tiles");
    this.manager = document.getElementById("interlock-manager");
    this.pill = document.getElementById("interlock-summary");
    this.entries = [];     // {item, state, paint}
    this.stops = [];
    this.offline = false;
    this.summary = null;
    // Pending trips count down without any push.
    setInterval(() => this.entries.forEach((e) => e.pending && e.refresh()), 200);
    live.onStatus((status) => {
      this.offline = status === "offline";
      this.updatePill();
    });
  }

  async load() {
    this.stops.forEach((stop) => stop());
    this.stops = [];
    this.entries = [];
    const overview = await api.interlocks();
    learnGuards(overview);
    const items = overview.items ?? [];
    this.section.hidden = items.length === 0;
    const tiles = items.map((item) => this.tile(item));
    this.tiles.replaceChildren(...tiles);
    this.showManager(overview.manager);
    this.repaintAll();
  }

  tile(item) {
    const state = h("span", { class: "tile-state" }, "");
    const note = h("span", { class: "tile-note" }, "");
    const tile = h("a", { class: "tile", href: `#/${item.path}`, title: item.detail || item.type, dataset: { path: item.path } },
      h("span", { class: "tile-label" }, item.label), state, note);
    const entry = { item, state: null, value: item.state, tripTime: 0n, color: item.color };
    entry.refresh = () => {
      entry.state = this.stateOf(entry);
      entry.pending = entry.state.color === "pending";
      tile.dataset.color = entry.state.color;
      tile.dataset.state = entry.state.word;
      state.textContent = entry.state.word;
      note.textContent = entry.state.note ?? "";
    };
    this.entries.push(entry);
    const changed = () => this.repaintAll();
    if (item.state_field) this.stops.push(this.live.watch(item.state_field, (v) => { entry.value = v; changed(); }));
    if (item.color_field) this.stops.push(this.live.watch(item.color_field, (c) => { entry.color = c; changed(); }));
    if (isInterlockType(item.type)) {
      this.stops.push(this.live.watch(`${item.path}/trip_time`, (t) => { entry.tripTime = t; changed(); }));
    }
    return tile;
  }

  stateOf(entry) {
    const { item } = entry;
    if (isPermitType(item.type)) {
      const shown = { ...permitState(entry.value) };
      if (entry.value === false) shown.note = `by ${this.locksInError(item.path).join(", ") || "an interlock"}`;
      return shown;
    }
    if (isInterlockType(item.type)) return interlockState(entry.value, entry.tripTime);
    return colorState(entry.color);
  }

  // The interlocks beneath a permit that are tripped.
  locksInError(permitPath) {
    return this.entries
      .filter((e) => e.item.path.startsWith(`${permitPath}/`) && isInterlockType(e.item.type) && Number(e.value) === 1)
      .map((e) => e.item.label);
  }

  repaintAll() {
    // Interlocks first: a permit's tile names those in error.
    for (const entry of this.entries) if (!isPermitType(entry.item.type)) entry.refresh();
    for (const entry of this.entries) if (isPermitType(entry.item.type)) entry.refresh();
    this.updatePill();
  }

  showManager(manager) {
    this.summary = null;
    this.pendingNote = null;
    if (!manager) {
      this.manager.replaceChildren();
      return;
    }
    const children = manager.children ?? [];
    const child = (name) => children.find((c) => c.name === name && c.kind === "io");
    const parts = [];
    const summary = child("summary");
    if (summary) {
      this.summary = summary.value.value;
      this.stops.push(this.live.watch(summary.value.path, (v) => { this.summary = v; this.updatePill(); }));
    }
    const message = child("message");
    if (message) {
      const text = h("span", { class: "interlock-message", dataset: { path: message.value.path } }, message.value.value ?? "");
      this.stops.push(this.live.watch(message.value.path, (v) => (text.textContent = v ?? "")));
      // The manager counts a pending trip as OK until it trips; the page
      // never lets its message stand alone while a condition is in error.
      this.pendingNote = h("span", { class: "interlock-pending-note" }, "");
      parts.push(text, this.pendingNote);
    }
    const enableAll = child("enable_all");
    if (enableAll) {
      const rows = h("div", { class: "rows compact" });
      const row = fieldRow({ ...enableAll.value, detail: enableAll.detail }, this.live, { label: title(enableAll) === "Enable all" ? "Enable All" : title(enableAll) });
      this.stops.push(row.stop);
      rows.append(row.element);
      parts.push(rows);
    }
    for (const button of manager.buttons) {
      const after = button.name === "generate_report_csv" ? () => this.offerReport() : undefined;
      parts.push(actionButton(button, manager, after));
    }
    this.report = h("a", { class: "report-link", href: api.INTERLOCK_REPORT, download: "interlock_report.csv", hidden: true }, "Download the report");
    parts.push(this.report);
    this.manager.replaceChildren(...parts);
  }

  offerReport() {
    this.report.hidden = false;
  }

  // The header's pill: the manager's summary and the worst tile; while
  // offline no state is claimed at all.
  updatePill() {
    if (this.section.hidden) {
      this.pill.hidden = true;
      return;
    }
    this.pill.hidden = false;
    if (this.offline) {
      this.pill.dataset.color = "neutral";
      this.pill.textContent = "Interlocks: not known (offline)";
      return;
    }
    // Permits follow their interlocks: the pill speaks of the interlocks.
    const states = this.entries.filter((e) => !isPermitType(e.item.type)).map((e) => e.state ?? this.stateOf(e));
    if (this.summary !== null) states.push(summaryState(this.summary));
    const shown = worst(states);
    if (this.pendingNote) {
      const pending = this.entries.filter((e) => e.pending).map((e) => e.item.label);
      this.pendingNote.textContent = pending.length ? ` Trip pending: ${pending.join(", ")}.` : "";
    }
    this.pill.dataset.color = shown.color;
    this.pill.textContent = `Interlocks: ${shown.word}`;
  }
}
