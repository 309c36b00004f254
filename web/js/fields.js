// Rows of live values with their editors, and buttons.
import * as api from "./api.js";
import { h, humanize, title } from "./dom.js";
import { formatValue, stampTime, valueText } from "./format.js";
import { confirmAction, toast } from "./notices.js";
import { beyond, guardText, guardsOf } from "./guards.js";
import { TrendChart, trendsShown } from "./trends.js";
import { openTrend } from "./trend_dialog.js";

const NUMERIC = new Set(["double", "float", "int", "uint8", "uint16", "uint32", "uint64"]);

const FLASH = [{ backgroundColor: "#ffe58a" }, { backgroundColor: "transparent" }];
const FLASH_TIMING = { duration: 1000, easing: "ease-out" };

// Stamps of these fields are times, not quantities.
const isTimeField = (field) => field.type === "uint64" && /(^|_)time$/.test(field.name ?? "");

const notAssigned = (value, stamp) => (stamp === 0 || stamp === 0n) || (value === null && !stamp);

// Shows a value and makes it flash when it changes. A value never assigned
// reads "not set"; a time field reads as a time.
export function liveValue(field, live, extraClass = "") {
  const text = h("span", { class: `value ${extraClass}`, dataset: { path: field.path } });
  const time = h("span", { class: "time", title: "last change" }, stampTime(field.stamp));
  let last = field.value;
  const show = (value, stamp) => {
    const unset = notAssigned(value, stamp);
    const choice = field.choices?.find((c) => c.value === value);
    let shown;
    if (unset) shown = "not set";
    else if (isTimeField(field)) shown = value && value !== 0n ? stampTime(value) : "never";
    else shown = choice ? choice.label || choice.value : formatValue(value, field.type);
    text.textContent = shown;
    text.classList.toggle("unassigned", unset);
    text.title = unset ? "never assigned" : "";
    text.classList.toggle("long", shown.length > 24);
    text.classList.toggle("is-true", value === true);
    text.classList.toggle("is-false", value === false);
  };
  show(field.value, field.stamp);
  const stop = live.watch(field.path, (value, stamp) => {
    show(value, stamp);
    time.textContent = stampTime(stamp);
    // The flash as an animation of its own: restarting it forces no layout.
    if (!notAssigned(value, stamp) && formatValue(value) !== formatValue(last)) text.animate(FLASH, FLASH_TIMING);
    last = value;
  });
  return { text, time, stop };
}

async function applySet(field, text, row) {
  const error = row.querySelector(".row-error");
  const result = await api.setField(field.path, text);
  row.classList.toggle("refused", !result.ok);
  error.hidden = result.ok;
  error.textContent = result.ok ? "" : result.error;
  if (!result.ok) toast(`Not set: ${result.error}`);
  else {
    row.classList.add("accepted");
    setTimeout(() => row.classList.remove("accepted"), 900);
  }
  return result.ok;
}

function editorFor(field, row, live) {
  if (field.driven_by) {
    return { element: h("span", { class: "readonly-note" }, "switched by ", h("a", { href: `#/${field.driven_by}` }, field.driven_by)) };
  }
  if (field.readonly) return { element: h("span", { class: "readonly-note", title: "Set by the instrument" }, "read-only") };
  if (field.type === "bool") {
    const box = h("input", { type: "checkbox", "aria-label": `Set ${title(field)}` });
    box.checked = field.value === true;
    box.addEventListener("change", async () => {
      const wanted = box.checked;
      if (!(await applySet(field, wanted ? "true" : "false", row))) box.checked = !wanted;
    });
    const stop = live.watch(field.path, (value) => (box.checked = value === true));
    return { element: h("label", { class: "switch" }, box, h("span", { class: "slider" })), stop };
  }
  if (field.choices?.length) {
    const select = h("select", { "aria-label": `Choose ${title(field)}` },
      field.choices.map((c) => h("option", { value: c.value }, c.label || c.value)));
    select.value = field.value;
    select.addEventListener("change", async () => {
      if (!(await applySet(field, JSON.stringify(select.value), row))) select.value = field.value;
    });
    const stop = live.watch(field.path, (value) => {
      field.value = value;
      if (document.activeElement !== select) select.value = value;
    });
    return { element: h("span", { class: "editor" }, select), stop };
  }
  const numeric = NUMERIC.has(field.type);
  const input = h("input", {
    type: "text",
    class: numeric ? "number" : "text",
    inputmode: numeric ? "decimal" : undefined,
    placeholder: numeric ? "new value" : "new text",
    "aria-label": `New value for ${title(field)}`,
    spellcheck: "false",
  });
  const submit = async () => {
    if (input.value.trim() === "") return;
    const text = field.type === "string" ? JSON.stringify(input.value) : input.value.trim();
    if (await applySet(field, text, row)) input.value = "";
  };
  input.addEventListener("keydown", (event) => {
    if (event.key === "Enter") submit();
    if (event.key === "Escape") input.value = "";
  });
  const units = field.units ? h("span", { class: "units" }, field.units) : null;
  const set = h("button", { type: "button", class: "set", onclick: submit }, "Set");
  return { element: h("span", { class: "editor" }, input, units, set) };
}

