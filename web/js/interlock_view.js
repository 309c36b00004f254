// Views of one interlock or permit in the words of the domain: the state
// with its colour and since when, a pending trip counting down, the
// condition and its limits; a permit granted or revoked and by which
// interlock, and why an operator's command does not switch the output on.
import * as api from "./api.js";
import { h } from "./dom.js";
import { formatValue, stampTime } from "./format.js";
import { interlockState, isInterlockType, permitState } from "./interlock_state.js";
import { toast } from "./notices.js";

const fieldOf = (node, name) => node.fields.find((f) => f.name === name);
const assigned = (field) => field && field.stamp !== 0 && field.stamp !== 0n;

// Watches a field, starting from its described value.
function follow(live, stops, field, onValue) {
  if (!field) return;
  onValue(field.value);
  stops.push(live.watch(field.path, onValue));
}

// "error above 1200 mbar; warning above 1100 mbar": the limits that take
// part, from the fields an interlock has.
function conditionText(node) {
  const units = node.units ? ` ${node.units}` : "";
  const bound = (name, words) => {
    const field = fieldOf(node, name);
    return assigned(field) ? `${words} ${formatValue(field.value, field.type)}${name.startsWith("tolerance") ? " %" : units}` : null;
  };
  const error = [bound("lower_limit", "below"), bound("upper_limit", "above"), bound("tolerance_limit", "off by more than")].filter(Boolean);
  const warning = [bound("lower_warning", "below"), bound("upper_warning", "above"), bound("tolerance_warning", "off by more than")].filter(Boolean);
  const parts = [];
  if (error.length) parts.push(`Trips ${error.join(" or ")}`);
  if (warning.length) parts.push(`warns ${warning.join(" or ")}`);
  const delay = fieldOf(node, "error_time_duration");
  if (assigned(delay)) parts.push(`an error must hold for ${formatValue(delay.value)} s`);
  const polarity = fieldOf(node, "polarity");
  if (node.type === "DigitalInterlockIO") parts.push(polarity && Number(polarity.value) === 0 ? "trips while its input is false" : "trips while its input is true");
  return parts.join("; ");
}

// The big state of an interlock node.
export function interlockSection(node, live, stops) {
  const word = h("span", { class: "state-word" });
  const since = h("span", { class: "state-since" });
  const note = h("span", { class: "state-note" });
  const box = h("div", { class: "state-box", dataset: { path: node.path } }, word, since, note);
  let value = node.value?.value;
  let tripTime = fieldOf(node, "trip_time")?.value ?? 0n;
  let stateTime = 0n;
  const paint = () => {
    const state = interlockState(value, tripTime);
    box.dataset.color = state.color;
    word.textContent = state.word;
    note.textContent = state.note ?? "";
    // While a trip is pending the state's own time says nothing of it.
    since.textContent = stateTime && stateTime !== 0n && !state.note ? `since ${stampTime(stateTime)}` : "";
  };
  follow(live, stops, node.value, (v) => { value = v; paint(); });
  follow(live, stops, fieldOf(node, "trip_time"), (t) => { tripTime = t; paint(); });
  follow(live, stops, fieldOf(node, "state_time"), (t) => { stateTime = t; paint(); });
  const timer = setInterval(paint, 200);
  stops.push(() => clearInterval(timer));
  const condition = conditionText(node);
  return h("section", { class: "panel interlock-view" }, h("h2", {}, "State"), box,
    condition ? h("p", { class: "condition" }, condition) : null);
}

// A permit: granted or revoked and by which interlock beneath it; and the
// operator's command explained when the output stays off.
export function permitSection(node, live, stops) {
  const word = h("span", { class: "state-word" });
  const why = h("span", { class: "state-note" });
  const box = h("div", { class: "state-box", dataset: { path: node.path } }, word, why);
  const command = h("p", { class: "permit-command", role: "status" });
  const locks = new Map();  // path -> {label, value}
  let granted = node.value?.value;
  let user = fieldOf(node, "user_command")?.value;
  let gate = fieldOf(node, "gate_command")?.value;
  const trippedLocks = () => [...locks.values()].filter((l) => Number(l.value) === 1).map((l) => l.label);
  const paint = () => {
    const state = permitState(granted);
    const tripped = trippedLocks();
    box.dataset.color = state.color;
    word.textContent = state.word;
    why.textContent = granted === false ? `by ${tripped.join(", ") || "an interlock"}` : "";
    let text = "";
    if (granted === false) text = `The output stays off: the permit is revoked by ${tripped.join(", ") || "an interlock"}. A command is withdrawn until the permit returns.`;
    else if (user === true && gate === true) text = "Commanded on, but the gate holds the output off.";
    else if (user === true) text = "Commanded on: the output is on.";
    else text = "Not commanded: the output is off.";
    command.textContent = text;
    command.classList.toggle("refused", granted === false || (user === true && gate === true));
  };
  follow(live, stops, node.value, (v) => { granted = v; paint(); });
  follow(live, stops, fieldOf(node, "user_command"), (v) => { user = v; paint(); });
  follow(live, stops, fieldOf(node, "gate_command"), (v) => { gate = v; paint(); });
  api.interlocks().then((overview) => {
    for (const item of overview.items ?? []) {
      if (!item.path.startsWith(`${node.path}/`) || !isInterlockType(item.type) || !item.state_field) continue;
      const lock = { label: item.label, value: item.state };
      locks.set(item.path, lock);
      stops.push(live.watch(item.state_field, (v) => { lock.value = v; paint(); }));
    }
    paint();
  }).catch(() => {});
  paint();
  // A command given while the permit is revoked or the gate holds is taken
  // and withdrawn or held at once: the row says why, as for a refused set.
  const explain = (row) => {
    const box = row.querySelector("input[type=checkbox]");
    box?.addEventListener("change", () => {
      if (!box.checked) return;
      setTimeout(() => {
        if (granted !== false && gate !== true) return;
        const error = row.querySelector(".row-error");
        error.hidden = false;
        error.textContent = granted === false
          ? `Refused: the permit is revoked by ${trippedLocks().join(", ") || "an interlock"}; the command was withdrawn.`
          : "Held off: the gate holds the output off.";
        row.classList.add("refused");
        toast(error.textContent);
      }, 400);
    });
  };
  return { section: h("section", { class: "panel interlock-view" }, h("h2", {}, "Permit"), box), command, explain };
}

// A state chip for an interlock shown as a row of its parent's view.
export function stateChip(io, live, stops) {
  const chip = h("span", { class: "state-chip value", dataset: { path: io.value.path } });
  let value = io.value.value;
  let tripTime = 0n;
  const paint = () => {
    const state = interlockState(value, tripTime);
    chip.dataset.color = state.color;
    chip.textContent = state.note ? `${state.word} (${state.note})` : state.word;
  };
  stops.push(live.watch(io.value.path, (v) => { value = v; paint(); }));
  stops.push(live.watch(`${io.path}/trip_time`, (t) => { tripTime = t; paint(); }));
  const timer = setInterval(() => tripTime && tripTime !== 0n && paint(), 200);
  stops.push(() => clearInterval(timer));
  paint();
  return chip;
}
