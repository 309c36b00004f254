// How values and times read on screen.

export function formatValue(value, type) {
  if (value === null || value === undefined) return "—";
  if (typeof value === "boolean") return value ? "true" : "false";
  if (typeof value === "number") return formatNumber(value, type);
  if (typeof value === "string") return value;
  return JSON.stringify(value);
}

// Integers as they are; other numbers to 6 significant digits without
// trailing zeros, so a reading does not jitter in its last places.
function formatNumber(value, type) {
  if (!Number.isFinite(value)) return String(value);
  if (Number.isInteger(value) && (type !== "double" && type !== "float" || Math.abs(value) < 1e15)) return String(value);
  const abs = Math.abs(value);
  if (abs !== 0 && (abs < 1e-4 || abs >= 1e9)) return value.toExponential(4);
  return String(Number(value.toPrecision(6)));
}

// The text a field's editor starts with and sends back: the value text format.
export function valueText(value, type) {
  if (type === "string") return typeof value === "string" ? value : "";
  if (value === null || value === undefined) return "";
  return typeof value === "string" ? value : JSON.stringify(value);
}

// Change stamps are nanoseconds since the epoch.
export function stampTime(stamp) {
  if (!stamp) return "never";
  const date = new Date(stamp / 1e6);
  return date.toLocaleTimeString([], { hour12: false });
}

export function logTime(stamp) {
  const date = new Date(stamp / 1e6);
  const ms = String(date.getMilliseconds()).padStart(3, "0");
  return `${date.toLocaleTimeString([], { hour12: false })}.${ms}`;
}
