// What an interlock's or a permit's published values mean to an operator.
import { secondsText, stampMs } from "./format.js";

export const isInterlockType = (type = "") => /Interlock/.test(type) && !/Manager/.test(type);
export const isPermitType = (type = "") => /Permit/.test(type);

// The state an interlock publishes: 0 OK, 1 error, 2 warning.
const STATES = {
  0: { word: "OK", color: "green", rank: 0 },
  2: { word: "WARNING", color: "orange", rank: 1 },
  1: { word: "TRIPPED", color: "red", rank: 3 },
};
const PENDING_RANK = 2;
const UNKNOWN = { word: "UNKNOWN", color: "neutral", rank: 2 };

// The shown state of an interlock from its value and its trip_time: an error
// that waits out its delay shows as pending with the time left, never as OK.
export function interlockState(value, tripTime) {
  const known = STATES[Number(value)] ?? UNKNOWN;
  if (value === null || value === undefined) return UNKNOWN;
  if (tripTime && tripTime !== 0n && known.rank < STATES[1].rank) {
    const left = Math.max(0, (stampMs(tripTime) - Date.now()) / 1000);
    return { word: "TRIP PENDING", color: "pending", rank: PENDING_RANK, note: `trips in ${secondsText(left)}` };
  }
  return known;
}

// A colour attribute as a state (nodes beneath the manager that only colour).
export function colorState(color) {
  return Object.values(STATES).find((s) => s.color === color) ?? (color === "yellow" ? STATES[2] : UNKNOWN);
}

export function permitState(value) {
  if (value === true) return { word: "GRANTED", color: "green", rank: 0 };
  if (value === false) return { word: "REVOKED", color: "red", rank: 3 };
  return UNKNOWN;
}

// The manager's summary text ("ok", "warning", "error") as a state.
export function summaryState(summary) {
  return { ok: STATES[0], warning: STATES[2], error: STATES[1] }[summary] ?? UNKNOWN;
}

export const worst = (states) => states.reduce((a, b) => (b.rank > a.rank ? b : a), STATES[0]);
