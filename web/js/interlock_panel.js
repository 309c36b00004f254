// The interlock overview: one tile per interlock (any node whose type names
// an interlock or that carries a colour), coloured by its state, and the
// manager's summary and controls.
import * as api from "./api.js";
import { h, title } from "./dom.js";
import { actionButton, fieldRow } from "./fields.js";
import { formatValue } from "./format.js";

// What each state colour means to an operator.
const STATES = {
  green: { word: "OK", rank: 0 },
  orange: { word: "WARNING", rank: 1 },
  yellow: { word: "WARNING", rank: 1 },
  red: { word: "TRIPPED", rank: 2 },
};

const STATE_COLORS = ["green", "red", "orange"];

export class InterlockPanel {
  constructor(live) {
    this.live = live;
    this.section = document.getElementById("interlocks");
    this.tiles = document.getElementById("interlock-tiles");
    this.manager = document.getElementById("interlock-manager");
    this.pill = document.getElementById("interlock-summary");
    this.colors = new Map();
    this.stops = [];
  }

  async load() {
    this.stops.forEach((stop) => stop());
    this.stops = [];
    this.colors.clear();
    const overview = await api.interlocks();
    const items = overview.items ?? [];
    this.section.hidden = items.length === 0;
    this.tiles.replaceChildren(...items.map((item) => this.tile(item)));
    this.showManager(overview.manager);
    this.updatePill();
  }

  tile(item) {
    const state = h("span", { class: "tile-state" }, "");
    const value = h("span", { class: "tile-value" }, "");
    const tile = h("a", { class: "tile", href: `#/${item.path}`, title: item.detail || item.type, dataset: { path: item.path } },
      h("span", { class: "tile-label" }, item.label), state, value);
    const paint = (color) => {
      const known = STATES[color];
      tile.dataset.color = color || "";
      tile.style.setProperty("--tile", known ? `var(--${color})` : color || "var(--neutral)");
      state.textContent = known ? known.word : (color || "—");
      this.colors.set(item.path, color);
      this.updatePill();
    };
    paint(item.color);
    if (item.color_field) this.stops.push(this.live.watch(item.color_field, (color) => paint(color)));
    if (item.state_field) {
      value.textContent = formatValue(item.state);
      this.stops.push(this.live.watch(item.state_field, (v) => (value.textContent = formatValue(v))));
    }
    return tile;
  }

  showManager(manager) {
    this.summary = null;
    if (!manager) {
      this.manager.replaceChildren();
      return;
    }
    const rows = h("div", { class: "rows compact" });
    for (const field of manager.fields) {
      if (field.name === "summary") {
        this.summary = field.value;
        this.stops.push(this.live.watch(field.path, (v) => {
          this.summary = v;
          this.updatePill();
        }));
        continue;
      }
      const row = fieldRow(field, this.live);
      this.stops.push(row.stop);
      rows.append(row.element);
    }
    const buttons = manager.buttons.map((b) => actionButton(b, manager));
    this.manager.replaceChildren(...(rows.children.length ? [rows] : []), ...buttons);
  }

  // The header's pill: the worst state among the tiles, and the manager's
  // summary text when it has one.
  updatePill() {
    if (this.section.hidden) {
      this.pill.hidden = true;
      return;
    }
    let worst = "green";
    for (const color of this.colors.values()) {
      if ((STATES[color]?.rank ?? 0) > STATES[worst].rank) worst = color;
    }
    // A numeric summary is an interlock state: 0 OK, 1 error, 2 warning.
    const stateColor = typeof this.summary === "number" ? STATE_COLORS[this.summary] : undefined;
    if (stateColor && STATES[stateColor].rank > STATES[worst].rank) worst = stateColor;
    let text = STATES[worst].word;
    if (typeof this.summary === "string" && this.summary) text = this.summary;
    this.pill.hidden = false;
    this.pill.dataset.color = worst;
    this.pill.textContent = `Interlocks: ${text}`;
  }
}
