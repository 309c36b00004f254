// How values and times read on screen.

// Nanosecond stamps and other integers beyond 2^53 arrive as JSON numbers
// that a double cannot hold: they are read from their source text as BigInt.
// Everything else parses as usual.
export function parseJson(text) {
  return JSON.parse(text, function exact(key, value, context) {
    if (typeof value === "number" && !Number.isSafeInteger(value) && Number.isInteger(value) &&
        context?.source && /^-?\d+$/.test(context.source)) return BigInt(context.source);
    return value;
  });
}

export function formatValue(value, type) {
  if (value === null || value === undefined) return "—";
  if (typeof value === "boolean") return value ? "true" : "false";
  if (typeof value === "bigint") return String(value);
  if (typeof value === "number") return formatNumber(value, type);
  if (typeof value === "string") return value;
  return JSON.stringify(value, (k, v) => (typeof v === "bigint" ? String(v) : v));
}

// Integers as they are; other numbers to 6 significant digits without
// trailing zeros, so a reading does not jitter in its last places.
export function formatNumber(value, type) {
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
  if (typeof value === "bigint") return String(value);
  return typeof value === "string" ? value : JSON.stringify(value);
}

// A stamp (nanoseconds since the epoch, BigInt or number) as milliseconds.
export function stampMs(stamp) {
  if (typeof stamp === "bigint") return Number(stamp / 1000000n);
  return Number(stamp) / 1e6;
}

const sameDay = (a, b) => a.getFullYear() === b.getFullYear() && a.getMonth() === b.getMonth() && a.getDate() === b.getDate();

// A time of day, with the date in front when it is not today.
export function dateTime(ms, { millis = false } = {}) {
  const date = new Date(ms);
  let text = date.toLocaleTimeString([], { hour12: false });
  if (millis) text += `.${String(date.getMilliseconds()).padStart(3, "0")}`;
  if (!sameDay(date, new Date())) text = `${date.toLocaleDateString()} ${text}`;
  return text;
}

// Change stamps: zero means never assigned.
export function stampTime(stamp) {
  if (!stamp || stamp === 0n) return "never";
  return dateTime(stampMs(stamp));
}

export function logTime(stamp) {
  return dateTime(stampMs(stamp), { millis: true });
}

// "in 1.4 s", "3 s ago".
export function secondsText(seconds) {
  return seconds >= 10 ? `${Math.round(seconds)} s` : `${seconds.toFixed(1)} s`;
}