// One row: label, live value with units, editor, time of the last change,
// and room for the reason when a set is refused.
export function fieldRow(field, live, { label, link } = {}) {
  const shown = liveValue(field, live);
  const row = h("div", { class: "row", dataset: { path: field.path } });
  const editor = editorFor(field, row, live);
  const name = link ? h("a", { href: `#/${link}`, class: "label" }, label ?? title(field)) : h("span", { class: "label" }, label ?? title(field));
  // Every numeric value has its trend: a sparkline, and a chart on click.
  let trend = null;
  if (NUMERIC.has(field.type) && !isTimeField(field) && trendsShown()) {
    trend = new TrendChart(field.path, live);
    const open = h("button", { type: "button", class: "trend-open", title: "Show the trend", "aria-label": `Trend of ${label ?? title(field)}` }, trend.element);
    open.addEventListener("click", async () => {
      const bands = (await guardsOf(field.path)).flatMap((g) => g.bands);
      openTrend(field, live, label ?? title(field), bands);
    });
    trend.button = open;
  }
  row.append(
    h("div", { class: "row-label" }, name, field.detail ? h("span", { class: "detail" }, field.detail) : null),
    h("div", { class: "row-value" }, trend?.button, shown.text, field.units ? h("span", { class: "units" }, field.units) : null),
    h("div", { class: "row-editor" }, editor.element),
    h("div", { class: "row-time" }, shown.time),
    h("div", { class: "row-error", role: "alert", hidden: true }),
  );
  const stops = [shown.stop, editor.stop, trend && (() => trend.stop())].filter(Boolean);
  if (NUMERIC.has(field.type)) showGuards(field, live, row, shown.text, stops);
  return { element: row, stop: () => stops.forEach((stop) => stop()) };
}

// A button field. Asks first when the button or its node wants confirmation.
export function actionButton(button, node, afterDone) {
  const label = button.label || humanize(button.name);
  const element = h("button", { type: "button", class: "action", dataset: { path: button.path } }, label);
  element.addEventListener("click", async () => {
    if (button.confirm) {
      const question = node?.confirm && node.confirm !== "true" ? node.confirm : `Press “${label}” on ${title(node ?? {})}?`;
      if (!(await confirmAction(label, question, label))) return;
    }
    element.disabled = true;
    const result = await api.setField(button.path, "true");
    element.disabled = false;
    if (result.ok) {
      toast(`${label}: done`, "info");
      afterDone?.();
    }
    else toast(`${label} refused: ${result.error}`);
  });
  return element;
}

// The limits guarding a value, under its label; the value marked while beyond.
async function showGuards(field, live, row, text, stops) {
  const list = await guardsOf(field.path);
  if (!list.length || !row.isConnected && !row.parentNode) return;
  const label = row.querySelector(".row-label");
  for (const guard of list) label.append(h("span", { class: "guard" }, guardText(guard)));
  const mark = (value) => {
    const state = beyond(value, list);
    text.classList.toggle("beyond-limit", state === "limit");
    text.classList.toggle("beyond-warning", state === "warning");
  };
  mark(field.value);
  stops.push(live.watch(field.path, mark));
}
