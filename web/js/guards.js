// The limits interlocks guard values with, drawn next to those values: a
// row says "warns above 1100 · trips above 1200 mbar (Vacuum)", its value is
// marked while beyond them, and its trend draws them as lines.
import * as api from "./api.js";
import { formatValue } from "./format.js";
import { isInterlockType } from "./interlock_state.js";

const BOUNDS = [
  { name: "lower_limit", kind: "limit", side: "below" },
  { name: "upper_limit", kind: "limit", side: "above" },
  { name: "lower_warning", kind: "warning", side: "below" },
  { name: "upper_warning", kind: "warning", side: "above" },
];

// value path -> [{label, units, bands}]; rows drawn before the first
// overview arrives wait for it.
let firstLearnt;
let guards = new Promise((resolve) => (firstLearnt = resolve));

// Learns the guards from the interlock overview (once per overview load).
export function learnGuards(overview) {
  guards = (async () => {
    const found = new Map();
    const items = (overview.items ?? []).filter((i) => isInterlockType(i.type) && i.inputs?.length);
    const nodes = await Promise.all(items.map((i) => api.describe(i.path, 0).catch(() => null)));
    items.forEach((item, index) => {
      const node = nodes[index];
      if (!node) return;
      const bands = [];
      for (const bound of BOUNDS) {
        const field = node.fields.find((f) => f.name === bound.name);
        if (field && field.stamp !== 0 && field.stamp !== 0n) bands.push({ ...bound, value: field.value });
      }
      if (!bands.length) return;
      for (const input of item.inputs) {
        if (!found.has(input)) found.set(input, []);
        found.get(input).push({ label: item.label, units: node.units, bands });
      }
    });
    return found;
  })();
  firstLearnt(guards);
}

export const guardsOf = async (path) => (await guards).get(path) ?? [];

export function guardText(guard) {
  const units = guard.units ? ` ${guard.units}` : "";
  const words = (kind) => guard.bands.filter((b) => b.kind === kind).map((b) => `${b.side} ${formatValue(b.value)}`);
  const parts = [];
  if (words("warning").length) parts.push(`warns ${words("warning").join(" or ")}`);
  if (words("limit").length) parts.push(`trips ${words("limit").join(" or ")}`);
  return `${parts.join(" · ")}${units} (${guard.label})`;
}

// "limit", "warning" or "" for a value against its guards.
export function beyond(value, list) {
  if (typeof value !== "number") return "";
  let worst = "";
  for (const guard of list) {
    for (const band of guard.bands) {
      const out = band.side === "above" ? value > band.value : value < band.value;
      if (out && band.kind === "limit") return "limit";
      if (out) worst = "warning";
    }
  }
  return worst;
}
