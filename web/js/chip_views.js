// Pictures of I2C chips for the node view: an OLED shows its rows as the
// glass would (turned over when mounted upside down), a port expander its
// pins as lamps, and any chip its fault. Values stay live.
import { h } from "./dom.js";

const COLUMNS = 20;

function fieldOf(node, name) {
  return node.fields.find((f) => f.name === name);
}

function watchField(node, name, live, stops, draw) {
  const field = fieldOf(node, name);
  if (!field) return;
  draw(field.value);
  stops.push(live.watch(field.path, (value) => draw(value)));
}

function oledView(node, live, stops) {
  const rows = node.fields.filter((f) => /^row_\d+$/.test(f.name));
  const glass = h("div", { class: "oled-glass", role: "img", "aria-label": "Display rows" });
  const lines = rows.map(() => h("div", { class: "oled-row" }));
  glass.append(...lines);
  rows.forEach((row, i) => watchField(node, row.name, live, stops,
    (value) => { lines[i].textContent = String(value ?? "").padEnd(COLUMNS).slice(0, COLUMNS); }));
  watchField(node, "upsidedown", live, stops, (value) => glass.classList.toggle("flipped", value === true));
  watchField(node, "initalized", live, stops, (value) => glass.classList.toggle("dark", value !== true));
  return glass;
}

function pinsView(node, live, stops, name, count) {
  const lamps = Array.from({ length: count }, (_, i) => h("span", { class: "pin", title: `P${i}` }, `P${i}`));
  watchField(node, name, live, stops, (value) => {
    lamps.forEach((lamp, i) => lamp.classList.toggle("high", ((Number(value) >> i) & 1) === 1));
  });
  return h("div", { class: "pins", "aria-label": "Pin levels" }, lamps.reverse());
}

function faultView(node, live, stops) {
  const box = h("div", { class: "chip-fault", role: "status" });
  watchField(node, "fault", live, stops, (value) => {
    box.textContent = value ? `Fault: ${value}` : "Answering";
    box.classList.toggle("raised", Boolean(value));
  });
  return box;
}

// A panel for a chip node, or null for other nodes.
export function chipView(node, live, stops) {
  const parts = [];
  if (["US2066", "IDScreen"].includes(node.type)) parts.push(oledView(node, live, stops));
  if (node.type === "PCF8574") parts.push(pinsView(node, live, stops, "state", 8));
  if (node.type === "PCA9536") parts.push(pinsView(node, live, stops, "input", 4));
  if (fieldOf(node, "fault") && fieldOf(node, "address")) parts.unshift(faultView(node, live, stops));
  if (!parts.length) return null;
  return h("section", { class: "panel chip" }, h("h2", {}, "Chip"), ...parts);
}
